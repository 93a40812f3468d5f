// A receipt adds up: its lines per VAT key to its VAT table, the VAT table
// to its total, a sale's payments to its total, and net and VAT to the
// gross of each row. Gross amounts are compared to the cent (lines carry
// five decimals, the receipt two); net and VAT within a cent, or half a
// cent per line where a writer rounds each line's net on its own.
#include <algorithm>
#include <cstdlib>
#include <optional>

#include "dsfinvk_books.h"
#include "dsfinvk_csv.h"

namespace tse {
namespace {

struct KeySums {
    uint32_t key = 0;
    Amount lines = 0, vat = 0;
    size_t lineCount = 0;
};

KeySums& sumsOf(std::vector<KeySums>& sums, uint32_t key)
{
    for (KeySums& s : sums) {
        if (s.key == key) return s;
    }
    sums.push_back(KeySums{key, 0, 0, 0});
    return sums.back();
}

class ReceiptSums {
public:
    ReceiptSums(const Bookkeeping& books, const ReceiptRows& rows) : books_(books), rows_(rows) {}
    // The differences of one receipt, none when it adds up.
    std::vector<SumDifference> differences(size_t receipt);

private:
    void lines(size_t receipt);
    void vat(size_t receipt);
    void totals(size_t receipt);

    const Bookkeeping& books_;
    const ReceiptRows& rows_;
    std::vector<KeySums> sums_;
    std::vector<SumDifference> out_;
};

void ReceiptSums::lines(size_t receipt)
{
    for (const uint32_t i : rows_.lineVat.of(receipt)) {
        const LineVatRow& row = books_.lineVat[i];
        KeySums& s = sumsOf(sums_, row.key);
        s.lines += row.gross, ++s.lineCount;
        if (std::llabs(row.netVatOff) > CENT) {
            out_.push_back({SumKind::LineRowNetVat, row.key, row.gross + row.netVatOff, row.gross});
        }
    }
}

void ReceiptSums::vat(size_t receipt)
{
    for (const uint32_t i : rows_.vat.of(receipt)) {
        const VatRow& row = books_.vat[i];
        KeySums& s = sumsOf(sums_, row.key);
        s.vat += row.gross;
        const Amount tolerance = CENT * std::max<Amount>(1, static_cast<Amount>((s.lineCount + 1) / 2));
        if (std::llabs(row.netVatOff) > tolerance) {
            out_.push_back({SumKind::VatRowNetVat, row.key, row.gross + row.netVatOff, row.gross});
        }
    }
    const uint32_t closing = books_.receipts[receipt].closing;
    const bool withLines = books_.hasTable(closing, "lines_vat.csv") &&
                           books_.hasTable(closing, "transactions_vat.csv") && !rows_.lineVat.of(receipt).empty();
    for (const KeySums& s : sums_) {
        if (withLines && roundedToCents(s.lines) != roundedToCents(s.vat)) {
            out_.push_back({SumKind::LinesAgainstVat, s.key, s.lines, s.vat});
        }
    }
}

void ReceiptSums::totals(size_t receipt)
{
    const BookedReceipt& r = books_.receipts[receipt];
    const TableFile& file = books_.files[r.place.file];
    const std::optional<Amount> total =
        parseExactAmount(books_.receiptField(r, BON_GROSS), file.decimalSymbol, file.groupingSymbol);
    if (!total) return;  // a field rule says so
    if (books_.hasTable(r.closing, "transactions_vat.csv")) {
        Amount vat = 0;
        for (const KeySums& s : sums_) vat += s.vat;
        if (roundedToCents(vat) != roundedToCents(*total)) out_.push_back({SumKind::VatAgainstTotal, 0, vat, *total});
    }
    const RowGroup payments = rows_.payments.of(receipt);
    // A sale without payments breaks a rule of its own.
    if (books_.receiptField(r, BON_TYP) != "Beleg" || payments.empty() ||
        !books_.hasTable(r.closing, "datapayment.csv"))
        return;
    Amount paid = 0;
    for (const uint32_t i : payments) paid += books_.payments[i].base;
    if (roundedToCents(paid) != roundedToCents(*total))
        out_.push_back({SumKind::PaymentsAgainstTotal, 0, paid, *total});
}

std::vector<SumDifference> ReceiptSums::differences(size_t receipt)
{
    sums_.clear();
    out_.clear();
    lines(receipt);
    vat(receipt);
    totals(receipt);
    return out_;
}

}  // namespace

void checkReceiptSums(const Bookkeeping& books, const ReceiptRows& rows, RaisedFindings& findings, BookChecks& out)
{
    ReceiptSums sums(books, rows);
    for (size_t r = 0; r < books.receipts.size(); ++r) {
        std::vector<SumDifference> differences = sums.differences(r);
        if (differences.empty()) continue;
        out.receipts.emplace_back(static_cast<uint32_t>(r), std::move(differences));
        // The words are the receipt's differences, filled in when read.
        findings.raise(FindingCode::ReceiptSumDiffers, FindingSubject::Receipt, r, std::string(1, SUMS_VALUE));
    }
}

}  // namespace tse
