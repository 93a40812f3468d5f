// References and the rules of a receipt: every row of a receipt's tables
// names a receipt that transactions.csv holds, every receipt a closing that
// cashpointclosing.csv holds, every reference of type Transaktion a receipt
// that exists; a sale has lines and payments, the kinds of receipt that
// move no money have no payment, AVSonstige says what it is, and each
// closing has its master data.
#include <map>
#include <string_view>
#include <utility>

#include "dsfinvk_books.h"
#include "text.h"

namespace tse {
namespace {

template <typename Row, typename BonId>
void orphans(const Bookkeeping& books, const RowGroups& groups, const std::vector<Row>& table, std::string_view name,
             const BonId& bonId, FindingTally& tally)
{
    for (const uint32_t i : groups.orphans()) {
        const Row& row = table[i];
        if (!books.hasTable(row.closing, "transactions.csv")) continue;
        tally.add(FindingCode::ReferenceMissing,
                  std::string(name) + ": rows naming a receipt that transactions.csv does not hold", "row", [&] {
                      return books.where(row.place) + " (BON_ID " + quoted(bonId(row)) + " of " +
                             closingName(books, row.closing) + ")";
                  });
    }
}

// The closing a reference names: by register and number, since a reference
// does not give the closing's time.
std::map<std::pair<std::string_view, std::string_view>, uint32_t> closingsByNumber(const Bookkeeping& books)
{
    std::map<std::pair<std::string_view, std::string_view>, uint32_t> out;
    for (uint32_t c = 0; c < books.closings.size(); ++c) {
        out.emplace(std::make_pair(std::string_view(books.closings[c].key.kasse),
                                   std::string_view(books.closings[c].key.number)),
                    c);
    }
    return out;
}

void references(const Bookkeeping& books, FindingTally& tally)
{
    const auto closings = closingsByNumber(books);
    for (const ReferenceRow& ref : books.references) {
        std::string_view kasse = books.pool.field(ref.record, REF_KASSE),
                         number = books.pool.field(ref.record, REF_CLOSING);
        const std::string_view target = books.pool.field(ref.record, REF_TARGET);
        if (kasse.empty()) kasse = books.closings[ref.closing].key.kasse;
        if (number.empty()) number = books.closings[ref.closing].key.number;
        const auto closing = closings.find({kasse, number});
        if (closing != closings.end() && books.findReceipt(closing->second, target)) continue;
        tally.add(FindingCode::ReferenceMissing,
                  "references.csv: references of type Transaktion to a receipt that transactions.csv does not hold",
                  "row", [&] {
                      return books.where(ref.place) + " (REF_BON_ID " + quoted(target) + " of closing " +
                             escapeUnsafe(number) + " of register " + quoted(kasse) + ")";
                  });
    }
}

}  // namespace

void checkReferences(const Bookkeeping& books, const ReceiptRows& rows, FindingTally& tally)
{
    orphans(
        books, rows.lines, books.lines, "lines.csv",
        [&](const LineRow& r) { return books.linePool.field(r.record, LINE_BON_ID); }, tally);
    orphans(
        books, rows.lineVat, books.lineVat, "lines_vat.csv",
        [&](const LineVatRow& r) { return books.linePool.field(r.record, 0); }, tally);
    orphans(
        books, rows.vat, books.vat, "transactions_vat.csv",
        [&](const VatRow& r) { return books.pool.field(r.bonId, 0); }, tally);
    orphans(
        books, rows.payments, books.payments, "datapayment.csv",
        [&](const PaymentRow& r) { return books.pool.field(r.record, PAY_BON_ID); }, tally);
    if (books.closingsTable) {
        for (const BookedReceipt& receipt : books.receipts) {
            if (books.closings[receipt.closing].booked) continue;
            tally.add(FindingCode::ReferenceMissing,
                      "transactions.csv: receipts of a closing that cashpointclosing.csv does not hold", "receipt",
                      [&] { return books.where(receipt.place) + " (" + closingName(books, receipt.closing) + ")"; });
        }
    }
    references(books, tally);
}

}  // namespace tse
