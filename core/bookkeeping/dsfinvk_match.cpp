// The bookkeeping against the TSE export: reconcileWithTse of
// dsfinvk_reconcile.h.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include "dsfinvk_failures.h"
#include "dsfinvk_reconcile.h"
#include "log_time.h"
#include "text.h"

namespace tse {
namespace {

constexpr int64_t TIME_TOLERANCE = 1;  // exporters round log times instead of cutting them
constexpr size_t SHOWN_PROCESS_DATA = 80;

std::string shortSerial(std::string_view serial)
{
    return std::string(serial.substr(0, 16)) + "...";
}

// What one TSE's export covers: its transaction numbers and times.
struct Range {
    bool any = false;
    uint64_t minNumber = UINT64_MAX, maxNumber = 0;
    int64_t minTime = INT64_MAX, maxTime = INT64_MIN;

    void add(uint64_t number, int64_t time)
    {
        any = true;
        minNumber = std::min(minNumber, number), maxNumber = std::max(maxNumber, number);
        minTime = std::min(minTime, time), maxTime = std::max(maxTime, time);
    }
    // Inside when the number or the time lies within it.
    bool holds(uint64_t number, int64_t time) const
    {
        if (!any) return false;
        if (number >= minNumber && number <= maxNumber) return true;
        return time != NO_TIME && time >= minTime && time <= maxTime;
    }
};

class TseReconciler {
public:
    TseReconciler(Bookkeeping& books, RowChecks& checks, const TseExport& tse, const ReceiptRows* rows,
                  RaisedFindings& findings)
        : books_(books), checks_(checks), tse_(tse), rows_(rows), findings_(findings),
          claimed_(tse.finishes.size(), false), ranges_(tse.serials.size())
    {
        for (const TseFinish& log : tse.finishes) ranges_[log.serial].add(log.transaction, log.seconds);
        for (const TseStart& log : tse.starts) ranges_[log.serial].add(log.transaction, log.seconds);
    }

    Reconciliation run()
    {
        identity();
        for (size_t i = 0; i < books_.rows.size(); ++i) matchRow(i);
        if (rows_) linkFailureRows(books_, checks_, tse_, *rows_, clientRegisters(), claimed_, findings_);
        Reconciliation out;
        out.periods = coveredPeriods(books_);
        coverage(out);
        return out;
    }

private:
    void identity();
    void matchRow(size_t row);
    void matched(size_t row, uint32_t serial, const TseFinish& log);
    uint8_t compare(size_t row, const TseFinish& log, std::vector<std::string>& details) const;
    uint8_t compareStart(size_t row, uint32_t serial, std::vector<std::string>& details) const;
    std::map<std::string, std::set<std::string>> clientRegisters() const;
    void coverage(Reconciliation& out);

