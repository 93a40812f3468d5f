// A closing adds up: its business cases to its sales' lines, its payment
// types and cash per currency to its sales' payments, Z_SE_ZAHLUNGEN and
// Z_SE_BARZAHLUNGEN to all and the cash payments, and Z_START_ID and
// Z_ENDE_ID name its first and last receipt. Only sales (BON_TYP Beleg)
// enter a closing's totals.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <string_view>

#include "dsfinvk_books.h"
#include "text.h"

namespace tse {
namespace {

using CaseKey = std::pair<std::string, uint32_t>;  // business case, VAT key

// What the closing's receipts add up to.
struct Computed {
    Amount all = 0, cash = 0;
    std::map<std::string, Amount> paymentTypes, currencies;
    std::map<CaseKey, Amount> cases;
    std::string first, last;
};

// What the closing module books for it.
struct Booked {
    std::map<std::string, Amount> paymentTypes, currencies;
    std::map<CaseKey, Amount> cases;
    bool anyPayment = false, anyCurrency = false, anyCase = false;
};

std::string readable(std::string_view text)
{
    std::string out(text);
    std::replace(out.begin(), out.end(), '\x1f', '/');
    return escapeUnsafe(out);
}

// The first and last receipt by number where every BON_ID is one, else in
// the order the receipts began.
void firstAndLast(const Bookkeeping& books, uint32_t from, uint32_t to, Computed& out)
{
    if (from == to) return;
    const bool numbers =
        std::all_of(books.receipts.begin() + from, books.receipts.begin() + to,
                    [&](const BookedReceipt& r) { return parseDecimal(books.receiptField(r, BON_ID)).has_value(); });
    const auto rank = [&](const BookedReceipt& r) {
        if (numbers)
            return std::make_pair(static_cast<int64_t>(*parseDecimal(books.receiptField(r, BON_ID))), int64_t{0});
        return std::make_pair(bookedSeconds(books.receiptField(r, BON_START)).value_or(INT64_MAX), int64_t{0});
    };
    const auto byRank = [&](const BookedReceipt& a, const BookedReceipt& b) { return rank(a) < rank(b); };
    const auto bounds = std::minmax_element(books.receipts.begin() + from, books.receipts.begin() + to, byRank);
    out.first = books.receiptField(*bounds.first, BON_ID);
    out.last = books.receiptField(*bounds.second, BON_ID);
}

void addPayments(const Bookkeeping& books, const ReceiptRows& rows, uint32_t receipt, Computed& out)
{
    for (const uint32_t i : rows.payments.of(receipt)) {
        const PaymentRow& p = books.payments[i];
        const std::string_view type = books.pool.field(p.record, PAY_TYPE);
        out.all += p.base;
        out.paymentTypes[std::string(type) + '\x1f' + std::string(books.pool.field(p.record, PAY_NAME))] += p.base;
        if (type != "Bar") continue;
        out.cash += p.base;
        std::string_view base = books.closings[p.closing].baseCurrency;
        if (base.empty()) base = "EUR";
        const std::string_view currency = books.pool.field(p.record, PAY_CURRENCY);
        const bool foreign = !currency.empty() && !equalsIgnoringCase(currency, base);
        out.currencies[std::string(foreign ? currency : base)] += foreign ? p.paid : p.base;
    }
}

// A line's amounts go to the business case its line in lines.csv names.
void addLines(const Bookkeeping& books, const ReceiptRows& rows, uint32_t receipt, Computed& out)
{
    const RowGroup lines = rows.lines.of(receipt);
    for (const uint32_t i : rows.lineVat.of(receipt)) {
        const LineVatRow& row = books.lineVat[i];
        const std::string_view position = books.linePool.field(row.record, 1);
        std::string businessCase = "(no line in lines.csv)";
        for (const uint32_t l : lines) {
            if (books.linePool.field(books.lines[l].record, LINE_POS) == position)
                businessCase = books.texts[books.lines[l].businessCase];
        }
        out.cases[{businessCase, row.key}] += row.gross;
    }
}

Computed computed(const Bookkeeping& books, const ReceiptRows& rows, std::pair<uint32_t, uint32_t> range)
{
    Computed out;
    firstAndLast(books, range.first, range.second, out);
    for (uint32_t r = range.first; r < range.second; ++r) {
        if (books.receiptField(books.receipts[r], BON_TYP) != "Beleg") continue;
        addPayments(books, rows, r, out);
        addLines(books, rows, r, out);
    }
    return out;
}

std::vector<Booked> bookedModules(const Bookkeeping& books)
{
    std::vector<Booked> out(books.closings.size());
    for (const ClosingAmount& a : books.closingPayments) {
        out[a.closing].paymentTypes[std::string(books.texts[a.what])] += a.amount, out[a.closing].anyPayment = true;
    }
    for (const ClosingAmount& a : books.cashPerCurrency) {
        out[a.closing].currencies[std::string(books.texts[a.what])] += a.amount, out[a.closing].anyCurrency = true;
    }
    for (const ClosingAmount& a : books.businessCases) {
        out[a.closing].cases[{std::string(books.texts[a.what]), a.key}] += a.amount, out[a.closing].anyCase = true;
    }
    return out;
}

class ClosingSums {
public:
    ClosingSums(const Bookkeeping& books, uint32_t closing, ClosingCheck& check)
        : books_(books), closing_(closing), check_(check)
    {}

