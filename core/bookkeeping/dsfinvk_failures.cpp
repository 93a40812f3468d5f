#include "dsfinvk_failures.h"

#include <algorithm>
#include <optional>

#include "dsfinvk_amounts.h"
#include "dsfinvk_rebuild.h"
#include "log_time.h"
#include "text.h"

namespace tse {
namespace {

constexpr int64_t OPEN_TOLERANCE = 60;   // the register's clock against the TSE's
constexpr int64_t WORKING_WINDOW = 300;  // a TSE that signed this close to the failure was working

struct Window {
    int64_t from = 0, to = 0;
    int64_t distance(int64_t t) const { return t < from ? from - t : t > to ? t - to : 0; }
};

std::optional<Window> receiptWindow(const Bookkeeping& books, const BookedReceipt& receipt)
{
    const std::optional<int64_t> start = bookedSeconds(books.receiptField(receipt, BON_START));
    const std::optional<int64_t> end = bookedSeconds(books.receiptField(receipt, BON_END));
    if (!start && !end) return std::nullopt;
    return Window{start.value_or(*end), std::max(start.value_or(*end), end.value_or(*start))};
}

// Payments per kind and currency: a register may split or merge them.
std::map<std::pair<bool, std::string>, int64_t> paymentSums(const ReceiptAmounts& amounts)
{
    std::map<std::pair<bool, std::string>, int64_t> out;
    for (const ReceiptAmounts::Payment& p : amounts.payments) out[{p.cash, p.currency}] += p.amount;
    for (auto it = out.begin(); it != out.end();) it = it->second == 0 ? out.erase(it) : std::next(it);
    return out;
}

bool sameAmounts(const ReceiptAmounts& a, const ReceiptAmounts& b)
{
    return std::equal(std::begin(a.vat), std::end(a.vat), std::begin(b.vat)) && paymentSums(a) == paymentSums(b);
}

class FailureLinker {
public:
    FailureLinker(const Bookkeeping& books, RowChecks& checks, const TseExport& tse, const ReceiptRows& rows,
                  const ClientRegisters& registers, std::vector<bool>& claimed, RaisedFindings& findings)
        : books_(books), checks_(checks), tse_(tse), rows_(rows), registers_(registers), claimed_(claimed),
          findings_(findings), byTime_(tse.finishes.size())
    {
        for (size_t i = 0; i < byTime_.size(); ++i) byTime_[i] = i;
        std::stable_sort(byTime_.begin(), byTime_.end(),
                         [&](size_t a, size_t b) { return tse.finishes[a].seconds < tse.finishes[b].seconds; });
    }

    void run()
    {
        for (size_t i = 0; i < books_.rows.size(); ++i) {
            const RowCheck& c = checks_.rows[i];
            if (c.cause == RowCause::Failure && c.transaction == NO_NUMBER && c.log == NONE) link(i);
        }
    }

private:
    bool ofRegister(const TseFinish& log, const std::string& kasse) const
    {
        const auto found = registers_.find(std::string(tse_.texts[log.clientId]));
        return found != registers_.end() && found->second.count(kasse) != 0;
    }
    void link(size_t row);
    void linked(size_t row, size_t log);
    void working(size_t row, const std::vector<size_t>& logs);

    const Bookkeeping& books_;
    RowChecks& checks_;
    const TseExport& tse_;
    const ReceiptRows& rows_;
    const ClientRegisters& registers_;
    std::vector<bool>& claimed_;
    RaisedFindings& findings_;
    std::vector<size_t> byTime_;  // the Finish logs in time order
};

void FailureLinker::link(size_t row)
{
    const TseRow& r = books_.rows[row];
    const RowCheck& c = checks_.rows[row];
    const BookedReceipt* receipt = books_.findReceipt(r.closing, books_.rowField(r, ROW_BON_ID));
    const std::optional<Window> window = receipt ? receiptWindow(books_, *receipt) : std::nullopt;
    if (!window) return;
    // The failed TSE where the row names it, else any TSE of the register.
    std::optional<uint32_t> serial;
    if (c.tse != NONE && !(serial = tse_.serialIndex(books_.tses[c.tse].serialNumber))) return;
    const std::string& kasse = books_.closings[r.closing].key.kasse;
    const ReceiptAmounts booked = bookedAmounts(books_, rows_, static_cast<size_t>(receipt - books_.receipts.data()));
    const auto first = std::lower_bound(byTime_.begin(), byTime_.end(), window->from - WORKING_WINDOW,
                                        [&](size_t i, int64_t t) { return tse_.finishes[i].seconds < t; });
    size_t best = NONE;
    int64_t bestDistance = OPEN_TOLERANCE + 1;
    std::vector<size_t> near;
    for (auto it = first; it != byTime_.end() && tse_.finishes[*it].seconds <= window->to + WORKING_WINDOW; ++it) {
        const TseFinish& log = tse_.finishes[*it];
        const bool registers = ofRegister(log, kasse);
        if (serial ? log.serial != *serial : !registers) continue;
        near.push_back(*it);
        const int64_t distance = window->distance(log.seconds);
        if (claimed_[*it] || !registers || distance >= bestDistance) continue;
        const std::optional<ReceiptAmounts> signedAmounts = parseReceiptAmounts(tse_.processData(log));
        if (!signedAmounts || !sameAmounts(*signedAmounts, booked)) continue;
        best = *it, bestDistance = distance;
    }
    if (best != NONE) return linked(row, best);
    if (!near.empty()) working(row, near);
}

void FailureLinker::linked(size_t row, size_t index)
{
    RowCheck& c = checks_.rows[row];
    const TseFinish& log = tse_.finishes[index];
    claimed_[index] = true;
    c.log = static_cast<uint32_t>(index);
    c.setMatch(MatchState::Differs);
    c.differences |= DIFFERS_SIGNATURE;
    findings_.raise(FindingCode::UnsignedButSigned, FindingSubject::Row, row,
                    "booked as a TSE failure (" + rowValue(ROW_FAILURE) +
                        ") without a transaction number, but the TSE signed this sale as transaction " +
                        std::to_string(log.transaction) + " at " + isoSeconds(log.seconds) + " in " + tse_.file(log) +
                        ": the register's client, the booked amounts (processData " +
                        quoted(tse_.processData(log), 80) + ") and the receipt's time agree");
}

void FailureLinker::working(size_t row, const std::vector<size_t>& logs)
{
    const TseFinish &first = tse_.finishes[logs.front()], &last = tse_.finishes[logs.back()];
    findings_.raise(FindingCode::FailureWhileSigning, FindingSubject::Row, row,
                    "booked as a TSE failure (" + rowValue(ROW_FAILURE) + "), while TSE " +
                        tse_.serials[first.serial].substr(0, 16) + "... signed " + std::to_string(logs.size()) +
                        (logs.size() == 1 ? " transaction" : " transactions") +
                        " within five minutes of the receipt (" + isoSeconds(first.seconds) +
                        (logs.size() > 1 ? " to " + isoSeconds(last.seconds) : "") + "): the TSE was working");
}

}  // namespace

void linkFailureRows(const Bookkeeping& books, RowChecks& checks, const TseExport& tse, const ReceiptRows& rows,
                     const ClientRegisters& registers, std::vector<bool>& claimed, RaisedFindings& findings)
{
    FailureLinker(books, checks, tse, rows, registers, claimed, findings).run();
}

}  // namespace tse
