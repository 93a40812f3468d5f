// The rules of a receipt and of a closing that the checking software
// applies with the field rules: a sale has lines and payments, a receipt
// that moves no money (training, an abandoned sale, a benefit in kind) has
// no payment, AVSonstige says in BON_NAME what it is, and every closing
// has its location, its register and its VAT rates.
#include <string_view>
#include <vector>

#include "dsfinvk_books.h"
#include "text.h"

namespace tse {
namespace {

void receiptRule(const Bookkeeping& books, const BookedReceipt& receipt, const std::string& rule, FindingTally& tally)
{
    tally.add(FindingCode::FieldInvalid, "transactions.csv: " + rule, "receipt", [&] {
        return books.where(receipt.place) + " (BON_ID " + quoted(books.receiptField(receipt, BON_ID)) + ")";
    });
}

void closingRule(const Bookkeeping& books, uint32_t closing, const std::string& rule, FindingTally& tally)
{
    tally.add(FindingCode::FieldInvalid, "cashpointclosing.csv: closings without " + rule, "closing",
              [&] { return closingName(books, closing); });
}

bool movesNoMoney(std::string_view type)
{
    return type == "AVTraining" || type == "AVBelegabbruch" || type == "AVSachbezug";
}

}  // namespace

void checkReceiptRules(const Bookkeeping& books, const ReceiptRows& rows, FindingTally& tally)
{
    for (size_t r = 0; r < books.receipts.size(); ++r) {
        const BookedReceipt& receipt = books.receipts[r];
        const std::string_view type = books.receiptField(receipt, BON_TYP);
        if (type == "AVSonstige" && books.receiptField(receipt, BON_NAME).empty()) {
            receiptRule(books, receipt, "receipts of type AVSonstige without BON_NAME", tally);
        }
        const bool payments = books.hasTable(receipt.closing, "datapayment.csv");
        if (type == "Beleg" && books.hasTable(receipt.closing, "lines.csv") && rows.lines.of(r).empty()) {
            receiptRule(books, receipt, "sales (Beleg) without lines in lines.csv", tally);
        }
        if (type == "Beleg" && payments && rows.payments.of(r).empty()) {
            receiptRule(books, receipt, "sales (Beleg) without payments in datapayment.csv", tally);
        }
        if (movesNoMoney(type) && payments && !rows.payments.of(r).empty()) {
            receiptRule(books, receipt, "receipts of type " + std::string(type) + " with payments", tally);
        }
    }
    std::vector<bool> rates(books.closings.size(), false);
    for (const VatRate& rate : books.vatRates) rates[rate.closing] = true;
    for (uint32_t c = 0; c < books.closings.size(); ++c) {
        const Closing& closing = books.closings[c];
        if (!closing.booked) continue;
        if (books.hasTable(c, "location.csv") && !closing.location)
            closingRule(books, c, "a row in location.csv", tally);
        if (books.hasTable(c, "cashregister.csv") && !closing.registerRow)
            closingRule(books, c, "a row in cashregister.csv", tally);
        if (books.hasTable(c, "vat.csv") && !rates[c]) closingRule(books, c, "rows in vat.csv", tally);
    }
}

}  // namespace tse
