#include "dsfinvk_reconcile.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include "dsfinvk_amounts.h"
#include "dsfinvk_rebuild.h"
#include "log_time.h"
#include "text.h"

namespace tse {
namespace {

constexpr int64_t RECEIPT_TOLERANCE = 60;  // a receipt's own clock against the TSE's
constexpr size_t SHOWN_PROCESS_DATA = 80;
constexpr int64_t DAY = 86400;

// The German wall-clock time of a moment.
int64_t germanLocalFromUtc(int64_t utc)
{
    const int64_t summer = utc + 7200;
    return germanLocalToUtc(summer) == utc ? summer : utc + 3600;
}

std::string shortSerial(std::string_view serial)
{
    return std::string(serial.substr(0, 16)) + "...";
}

std::string rowLabel(const Bookkeeping& books, size_t row)
{
    return books.closings[books.rows[row].closing].key.kasse + "/" +
           std::string(books.rowField(books.rows[row], ROW_BON_ID));
}

// (closing, BON_ID) of the rows of one table, sorted, for lookups by receipt.
using ReceiptKey = std::pair<uint32_t, std::string_view>;
template <typename KeyOf>
std::vector<uint32_t> sortedByReceipt(size_t count, const KeyOf& keyOf)
{
    std::vector<uint32_t> order(count);
    for (size_t i = 0; i < count; ++i) order[i] = static_cast<uint32_t>(i);
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return keyOf(a) < keyOf(b); });
    return order;
}

template <typename KeyOf>
std::pair<std::vector<uint32_t>::const_iterator, std::vector<uint32_t>::const_iterator>
rowsOf(const std::vector<uint32_t>& order, const KeyOf& keyOf, const ReceiptKey& key)
{
    return std::equal_range(order.begin(), order.end(), key, [&](const auto& a, const auto& b) {
        if constexpr (std::is_same_v<std::decay_t<decltype(a)>, ReceiptKey>) return a < keyOf(b);
        else return keyOf(a) < b;
    });
}

// The signed processData of a row: its own when its signature holds over
// it, else that of the TSE's Finish log it matched, when that one holds.
std::optional<std::string_view> signedProcessData(const Bookkeeping& books, const RowCheck& check, size_t row,
                                                  const TseExport* tse)
{
    if (check.verdict == RowVerdict::Valid && !check.provenByLog)
        return books.rowField(books.rows[row], ROW_PROCESS_DATA);
    if (tse && check.log != NONE && tse->finishes[check.log].verdict == LogVerdict::Valid) {
        return tse->processData(tse->finishes[check.log]);
    }
    return std::nullopt;
}

class BooksReconciler {
public:
    BooksReconciler(const Bookkeeping& books, RowChecks& checks, const TseExport* tse, const ReceiptRows* rows,
                    RaisedFindings& findings)
        : books_(books), checks_(checks), tse_(tse), rows_(rows), findings_(findings)
    {
        const auto rowKey = [&](uint32_t i) {
            return ReceiptKey{books_.rows[i].closing, books_.rowField(books_.rows[i], ROW_BON_ID)};
        };
        rowOrder_ = sortedByReceipt(books_.rows.size(), rowKey);
        vatOrder_ = sortedByReceipt(books_.vat.size(), [&](uint32_t i) { return vatKey(i); });
        paymentOrder_ = sortedByReceipt(books_.payments.size(), [&](uint32_t i) { return paymentKey(i); });
    }

    void run()
    {
        duplicates();
        if (books_.receiptsTable) links();
        for (size_t i = 0; i < books_.rows.size(); ++i) amounts(i);
    }

private:
    ReceiptKey vatKey(uint32_t i) const { return {books_.vat[i].closing, books_.pool.field(books_.vat[i].bonId, 0)}; }
    ReceiptKey paymentKey(uint32_t i) const
    {
        return {books_.payments[i].closing, books_.pool.field(books_.payments[i].record, 0)};
    }
    void duplicates();
    void links();
    void receiptTime(size_t row, const BookedReceipt& receipt);
    void amounts(size_t row);
    std::vector<std::string> compareVat(const ReceiptAmounts& signed_, const ReceiptKey& key) const;
    std::vector<std::string> comparePayments(const ReceiptAmounts& signed_, const ReceiptKey& key) const;

    const Bookkeeping& books_;
    RowChecks& checks_;
    const TseExport* tse_;
    const ReceiptRows* rows_;
    RaisedFindings& findings_;
    std::vector<uint32_t> rowOrder_, vatOrder_, paymentOrder_;
};