    void amount(const std::string& name, std::optional<Amount> booked, Amount computed, Amount tolerance = 0)
    {
        const bool differs = !booked || std::llabs(roundedToCents(*booked) - roundedToCents(computed)) > tolerance;
        check_.totals.push_back({name, booked ? amountText(*booked) : std::string(), amountText(computed), differs});
    }
    void id(const std::string& name, const std::string& booked, const std::string& computed)
    {
        check_.totals.push_back({name, escapeUnsafe(booked), escapeUnsafe(computed), booked != computed});
    }
    // Every entry of either side; one that only one side has counts as zero
    // on the other, so a row of nothing written or left out is no difference.
    template <typename Key, typename Name>
    void amounts(const std::map<Key, Amount>& booked, const std::map<Key, Amount>& computed, const Name& name,
                 Amount tolerance)
    {
        std::map<Key, std::pair<Amount, Amount>> both;
        for (const auto& [key, value] : booked) both[key].first = value;
        for (const auto& [key, value] : computed) both[key].second = value;
        for (const auto& [key, values] : both) {
            const Amount a = tolerance ? values.first : roundedToCents(values.first);
            const Amount b = tolerance ? values.second : roundedToCents(values.second);
            const bool differs = std::llabs(a - b) > tolerance;
            check_.totals.push_back({name(key), amountText(values.first), amountText(values.second), differs});
        }
    }
    bool has(std::string_view table) const { return books_.hasTable(closing_, table); }

private:
    const Bookkeeping& books_;
    uint32_t closing_;
    ClosingCheck& check_;
};

// The closing module must hold what the closing's sales need, once it is
// part of the export at all; a closing whose module lacks a table's rows
// is found here, not as a difference of every total.
bool complete(bool booked, bool needed, std::string_view table, const Bookkeeping& books, uint32_t closing,
              FindingTally& tally)
{
    if (booked || !needed) return true;
    tally.add(FindingCode::FieldInvalid,
              "closings whose sales " + std::string(table) + " does not sum up at all (an incomplete closing module)",
              "closing", [&] { return closingName(books, closing); });
    return false;
}

bool anyNonZero(const std::map<std::string, Amount>& sums)
{
    return std::any_of(sums.begin(), sums.end(), [](const auto& entry) { return entry.second != 0; });
}

ClosingCheck checkClosing(const Bookkeeping& books, const ReceiptRows& rows, uint32_t c,
                          std::pair<uint32_t, uint32_t> range, const Booked& booked, FindingTally& tally)
{
    const Closing& closing = books.closings[c];
    ClosingCheck check{closing.key.kasse, closing.key.number, closing.key.created, range.second - range.first, {}};
    const Computed sums = computed(books, rows, range);
    ClosingSums s(books, c, check);
    const bool payments = s.has("datapayment.csv");
    if (payments && closing.payments) s.amount("Z_SE_ZAHLUNGEN", closing.payments, sums.all);
    if (payments && closing.cash) s.amount("Z_SE_BARZAHLUNGEN", closing.cash, sums.cash);
    s.id("Z_START_ID", closing.startId, sums.first);
    s.id("Z_ENDE_ID", closing.endId, sums.last);
    if (payments && s.has("payment.csv") &&
        complete(booked.anyPayment, anyNonZero(sums.paymentTypes), "payment.csv", books, c, tally)) {
        s.amounts(
            booked.paymentTypes, sums.paymentTypes, [](const std::string& k) { return "payment.csv " + readable(k); },
            0);
    }
    if (payments && s.has("cash_per_currency.csv") &&
        complete(booked.anyCurrency, anyNonZero(sums.currencies), "cash_per_currency.csv", books, c, tally)) {
        s.amounts(
            booked.currencies, sums.currencies,
            [](const std::string& k) { return "cash_per_currency.csv " + readable(k); }, 0);
    }
    const bool lines = s.has("lines.csv") && s.has("lines_vat.csv") && s.has("businesscases.csv");
    const bool cases = std::any_of(sums.cases.begin(), sums.cases.end(), [](const auto& e) { return e.second != 0; });
    if (lines && complete(booked.anyCase, cases, "businesscases.csv", books, c, tally)) {
        // Five decimals on both sides, summed by different writers: a
        // difference below a cent is rounding.
        s.amounts(
            booked.cases, sums.cases,
            [](const CaseKey& k) {
                return "businesscases.csv " + readable(k.first) + " key " + std::to_string(k.second);
            },
            CENT - 1);
    }
    return check;
}

}  // namespace

void checkClosingSums(const Bookkeeping& books, const ReceiptRows& rows, RaisedFindings& findings, FindingTally& tally,
                      BookChecks& out)
{
    const std::vector<std::pair<uint32_t, uint32_t>> ranges = receiptsOfClosings(books);
    const std::vector<Booked> booked = bookedModules(books);
    for (uint32_t c = 0; c < books.closings.size(); ++c) {
        // Without its receipts a closing has nothing to be added up from.
        if (!books.closings[c].booked || !books.hasTable(c, "transactions.csv")) continue;
        ClosingCheck check = checkClosing(books, rows, c, ranges[c], booked[c], tally);
        std::string words;
        for (const ClosingTotal& t : check.totals) {
            if (!t.differs) continue;
            words += (words.empty() ? ": " : "; ") + t.name + " books " + (t.booked.empty() ? "nothing" : t.booked) +
                     ", its receipts give " + (t.computed.empty() ? "nothing" : t.computed);
        }
        if (!words.empty())
            findings.raise(FindingCode::ClosingSumDiffers, books.closings[c].place, closingName(books, c) + words);
        out.closings.push_back(std::move(check));
    }
}

}  // namespace tse
