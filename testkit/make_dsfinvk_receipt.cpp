// make-dsfinvk: the receipt of one sale - its type, VAT keys, line items
// and payments - from the processData the TSE signed. The signed data is
// the reference: the receipt's keys 1 to 5 carry exactly its VAT part and
// its payments exactly the signed payments.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "dsfinvk_check.h"
#include "log_time.h"
#include "make_dsfinvk_book.h"

namespace makedsfinvk {

namespace {

// Ten million euros: above it a processData amount is refused rather than
// risking the integer arithmetic of the sums.
constexpr int64_t MAX_CENTS = 1000000000;
constexpr int64_t MAX_QUANTITY = 1000000 * ONE;  // a million pieces

const std::array<std::string_view, 9> RECEIPT_TYPES = {"Beleg",       "AVTransfer",    "AVBestellung",
                                                       "AVTraining",  "AVBelegstorno", "AVBelegabbruch",
                                                       "AVSachbezug", "AVSonstige",    "AVRechnung"};

bool isReceiptType(std::string_view type)
{
    for (const std::string_view known : RECEIPT_TYPES) {
        if (known == type) return true;
    }
    return false;
}

// Training, an aborted receipt and benefits in kind take no payment.
bool takesNoPayment(std::string_view type)
{
    return type == "AVTraining" || type == "AVBelegabbruch" || type == "AVSachbezug";
}

int64_t bounded(int64_t cents, const Sale& sale)
{
    if (std::llabs(cents) > MAX_CENTS) {
        throw std::runtime_error("transaction " + std::to_string(sale.transaction) + " of TSE " +
                                 sale.serial.substr(0, 16) + "...: processData holds an amount above 10,000,000.00");
    }
    return cents;
}

std::string isoText(int64_t seconds, const std::string& fraction)
{
    tse::LogTime time;
    time.seconds = seconds;
    time.fraction = fraction;
    return time.iso();
}

Line itemLine(int key, int64_t gross, int64_t quantity, std::string text)
{
    Line line;
    line.key = key;
    line.gross = gross;
    line.quantity = quantity;
    line.unitPrice = gross * ONE / quantity;
    line.text = std::move(text);
    return line;
}

// One to three line items per key (quantities 1 and 2, so that the unit
// prices stay exact in five decimals) and now and then a free extra, or
// `lines` items in all spread over the keys; one line for the difference key.
void addLines(Receipt& receipt, size_t lines)
{
    const uint64_t seed = receipt.bon;
    const int64_t keys = std::count_if(receipt.keys.begin(), receipt.keys.end(),
                                       [](const KeyGross& k) { return k.key != DIFFERENCE_KEY; });
    int64_t index = 0;
    for (const KeyGross& k : receipt.keys) {
        if (k.key == DIFFERENCE_KEY) {
            Line line = itemLine(k.key, k.gross * LINE_UNITS_PER_CENT, ONE, "Nicht in der processData");
            line.name = "Differenz zur processData";
            receipt.lines.push_back(line);
            continue;
        }
        const int64_t wanted = static_cast<int64_t>(lines);
        const int64_t count = wanted ? std::max<int64_t>(1, wanted / keys + (index++ < wanted % keys ? 1 : 0))
                              : std::llabs(k.gross) < 3
                                  ? 1
                                  : 1 + static_cast<int64_t>((seed + static_cast<uint64_t>(k.key)) % 3);
        const int64_t part = k.gross / count;
        for (int64_t i = 0; i < count; ++i) {
            const int64_t cents = i + 1 < count ? part : k.gross - part * (count - 1);
            const int64_t quantity = ((seed + static_cast<uint64_t>(i)) % 2 ? 2 * ONE : ONE) * (cents < 0 ? -1 : 1);
            receipt.lines.push_back(itemLine(k.key, cents * LINE_UNITS_PER_CENT, quantity,
                                             "Artikel " + std::to_string(k.key) + "." + std::to_string(i + 1)));
        }
        const bool extra = !wanted && &k == &receipt.keys.front() && seed % 5 == 0 && k.gross != 0;
        if (extra) receipt.lines.push_back(itemLine(k.key, 0, ONE, "Zugabe"));
    }
}

bool baseCurrency(const std::string& currency)
{
    return currency.empty() || currency == "EUR";
}

// The payments as signed. A foreign-currency payment is worth in euros what
// the base-currency payments leave of the VAT part (split in proportion
// among several); at par when nothing is left for it.
std::vector<Payment> paymentsOf(const tse::ReceiptAmounts& amounts, const Sale& sale)
{
    int64_t rest = 0, foreign = 0;
    size_t foreignCount = 0;
    for (const int64_t gross : amounts.vat) rest += gross;
    for (const tse::ReceiptAmounts::Payment& p : amounts.payments) {
        if (baseCurrency(p.currency)) rest -= bounded(p.amount, sale);
        else foreign += bounded(p.amount, sale), ++foreignCount;
    }
    const bool convert = foreign != 0 && rest != 0 && (rest > 0) == (foreign > 0);
    std::vector<Payment> out;
    int64_t left = rest;
    for (const tse::ReceiptAmounts::Payment& p : amounts.payments) {
        Payment payment;
        payment.type = p.cash ? "Bar" : "Unbar";
        payment.name = p.cash ? "Bar" : "Karte";
        payment.base = p.amount;
        if (!baseCurrency(p.currency)) {
            payment.currency = p.currency;
            payment.amount = p.amount;
            if (convert) payment.base = --foreignCount == 0 ? left : rest * p.amount / foreign;
            left -= payment.base;
        }
        out.push_back(payment);
    }
    return out;
}

int64_t keysGross(const Receipt& receipt)
{
    int64_t sum = 0;
    for (const KeyGross& k : receipt.keys) sum += k.gross;
    return sum;
}

// A sale has lines and payments. Payments that the signed VAT part does not
// cover (9 of 51 receipts of a real cloud TSE's register sign payments above
// it) are kept as signed, and the difference becomes one line under the
// register's own key 1000 at 0 %, which stands for no processData field: the
// receipt adds up and its keys 1 to 5 still rebuild the signed processData.
// A sale of nothing is one line of nothing under key 1, paid with `Keine`.
void completeSale(Receipt& receipt)
{
    int64_t paid = 0;
    for (const Payment& p : receipt.payments) paid += p.base;
    const int64_t difference = paid - keysGross(receipt);
    if (difference != 0) receipt.keys.push_back({DIFFERENCE_KEY, difference});
    if (receipt.keys.empty()) receipt.keys.push_back({1, 0});
    if (receipt.payments.empty()) {
        Payment none;
        none.type = none.name = "Keine";
        receipt.payments.push_back(none);
    }
}

// Kassenbeleg-V1: "Vorgangstyp^gross per rate^payments".
void bookReceipt(Receipt& receipt, const Sale& sale, size_t lines)
{
    const std::string kind = sale.processData.substr(0, sale.processData.find('^'));
    receipt.type = isReceiptType(kind) ? kind : "Beleg";
    const std::optional<tse::ReceiptAmounts> amounts = tse::parseReceiptAmounts(sale.processData);
    if (amounts) {
        for (int field = 0; field < 5; ++field) {
            const int64_t gross = bounded(amounts->vat[field], sale);
            if (gross != 0) receipt.keys.push_back({field + 1, gross});
        }
        if (!takesNoPayment(receipt.type)) receipt.payments = paymentsOf(*amounts, sale);
    }
    if (receipt.type == "Beleg") completeSale(receipt);
    addLines(receipt, lines);
}

// A decimal with at most `decimals` places and a dot, in units of them.
std::optional<int64_t> fixedPoint(std::string_view text, int decimals)
{
    const bool negative = !text.empty() && text[0] == '-';
    if (negative) text.remove_prefix(1);
    const size_t dot = text.find('.');
    const std::string_view whole = text.substr(0, dot), fraction = dot == text.npos ? "" : text.substr(dot + 1);
    if (whole.empty() || whole.size() > 10 || fraction.size() > static_cast<size_t>(decimals)) return std::nullopt;
    int64_t value = 0;
    for (const char c : std::string(whole) + std::string(fraction) +
                            std::string(static_cast<size_t>(decimals) - fraction.size(), '0')) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return negative ? -value : value;
}

// One Bestellung-V1 line: quantity;"name";unit price, the name quoted with
// doubled quotes inside.
std::optional<Line> orderLine(std::string_view text)
{
    const size_t first = text.find(";\"");
    const size_t last = text.rfind("\";");
    if (first == text.npos || last == text.npos || last <= first) return std::nullopt;
    const std::optional<int64_t> quantity = fixedPoint(text.substr(0, first), 3);
    const std::optional<int64_t> price = fixedPoint(text.substr(last + 2), 2);
    if (!quantity || !price || *quantity == 0 || std::llabs(*quantity) > MAX_QUANTITY ||
        std::llabs(*price) > MAX_CENTS || std::llabs(*quantity * *price) > MAX_CENTS * LINE_UNITS_PER_CENT) {
        return std::nullopt;
    }
    Line line;
    line.text = text.substr(first + 2, last - first - 2);
    for (size_t at = line.text.find("\"\""); at != std::string::npos; at = line.text.find("\"\"", at + 1))
        line.text.erase(at, 1);
    line.quantity = *quantity;
    line.unitPrice = *price * LINE_UNITS_PER_CENT;
    line.gross = *quantity * *price;  // thousandths times cents: hundred-thousandths
    return line;
}

// Bestellung-V1: one line per order line (lines apart by CR). An order names
// no VAT rate, so its lines go under key 1; it is not paid. An order whose
// text does not read is booked without lines.
void bookOrder(Receipt& receipt, const std::string& data)
{
    receipt.type = "AVBestellung";
    int64_t gross = 0;
    for (size_t at = 0; at <= data.size();) {
        const size_t end = std::min(data.find_first_of("\r\n", at), data.size());
        if (end > at) {
            const std::optional<Line> line = orderLine(std::string_view(data).substr(at, end - at));
            if (!line) {
                receipt.lines.clear();
                return;
            }
            receipt.lines.push_back(*line);
            gross += line->gross;
            if (std::llabs(gross) > MAX_CENTS * LINE_UNITS_PER_CENT) {
                receipt.lines.clear();
                return;
            }
        }
        at = end + 1;
    }
    if (!receipt.lines.empty()) receipt.keys.push_back({1, roundUnits(gross, LINE_UNITS_PER_CENT)});
}

// Processes that carry no amounts (SonstigerVorgang, and the JSON RECEIPT,
// ORDER and OTHER of a cloud TSE): the register's amounts are not known and
// none are invented, so a RECEIPT is a sale of nothing and an ORDER an order
// without lines.
void bookOther(Receipt& receipt, const std::string& processType, size_t lines)
{
    if (processType == "RECEIPT") {
        completeSale(receipt);
        addLines(receipt, lines);
    } else if (processType == "ORDER") {
        receipt.type = "AVBestellung";
    } else {
        receipt.type = "AVSonstige";
        receipt.name = "Sonstiger Vorgang";
    }
}

}  // namespace

int64_t Receipt::gross() const
{
    return keysGross(*this);
}

TseRow tseRowOf(const Sale& sale)
{
    TseRow row;
    row.serial = sale.serial;
    row.number = std::to_string(sale.transaction);
    row.start = isoText(sale.startSeconds.value_or(sale.seconds), {});
    row.end = isoText(sale.seconds, sale.fraction);
    row.processType = sale.processType;
    row.counter = std::to_string(sale.counter);
    row.signature = sale.signature;
    row.processData = sale.processData;
    return row;
}

Receipt receiptOf(const Sale& sale, uint64_t bon, size_t lines)
{
    Receipt receipt;
    receipt.bon = bon;
    receipt.start = sale.startSeconds.value_or(sale.seconds);
    receipt.end = sale.seconds;
    receipt.tse.push_back(tseRowOf(sale));
    if (sale.processType == "Kassenbeleg-V1") bookReceipt(receipt, sale, lines);
    else if (sale.processType == "Bestellung-V1") bookOrder(receipt, sale.processData);
    else bookOther(receipt, sale.processType, lines);
    return receipt;
}

}  // namespace makedsfinvk