// One TSE transaction stands in one row, whatever the TSE export says.
void BooksReconciler::duplicates()
{
    std::vector<size_t> order;
    for (size_t i = 0; i < books_.rows.size(); ++i) {
        const RowCheck& c = checks_.rows[i];
        if (c.tse != NONE && c.transaction != NO_NUMBER && c.verdict != RowVerdict::Unsigned) order.push_back(i);
    }
    const auto key = [&](size_t i) {
        return std::make_pair(std::string_view(books_.tses[checks_.rows[i].tse].serialNumber),
                              checks_.rows[i].transaction);
    };
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
    for (size_t first = 0; first < order.size();) {
        size_t last = first + 1;
        while (last < order.size() && key(order[last]) == key(order[first])) ++last;
        for (size_t i = first; last - first > 1 && i < last; ++i) {
            findings_.raise(FindingCode::TransactionDuplicate, FindingSubject::Row, order[i],
                            "transaction " + rowValue(ROW_TANR) + " of TSE " + shortSerial(key(order[first]).first) +
                                " stands in " + std::to_string(last - first) + " rows, first in " +
                                rowLabel(books_, order[first]));
        }
        first = last;
    }
}

// Every row names a receipt that exists, at its time; every receipt that
// is a sale has a row, signed or booked as a TSE failure.
void BooksReconciler::links()
{
    for (size_t i = 0; i < books_.rows.size(); ++i) {
        const TseRow& row = books_.rows[i];
        const BookedReceipt* receipt = books_.findReceipt(row.closing, books_.rowField(row, ROW_BON_ID));
        if (receipt) {
            receiptTime(i, *receipt);
            continue;
        }
        findings_.raise(FindingCode::ReferenceMissing, FindingSubject::Row, i,
                        "BON_ID " + rowValue(ROW_BON_ID) + " names no receipt of closing " +
                            books_.closings[row.closing].key.number + " in transactions.csv");
    }
    const auto rowKey = [&](uint32_t i) {
        return ReceiptKey{books_.rows[i].closing, books_.rowField(books_.rows[i], ROW_BON_ID)};
    };
    for (size_t r = 0; r < books_.receipts.size(); ++r) {
        const BookedReceipt& receipt = books_.receipts[r];
        if (books_.receiptField(receipt, BON_TYP) != "Beleg") continue;
        const auto range = rowsOf(rowOrder_, rowKey, ReceiptKey{receipt.closing, books_.receiptField(receipt, BON_ID)});
        if (range.first != range.second) continue;
        findings_.raise(FindingCode::ReceiptWithoutTse, FindingSubject::Receipt, r,
                        "the sale has no row in transactions_tse.csv, neither signed nor booked as a TSE failure");
    }
}

// The TSE signs a sale while the register records it: a row whose
// signature time lies outside its receipt's own start and end belongs to
// another receipt.
void BooksReconciler::receiptTime(size_t row, const BookedReceipt& receipt)
{
    const RowCheck& c = checks_.rows[row];
    int64_t signedAt = c.logSeconds;
    if (tse_ && c.log != NONE) signedAt = tse_->finishes[c.log].seconds;
    if (signedAt == NO_TIME || c.verdict == RowVerdict::Unsigned) return;
    const std::optional<int64_t> start = bookedSeconds(books_.receiptField(receipt, BON_START));
    const std::optional<int64_t> end = bookedSeconds(books_.receiptField(receipt, BON_END));
    if (!start || !end) return;
    if (signedAt >= *start - RECEIPT_TOLERANCE && signedAt <= *end + RECEIPT_TOLERANCE) return;
    findings_.raise(FindingCode::ReceiptTimeDiffers, FindingSubject::Row, row,
                    "its TSE transaction was signed at " + rowValue(ROW_END) + ", outside its receipt's BON_START " +
                        receiptValue(BON_START) + " to BON_ENDE " + receiptValue(BON_END) + " (give or take a minute)");
}

std::vector<std::string> BooksReconciler::compareVat(const ReceiptAmounts& signed_, const ReceiptKey& key) const
{
    Amount booked[5] = {0, 0, 0, 0, 0};
    const auto range = rowsOf(
        vatOrder_, [&](uint32_t i) { return vatKey(i); }, key);
    for (auto it = range.first; it != range.second; ++it) {
        const VatRow& vat = books_.vat[*it];
        // A key of the business's own stands for no amount of processData;
        // leaving it out hides no change of the five that it does sign.
        const std::optional<size_t> field = processDataField(vat.key);
        if (field) booked[*field] += vat.gross;
    }
    std::vector<std::string> out;
    for (size_t i = 0; i < 5; ++i) {
        const Amount signedAmount = signed_.vat[i] * (AMOUNT_UNIT / 100);
        if (signedAmount == booked[i]) continue;
        out.push_back("gross of VAT kind " + std::to_string(i + 1) + ": signed " + formatExactAmount(signedAmount) +
                      ", booked in transactions_vat.csv " + formatExactAmount(booked[i]));
    }
    return out;
}

