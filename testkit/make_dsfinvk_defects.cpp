// make-dsfinvk: the defects it plants, one at a time, each changing only
// what its finding is about. They go into the middle of the bookkeeping,
// away from the edges where periods begin and end, except those that are
// about the edges.
#include <algorithm>
#include <stdexcept>
#include <string>

#include "dsfinvk_check.h"
#include "log_time.h"
#include "make_dsfinvk_defects.h"

namespace makedsfinvk {

namespace {

using Fits = std::function<bool(const Receipt&)>;

const std::string FAILURE = "TSE ausgefallen";

Receipt& receiptAt(Book& book, ReceiptAt at)
{
    return book.closings[at.closing].receipts[at.receipt];
}

std::vector<ReceiptAt> receiptsFor(const Book& book, const Fits& fits, const char* what)
{
    std::vector<ReceiptAt> found = receiptsWhere(book, fits);
    if (found.empty())
        throw std::runtime_error(std::string("the bookkeeping holds no ") + what + " to plant the defect in");
    return found;
}

ReceiptAt middleOf(const Book& book, const Fits& fits, const char* what)
{
    const std::vector<ReceiptAt> found = receiptsFor(book, fits, what);
    return found[found.size() / 2];
}

bool isSigned(const Receipt& receipt)
{
    return !receipt.tse.empty() && !receipt.tse.front().signature.empty();
}

bool signedReceipt(const Receipt& receipt)
{
    return isSigned(receipt) && receipt.tse.front().processType == "Kassenbeleg-V1";
}

// A signed sale paid in the base currency, so that its amounts say something.
bool paidSale(const Receipt& receipt)
{
    if (!signedReceipt(receipt) || receipt.type != "Beleg" || receipt.keys.front().key == DIFFERENCE_KEY) return false;
    return std::any_of(receipt.payments.begin(), receipt.payments.end(),
                       [](const Payment& p) { return p.currency.empty() && p.type != "Keine"; });
}

bool anyReceipt(const Receipt&)
{
    return true;
}

// The closing in the middle, among those of a register with several when
// `several` (so that it has one before it), among those with receipts otherwise.
size_t middleClosing(const Book& book, bool several)
{
    std::map<std::string, std::vector<size_t>> byRegister;
    std::vector<size_t> candidates;
    for (size_t c = 0; c < book.closings.size(); ++c) {
        byRegister[book.closings[c].kasse].push_back(c);
        if (!book.closings[c].receipts.empty()) candidates.push_back(c);
    }
    if (several) {
        candidates.clear();
        for (const auto& entry : byRegister) {
            if (entry.second.size() > candidates.size()) candidates = entry.second;
        }
        if (candidates.size() < 2)
            throw std::runtime_error("the defect needs a register with two closings in the bookkeeping");
    }
    if (candidates.empty()) throw std::runtime_error("the bookkeeping holds no closing to plant the defect in");
    return candidates[candidates.size() / 2];
}

void unsign(TseRow& row, bool keepNumber)
{
    if (!keepNumber) row.number.clear();
    row.start.clear(), row.end.clear(), row.counter.clear(), row.signature.clear(), row.processData.clear();
    row.failure = FAILURE;
}

void setLineGross(Line& line, int64_t gross)
{
    line.gross = gross;
    line.unitPrice = gross * ONE / line.quantity;
}

void rowDropped(Book& book)
{
    receiptAt(book, middleOf(book, isSigned, "signed receipt")).tse.clear();
}

void amountEdited(Book& book)
{
    std::string& data =
        receiptAt(book, middleOf(book, signedReceipt, "Kassenbeleg-V1 receipt")).tse.front().processData;
    const size_t digit = data.find_first_of("123456789");
    if (digit == std::string::npos) data += "0";
    else data[digit] = data[digit] == '9' ? '1' : static_cast<char>(data[digit] + 1);
}

// The Finish time as a German wall clock shows it, without a zone.
void localTime(Book& book)
{
    Receipt& receipt = receiptAt(book, middleOf(book, isSigned, "signed receipt"));
    const int64_t summer = receipt.end + 7200;
    const int64_t local = tse::germanLocalToUtc(summer) == receipt.end ? summer : receipt.end + 3600;
    std::string text = tse::isoSeconds(local);
    if (!text.empty() && text.back() == 'Z') text.pop_back();
    receipt.tse.front().end = text;
}

// The old form of a failure row: the transaction number stays.
void tseFailure(Book& book)
{
    unsign(receiptAt(book, middleOf(book, isSigned, "signed receipt")).tse.front(), true);
}

// A copy of a sale booked again under a transaction number the TSE never
// gave, as a receipt of its own.
void extraRow(Book& book)
{
    const ReceiptAt at = middleOf(book, isSigned, "signed receipt");
    Receipt copy = receiptAt(book, at);
    TseRow& row = copy.tse.front();
    row.number = std::to_string(book.lastTransaction[row.serial] + 1);
    row.counter = std::to_string(std::stoull(row.counter) + 1000);
    std::vector<Receipt>& receipts = book.closings[at.closing].receipts;
    receipts.insert(receipts.begin() + static_cast<long>(at.receipt) + 1, copy);
    renumber(book, at.closing, at.receipt + 1, 1);
}

void oldColumn(Book& book)
{
    book.processDataColumn = "TSE_TA_VORGANGSDATEN";
}

void wrongSerial(Book& book)
{
    book.falseSerial = receiptAt(book, receiptsFor(book, isSigned, "signed receipt").front()).tse.front().serial;
}

// A receipt's transactions.csv row written a second time with a quote
// inside an unquoted field: the line cannot be read, and since the row
// stands once more in good form, losing it costs nothing else.
void malformedLine(Book& book)
{
    book.bareValue = "Kunde \"Nord";
    receiptAt(book, middleOf(book, anyReceipt, "receipt")).brokenCopy = true;
}

// The receipt is booked with a euro more than the TSE signed, everywhere.
void amountsDiffer(Book& book)
{
    Receipt& receipt = receiptAt(book, middleOf(book, paidSale, "paid Kassenbeleg-V1 sale"));
    KeyGross& key = receipt.keys.front();
    key.gross += 100;
    for (Line& line : receipt.lines) {
        if (line.key != key.key) continue;
        setLineGross(line, line.gross + 100 * LINE_UNITS_PER_CENT);
        break;
    }
    for (Payment& p : receipt.payments) {
        if (!p.currency.empty() || p.type == "Keine") continue;
        p.base += 100;
        break;
    }
}

void referenceMissing(Book& book)
{
    const ReceiptAt at = middleOf(book, anyReceipt, "receipt");
    const Closing& closing = book.closings[at.closing];
    receiptAt(book, at).references.push_back(
        {"Transaktion", tse::isoSeconds(closing.created), closing.kasse, std::to_string(closing.number), "999999999"});
}

// A line a euro above what the receipt's VAT table says.
void receiptSumDiffers(Book& book)
{
    const Fits sale = [](const Receipt& r) { return r.type == "Beleg" && !r.lines.empty(); };
    Line& line = receiptAt(book, middleOf(book, sale, "sale with lines")).lines.front();
    setLineGross(line, line.gross + 100 * LINE_UNITS_PER_CENT);
}

// Ten euros less cash in the closing than its receipts were paid.
void closingSumDiffers(Book& book)
{
    book.closings[middleClosing(book, false)].totals.cash -= 1000;
}

void closingGap(Book& book)
{
    const size_t from = middleClosing(book, true);
    for (size_t c = from; c < book.closings.size(); ++c) {
        if (book.closings[c].kasse == book.closings[from].kasse) ++book.closings[c].number;
    }
}

// The first receipt of a closing numbered as the last of the one before,
// and the register counting on from there.
void bonDuplicate(Book& book)
{
    const size_t closing = middleClosing(book, true);
    if (book.closings[closing].receipts.empty())
        throw std::runtime_error("bon-duplicate needs a closing with receipts");
    renumber(book, closing, 0, -1);
}

void bonGap(Book& book)
{
    const ReceiptAt at = middleOf(book, anyReceipt, "receipt");
    renumber(book, at.closing, at.receipt, 1);
}

// The closing's last receipt ends a minute after the closing was made.
void receiptOutsideClosing(Book& book)
{
    Closing& closing = book.closings[middleClosing(book, false)];
    closing.receipts.back().end = closing.created + 60;
}

// vat.csv gives key 1 the rate of the other half of 2020.
void vatRateWrong(Book& book)
{
    Closing& closing = book.closings[middleClosing(book, false)];
    closing.rates[1] = legalRate(1, closing.day) == 1900 ? 1600 : 1900;
}

// A failure row without transaction number, times and signature for a sale
// the TSE did sign; the receipt keeps its times and amounts.
void unsignedButSigned(Book& book)
{
    unsign(receiptAt(book, middleOf(book, paidSale, "paid Kassenbeleg-V1 sale")).tse.front(), false);
}

// A sale the TSE never saw, booked as a TSE failure the moment the TSE
// signed the sale before it.
void failureWhileSigning(Book& book)
{
    const ReceiptAt at = middleOf(book, isSigned, "signed receipt");
    const Receipt& before = receiptAt(book, at);
    Sale sale;
    sale.serial = before.tse.front().serial;
    sale.seconds = before.end;
    sale.processType = "Kassenbeleg-V1";
    sale.processData = "Beleg^4.20_0.00_0.00_0.00_0.00^4.20:Bar";
    Receipt failed = receiptOf(sale, before.bon);
    failed.terminal = before.terminal;
    unsign(failed.tse.front(), false);
    std::vector<Receipt>& receipts = book.closings[at.closing].receipts;
    receipts.insert(receipts.begin() + static_cast<long>(at.receipt) + 1, failed);
    renumber(book, at.closing, at.receipt + 1, 1);
}

// UMS_BRUTTO with three decimals where two are declared.
void fieldFormat(Book& book)
{
    receiptAt(book, middleOf(book, anyReceipt, "receipt")).extraDecimal = true;
}

void firstRowDropped(Book& book)
{
    receiptAt(book, receiptsFor(book, isSigned, "signed receipt").front()).tse.clear();
}

void lastRowDropped(Book& book)
{
    receiptAt(book, receiptsFor(book, isSigned, "signed receipt").back()).tse.clear();
}

void lastRowsDropped(Book& book)
{
    const std::vector<ReceiptAt> found = receiptsFor(book, isSigned, "signed receipt");
    if (found.size() < 3) throw std::runtime_error("last-rows-dropped needs three signed receipts");
    for (size_t i = found.size() - 3; i < found.size(); ++i) receiptAt(book, found[i]).tse.clear();
}

// The last receipt taken out of every table but cashpointclosing.csv,
// whose Z_ENDE_ID and totals still count it.
void lastSaleErased(Book& book)
{
    const std::vector<ReceiptAt> found = receiptsFor(book, anyReceipt, "receipt");
    std::vector<Receipt>& receipts = book.closings[found.back().closing].receipts;
    receipts.erase(receipts.begin() + static_cast<long>(found.back().receipt));
}

// The table of defects: a constant rather than a function's static, as it
// is a list that grows with every defect and only main() reads it.
const std::vector<Defect> DEFECTS = {
    {"row-dropped", {"transaction-unbooked"}, "a sale's transactions_tse.csv row left out", false, rowDropped},
    {"amount-edited",
     {"signature-invalid", "transaction-differs"},
     "a digit of a row's processData changed",
     false,
     amountEdited},
    {"local-time", {"local-time"}, "a TSE_TA_ENDE in German local time without zone", false, localTime},
    {"tse-failure",
     {"unsigned-but-signed"},
     "a signed sale booked as a TSE failure, its transaction number kept",
     false,
     tseFailure},
    {"extra-row",
     {"signature-invalid", "transaction-unknown"},
     "a sale booked again under a transaction number the TSE never gave",
     false,
     extraRow},
    {"old-column", {}, "processData under the older column name TSE_TA_VORGANGSDATEN", false, oldColumn},
    {"wrong-serial", {"serial-mismatch"}, "a TSE_SERIAL that is not the SHA-256 of the key", false, wrongSerial},
    {"malformed-line",
     {"csv-malformed"},
     "a receipt's row written again, with a quote inside an unquoted field",
     false,
     malformedLine},
    {"amounts-differ",
     {"amounts-differ"},
     "a sale booked with 1.00 more than signed, in every table",
     false,
     amountsDiffer},
    {"reference-missing",
     {"reference-missing"},
     "a references.csv row naming a receipt that does not exist",
     false,
     referenceMissing},
    {"receipt-sum-differs",
     {"receipt-sum-differs"},
     "a line 1.00 above its receipt's VAT table",
     false,
     receiptSumDiffers},
    {"closing-sum-differs",
     {"closing-sum-differs"},
     "a closing's Z_SE_BARZAHLUNGEN 10.00 below its cash payments",
     true,
     closingSumDiffers},
    {"closing-gap", {"closing-gap"}, "a register's closing numbers skip one", false, closingGap},
    {"bon-duplicate",
     {"bon-duplicate"},
     "a closing's first receipt numbered as the last of the closing before",
     false,
     bonDuplicate},
    {"bon-gap", {"bon-gap"}, "a register's receipt numbers skip one", false, bonGap},
    {"receipt-outside-closing",
     {"receipt-outside-closing"},
     "a receipt ending a minute after its closing",
     false,
     receiptOutsideClosing},
    {"vat-rate-wrong",
     {"vat-rate-wrong"},
     "vat.csv of a closing gives key 1 the rate of the other half of 2020",
     false,
     vatRateWrong},
    {"unsigned-but-signed",
     {"unsigned-but-signed"},
     "a signed sale booked as a TSE failure without number, times and signature",
     false,
     unsignedButSigned},
    {"failure-while-signing",
     {"unsigned-transaction", "failure-while-signing"},
     "an unsigned sale booked as a TSE failure while the TSE signed",
     false,
     failureWhileSigning},
    {"field-format", {"field-format"}, "a UMS_BRUTTO with three decimals where two are declared", false, fieldFormat},
    {"first-row-dropped",
     {"transaction-unbooked"},
     "the first row of transactions_tse.csv left out",
     false,
     firstRowDropped},
    {"last-row-dropped",
     {"transaction-unbooked"},
     "the last row of transactions_tse.csv left out",
     false,
     lastRowDropped},
    {"last-rows-dropped",
     {"transaction-unbooked", "transaction-unbooked", "transaction-unbooked"},
     "the last three rows of transactions_tse.csv left out",
     false,
     lastRowsDropped},
    {"last-sale-erased",
     {"transaction-unbooked", "closing-sum-differs"},
     "the last sale taken out of every table but cashpointclosing.csv",
     true,
     lastSaleErased},
};

}  // namespace

const std::vector<Defect>& defects()
{
    return DEFECTS;
}

const Defect* defectNamed(std::string_view name)
{
    for (const Defect& defect : defects()) {
        if (defect.name == name) return &defect;
    }
    return nullptr;
}

}  // namespace makedsfinvk