    Bookkeeping& books_;
    RowChecks& checks_;
    const TseExport& tse_;
    const ReceiptRows* rows_;
    RaisedFindings& findings_;
    std::vector<bool> claimed_;
    std::vector<Range> ranges_;
};

// The two sides must be about the same TSE: its key in tse.csv and its
// certificate or logs in the export.
void TseReconciler::identity()
{
    std::set<std::string> exported;
    for (const CertificateRecord& c : tse_.audit.certificates) exported.insert(c.serialNumber);
    exported.insert(tse_.serials.begin(), tse_.serials.end());
    bool shared = false;
    std::string declared, held;
    for (TseDeclaration& d : books_.tses) {
        d.inTseExport = std::any_of(exported.begin(), exported.end(),
                                    [&](const std::string& s) { return equalsIgnoringCase(s, d.serialNumber); });
        shared |= d.inTseExport;
        declared += (declared.empty() ? "" : ", ") + shortSerial(d.serialNumber);
    }
    for (const std::string& serial : exported) held += (held.empty() ? "" : ", ") + shortSerial(serial);
    if (shared) return;
    findings_.raise(
        FindingCode::TseMismatch,
        (books_.tses.empty() ? std::string("tse.csv declares no TSE") : "tse.csv declares the TSE " + declared) +
            ", the TSE export holds " + (held.empty() ? std::string("none") : held) +
            ": the bookkeeping and the TSE export share no TSE, so no sale can be checked against "
            "what the TSE signed");
}

uint8_t TseReconciler::compare(size_t row, const TseFinish& log, std::vector<std::string>& details) const
{
    const RowCheck& c = checks_.rows[row];
    const TseRow& r = books_.rows[row];
    uint8_t differences = 0;
    const auto differ = [&](uint8_t bit, std::string text) { differences |= bit, details.push_back(std::move(text)); };
    if (c.counter != NO_NUMBER && c.counter != log.counter) {
        differ(DIFFERS_COUNTER,
               "signatureCounter " + std::to_string(c.counter) + " against the TSE's " + std::to_string(log.counter));
    }
    const std::string_view type = books_.rowField(r, ROW_PROCESS_TYPE), logType = tse_.texts[log.processType];
    if (type != logType)
        differ(DIFFERS_PROCESS_TYPE, "processType " + quoted(type) + " against the TSE's " + quoted(logType));
    const std::string_view data = books_.rowField(r, ROW_PROCESS_DATA),
                           other = books_.rowField(r, ROW_OTHER_PROCESS_DATA);
    const std::string_view signedData = tse_.processData(log);
    if (!data.empty() && data != signedData && other != signedData) {
        differ(DIFFERS_PROCESS_DATA, "processData " + quoted(data, SHOWN_PROCESS_DATA) + " against the TSE's " +
                                         quoted(signedData, SHOWN_PROCESS_DATA));
    }
    // A time without a zone may have been written as UTC after all.
    const std::optional<IsoTime> end = parseIsoTime(books_.rowField(r, ROW_END));
    const bool asUtc = end && !end->hadZone && std::llabs(end->seconds - log.seconds) <= TIME_TOLERANCE;
    if (c.logSeconds == NO_TIME) {
        differ(DIFFERS_LOG_TIME, "logTime " + quoted(books_.rowField(r, ROW_END)) + " against the Finish log's " +
                                     isoSeconds(log.seconds));
    } else if (std::llabs(c.logSeconds - log.seconds) > TIME_TOLERANCE && !asUtc) {
        differ(DIFFERS_LOG_TIME,
               "logTime " + isoSeconds(c.logSeconds) + " against the Finish log's " + isoSeconds(log.seconds));
    }
    if (c.hasSignature && c.signatureHash != log.signatureHash)
        differ(DIFFERS_SIGNATURE, "signature is not the Finish log's");
    return differences;
}

// TSE_TA_START is signed only by the Start log: checked against it. A
// transaction numbered above the export's first Start must have one; those
// below began before the export did.
uint8_t TseReconciler::compareStart(size_t row, uint32_t serial, std::vector<std::string>& details) const
{
    const RowCheck& c = checks_.rows[row];
    const std::optional<int64_t> start = tse_.startSeconds(serial, c.transaction);
    if (start) {
        if (c.startSeconds == NO_TIME || std::llabs(c.startSeconds - *start) <= TIME_TOLERANCE) return 0;
        details.push_back("startTime " + isoSeconds(c.startSeconds) + " against the Start log's " + isoSeconds(*start));
        return DIFFERS_START_TIME;
    }
    const std::optional<uint64_t> first = tse_.firstStarted(serial);
    if (!first || c.transaction <= *first) return 0;
    details.push_back("startTime " +
                      (c.startSeconds == NO_TIME ? std::string("unreadable") : isoSeconds(c.startSeconds)) +
                      ", and the TSE export holds no Start log of transaction " + std::to_string(c.transaction));
    return DIFFERS_START_TIME;
}

void TseReconciler::matched(size_t row, uint32_t serial, const TseFinish& log)
{
    RowCheck& c = checks_.rows[row];
    const size_t index = static_cast<size_t>(&log - tse_.finishes.data());
    claimed_[index] = true;
    c.log = static_cast<uint32_t>(index);
    const std::string file = tse_.file(log);
    if (c.verdict == RowVerdict::Unsigned) {
        c.setMatch(MatchState::Differs);
        c.differences |= DIFFERS_SIGNATURE;
        // A row that simply lacks its signature says so by its own finding.
        if (c.cause != RowCause::Failure) return;
        findings_.raise(FindingCode::UnsignedButSigned, FindingSubject::Row, row,
                        "booked as a TSE failure (" + rowValue(ROW_FAILURE) + "), but the TSE signed transaction " +
                            rowValue(ROW_TANR) + " in " + file);
        return;
    }
    std::vector<std::string> details;
    c.differences = static_cast<uint8_t>(compare(row, log, details) | compareStart(row, serial, details));
    if (c.differences == 0) {
        c.setMatch(MatchState::Matched);
        // A row whose own data cannot show its signature holds is the
        // TSE's log, byte for byte, when every field and the signature agree.
        if (c.verdict == RowVerdict::Unverifiable && c.hasSignature && log.verdict == LogVerdict::Valid &&
            (c.cause == RowCause::NoProcessData || c.cause == RowCause::TseUnusable)) {
            c.provenByLog = true;
            c.verdict = RowVerdict::Valid;
            c.reason =
                checks_.text("verified through the TSE export's Finish log " + file + ", whose signature it carries");
        }
        return;
    }
    c.setMatch(MatchState::Differs);
    std::string words = "differs from the TSE's Finish log " + file + ":";
    for (size_t i = 0; i < details.size(); ++i) words += (i ? "; " : " ") + details[i];
    findings_.raise(FindingCode::TransactionDiffers, FindingSubject::Row, row, words);
}

void TseReconciler::matchRow(size_t row)
{
    RowCheck& c = checks_.rows[row];
    if (c.tse == NONE || c.transaction == NO_NUMBER) return;
    const std::optional<uint32_t> serial = tse_.serialIndex(books_.tses[c.tse].serialNumber);
    const bool unsignedRow = c.verdict == RowVerdict::Unsigned;
    if (!serial) {
        if (!unsignedRow) c.setMatch(MatchState::Outside);
        return;
    }
    if (const TseFinish* log = tse_.finish(*serial, c.transaction)) return matched(row, *serial, *log);
    if (unsignedRow) return;
    if (!ranges_[*serial].holds(c.transaction, c.logSeconds)) {
        c.setMatch(MatchState::Outside);
        return;
    }
    c.setMatch(MatchState::Unknown);
    findings_.raise(FindingCode::TransactionUnknown, FindingSubject::Row, row,
                    "the TSE export has no Finish log of transaction " + rowValue(ROW_TANR) +
                        " though it lies inside the export's range");
}

// Which registers a client ID the TSE signed belongs to: their serials in
// cashregister.csv and slaves.csv, Z_KASSE_ID itself, and whatever the
// matched rows show.
std::map<std::string, std::set<std::string>> TseReconciler::clientRegisters() const
{
    std::map<std::string, std::set<std::string>> out;
    for (const Closing& closing : books_.closings) {
        if (!closing.kasseSerial.empty()) out[closing.kasseSerial].insert(closing.key.kasse);
        out[closing.key.kasse].insert(closing.key.kasse);
    }
    for (const Terminal& t : books_.terminals) {
        if (!t.serial.empty()) out[t.serial].insert(books_.closings[t.closing].key.kasse);
    }
    for (size_t i = 0; i < books_.rows.size(); ++i) {
        const RowCheck& c = checks_.rows[i];
        if (c.log == NONE) continue;
        out[std::string(tse_.texts[tse_.finishes[c.log].clientId])].insert(
            books_.closings[books_.rows[i].closing].key.kasse);
    }
    return out;
}

// Every Finish log of a register in a period the bookkeeping covers is a
// sale it must book; the rest is summed up by register for the auditor.
void TseReconciler::coverage(Reconciliation& out)
{
    const std::map<std::string, std::set<std::string>> registers = clientRegisters();
    std::map<std::pair<std::string, std::string>, UncoveredSales> uncovered;
    out.logs.assign(tse_.finishes.size(), LogState::Booked);
    for (size_t i = 0; i < tse_.finishes.size(); ++i) {
        if (claimed_[i]) continue;
        const TseFinish& log = tse_.finishes[i];
        const std::string client(tse_.texts[log.clientId]);
        const auto found = registers.find(client);
        const CoveredPeriod* period = nullptr;
        std::string kasse;
        if (found != registers.end()) {
            kasse = *found->second.begin();
            for (const CoveredPeriod& p : out.periods) {
                if (found->second.count(p.kasseId) && log.seconds > p.from - TIME_TOLERANCE && log.seconds <= p.to)
                    period = &p;
            }
        }
        if (period) {
            out.logs[i] = LogState::Unbooked;
            findings_.raise(FindingCode::TransactionUnbooked, FindingSubject::Log, i,
                            "transaction " + std::to_string(log.transaction) + " (" + tse_.file(log) +
                                ", processData " + quoted(tse_.processData(log), SHOWN_PROCESS_DATA) +
                                ") was signed at " + isoSeconds(log.seconds) + " for register " +
                                quoted(period->kasseId) + " inside the period of its closing " + period->closing +
                                " (" + isoSeconds(period->from) + " to " + isoSeconds(period->to) +
                                "), but the bookkeeping does not hold it");
            continue;
        }
        out.logs[i] = LogState::Outside;
        UncoveredSales& sales = uncovered[{kasse, client}];
        if (sales.sales == 0) sales = UncoveredSales{kasse, client, 0, log.seconds, log.seconds};
        ++sales.sales;
        sales.first = std::min(sales.first, log.seconds), sales.last = std::max(sales.last, log.seconds);
    }
    for (auto& entry : uncovered) out.uncovered.push_back(std::move(entry.second));
}

}  // namespace

Reconciliation reconcileWithTse(Bookkeeping& books, RowChecks& checks, const TseExport& tse, RaisedFindings& findings,
                                const ReceiptRows* rows)
{
    return TseReconciler(books, checks, tse, rows, findings).run();
}

}  // namespace tse