std::vector<std::string> BooksReconciler::comparePayments(const ReceiptAmounts& signed_, const ReceiptKey& key) const
{
    std::map<std::pair<bool, std::string>, Amount> signedPayments, booked;
    for (const ReceiptAmounts::Payment& p : signed_.payments) {
        const bool base = p.currency.empty() || equalsIgnoringCase(p.currency, "EUR");
        signedPayments[{p.cash, base ? std::string() : p.currency}] += p.amount * (AMOUNT_UNIT / 100);
    }
    const auto range = rowsOf(
        paymentOrder_, [&](uint32_t i) { return paymentKey(i); }, key);
    for (auto it = range.first; it != range.second; ++it) {
        const PaymentRow& p = books_.payments[*it];
        const std::string_view currency = books_.pool.field(p.record, 3);
        const bool base = currency.empty() || equalsIgnoringCase(currency, "EUR");
        // A foreign currency's signed amount is in that currency; only the
        // base currency's can be compared with BASISWAEH_BETRAG.
        if (!base) return {};
        booked[{books_.pool.field(p.record, 1) == "Bar", std::string()}] += p.base;
    }
    std::set<std::pair<bool, std::string>> keys;
    for (const auto& entry : signedPayments) keys.insert(entry.first);
    for (const auto& entry : booked) keys.insert(entry.first);
    std::vector<std::string> out;
    for (const auto& k : keys) {
        const Amount a = signedPayments.count(k) ? signedPayments.at(k) : 0, b = booked.count(k) ? booked.at(k) : 0;
        if (a == b) continue;
        out.push_back(std::string(k.first ? "cash" : "non-cash") + (k.second.empty() ? "" : " " + k.second) +
                      " payments: signed " + formatExactAmount(a) + ", booked in datapayment.csv " +
                      formatExactAmount(b));
    }
    return out;
}

// The signed processData is the reference: what the TSE signed is what was
// sold, so booked amounts that differ from it are altered.
void BooksReconciler::amounts(size_t row)
{
    const RowCheck& c = checks_.rows[row];
    const std::optional<std::string_view> data = signedProcessData(books_, c, row, tse_);
    if (!data) return;
    std::string_view processType = books_.rowField(books_.rows[row], ROW_PROCESS_TYPE);
    if (tse_ && c.log != NONE) processType = tse_->texts[tse_->finishes[c.log].processType];
    if (processType != "Kassenbeleg-V1") return;
    const std::optional<ReceiptAmounts> signed_ = parseReceiptAmounts(*data);
    if (!signed_) return;
    const ReceiptKey key{books_.rows[row].closing, books_.rowField(books_.rows[row], ROW_BON_ID)};
    // A row that names no receipt has no booked amounts; reference-missing says so.
    if (books_.receiptsTable && !books_.findReceipt(key.first, key.second)) return;
    std::vector<std::string> differences;
    if (books_.vatTable) differences = compareVat(*signed_, key);
    if (books_.paymentsTable) {
        const std::vector<std::string> payments = comparePayments(*signed_, key);
        differences.insert(differences.end(), payments.begin(), payments.end());
    }
    if (differences.empty()) return;
    std::string words =
        "the booked amounts differ from the signed processData " + quoted(*data, SHOWN_PROCESS_DATA) + ": ";
    for (size_t i = 0; i < differences.size(); ++i) words += (i ? "; " : "") + differences[i];
    // Set beside the signed text, the rebuilt one shows at a glance which amount was changed.
    const BookedReceipt* receipt = books_.findReceipt(key.first, key.second);
    if (rows_ && receipt) {
        const std::vector<std::string> rebuilt =
            rebuildProcessData(books_, *rows_, static_cast<size_t>(receipt - books_.receipts.data()), "Kassenbeleg-V1");
        if (!rebuilt.empty())
            words += "; processData rebuilt from the bookkeeping: " + quoted(rebuilt.front(), SHOWN_PROCESS_DATA);
    }
    findings_.raise(FindingCode::AmountsDiffer, FindingSubject::Row, row, words);
}

}  // namespace

void reconcileBookkeeping(const Bookkeeping& books, RowChecks& checks, const TseExport* tse, RaisedFindings& findings,
                          const ReceiptRows* rows)
{
    BooksReconciler(books, checks, tse, rows, findings).run();
}

std::vector<CoveredPeriod> coveredPeriods(const Bookkeeping& books)
{
    std::map<std::string, std::vector<const Closing*>> byRegister;
    for (const Closing& closing : books.closings) {
        if ((closing.booked || !books.closingsTable) && closing.createdSeconds)
            byRegister[closing.key.kasse].push_back(&closing);
    }
    std::vector<CoveredPeriod> periods;
    for (auto& [kasse, closings] : byRegister) {
        std::stable_sort(closings.begin(), closings.end(),
                         [](const Closing* a, const Closing* b) { return *a->createdSeconds < *b->createdSeconds; });
        for (size_t i = 0; i < closings.size(); ++i) {
            const Closing& c = *closings[i];
            int64_t from = 0;
            if (i > 0) {
                from = *closings[i - 1]->createdSeconds;
            } else {
                // The first closing covers its business day from its start
                // (German midnight); without Z_BUCHUNGSTAG, the day it was made.
                const std::optional<IsoTime> day = parseIsoTime(c.businessDay + "T00:00:00");
                const int64_t local = germanLocalFromUtc(*c.createdSeconds);
                from = germanLocalToUtc(day ? day->seconds : local - ((local % DAY) + DAY) % DAY);
            }
            periods.push_back(CoveredPeriod{kasse, c.key.number, from, *c.createdSeconds});
        }
    }
    return periods;
}

}  // namespace tse
