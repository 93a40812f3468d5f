#include "dsfinvk_check.h"

#include <algorithm>
#include <memory>

#include "dsfinvk_books.h"
#include "dsfinvk_intake.h"
#include "dsfinvk_reconcile.h"
#include "dsfinvk_tse_export.h"
#include "dsfinvk_verify.h"
#include "log_time.h"
#include "text.h"

namespace tse {
namespace {

// Everything a report reads its transactions and findings from, kept as
// long as the report.
struct CheckState {
    Bookkeeping books;
    RowChecks checks;
    std::optional<TseExport> tse;
    Reconciliation reconciliation;
    BookChecks bookChecks;
    RaisedFindings raised;
    bool strict = false;
    // The combined findings in their order: (from the TSE export's audit,
    // index into its findings or into `sorted`).
    std::vector<RaisedFinding> sorted;
    std::vector<std::pair<bool, size_t>> order;
    std::vector<size_t> unbookedLogs;  // the Finish logs no row books, as transactions
};

// The findings a row raises by what verification and reconciliation found.
void judgeRows(CheckState& s)
{
    for (size_t i = 0; i < s.books.rows.size(); ++i) {
        const RowCheck& c = s.checks.rows[i];
        const std::string_view words = s.checks.texts[c.reason];
        const auto raise = [&](FindingCode code) { s.raised.raise(code, FindingSubject::Row, i, words); };
        switch (c.cause) {
        case RowCause::Mismatch:
        case RowCause::RebuiltMismatch: raise(FindingCode::SignatureInvalid); break;
        case RowCause::BadField: raise(FindingCode::FieldInvalid); break;
        case RowCause::NoSignature: raise(FindingCode::SignatureMissing); break;
        case RowCause::NoTse: raise(FindingCode::ReferenceMissing); break;
        case RowCause::TseUnusable:
            if (!c.provenByLog) raise(FindingCode::SignatureUnverifiable);
            break;
        case RowCause::NoProcessData:
            raise(c.provenByLog ? FindingCode::ProcessDataMissing : FindingCode::SignatureUnverifiable);
            break;
        case RowCause::Failure:
            // One that the TSE signed after all is reported as that alone.
            if (!(c.differences & DIFFERS_SIGNATURE)) raise(FindingCode::UnsignedTransaction);
            break;
        case RowCause::None: break;
        }
        if (c.badStart && c.cause != RowCause::BadField && c.verdict != RowVerdict::Unsigned) {
            s.raised.raise(FindingCode::FieldInvalid, FindingSubject::Row, i,
                           "TSE_TA_START " + rowValue(ROW_START) + " of a signed row is no ISO 8601 time");
        }
        if (c.localTime) raise(FindingCode::LocalTime);
    }
}

std::string logLabel(const TseExport& tse, const TseFinish& log)
{
    return "TSE " + tse.serials[log.serial].substr(0, 16) + ".../" + std::to_string(log.transaction);
}

BookedTransaction rowTransaction(const CheckState& s, size_t i)
{
    const TseRow& row = s.books.rows[i];
    const RowCheck& c = s.checks.rows[i];
    const Closing& closing = s.books.closings[row.closing];
    BookedTransaction t;
    t.file = s.books.where(row.place);
    t.bonId = s.books.rowField(row, ROW_BON_ID);
    t.kasseId = closing.key.kasse, t.closing = closing.key.number, t.closingTime = closing.key.created;
    t.clientId = s.checks.texts[c.clientId];
    t.clientIdSource = clientSourceName(c.clientSource);
    if (c.tse != NONE) t.serialNumber = s.books.tses[c.tse].serialNumber;
    if (c.transaction != NO_NUMBER) t.transactionNumber = c.transaction;
    if (c.counter != NO_NUMBER) t.signatureCounter = c.counter;
    t.processType = s.books.rowField(row, ROW_PROCESS_TYPE);
    if (c.logSeconds != NO_TIME) t.logSeconds = c.logSeconds;
    if (const std::optional<IsoTime> end = parseIsoTime(s.books.rowField(row, ROW_END))) t.logFraction = end->fraction;
    if (c.startSeconds != NO_TIME) t.startSeconds = c.startSeconds;
    t.verdict = c.verdict;
    t.match = c.matchState();
    t.differences = differenceNames(c.differences);
    t.reason = s.checks.texts[c.reason];
    t.form = c.form();
    t.localTime = c.localTime;
    t.failure = s.books.rowField(row, ROW_FAILURE);
    if (t.clientId.empty() && s.tse && c.log != NONE) t.clientId = s.tse->texts[s.tse->finishes[c.log].clientId];
    return t;
}

BookedTransaction logTransaction(const CheckState& s, size_t index)
{
    const TseExport& tse = *s.tse;
    const TseFinish& log = tse.finishes[index];
    BookedTransaction t;
    t.row = false;
    t.file = tse.file(log);
    t.clientId = tse.texts[log.clientId];
    t.serialNumber = tse.serials[log.serial];
    t.transactionNumber = log.transaction;
    t.signatureCounter = log.counter;
    t.processType = tse.texts[log.processType];
    t.logSeconds = log.seconds;
    t.logFraction = tse.texts[log.fraction];
    t.startSeconds = tse.startSeconds(log.serial, log.transaction);
    t.verdict = log.verdict == LogVerdict::Valid     ? RowVerdict::Valid
                : log.verdict == LogVerdict::Invalid ? RowVerdict::Invalid
                                                     : RowVerdict::Unverifiable;
    const bool unbooked = s.reconciliation.logs[index] == LogState::Unbooked;
    t.match = unbooked ? MatchState::Unbooked : MatchState::Outside;
    t.reason = unbooked ? "the TSE signed this sale in a period the bookkeeping covers, and no row books it"
                        : "outside every period the bookkeeping covers";
    return t;
}

// The words with the values of the row or receipt they are about filled in.
std::string fillIn(const CheckState& s, std::string_view words, const TseRow* row, const BookedReceipt* receipt)
{
    std::string out;
    for (size_t i = 0; i < words.size(); ++i) {
        const char c = words[i];
        if ((c != ROW_VALUE && c != RECEIPT_VALUE) || i + 1 == words.size()) {
            out += c;
            continue;
        }
        const auto field = static_cast<size_t>(words[++i] - '0');
        if (c == ROW_VALUE && row) out += quoted(s.books.rowField(*row, static_cast<TseRowField>(field)), 80);
        if (c == RECEIPT_VALUE && receipt)
            out += quoted(s.books.receiptField(*receipt, static_cast<ReceiptField>(field)), 80);
    }
    return out;
}

std::string receiptLabel(const CheckState& s, const BookedReceipt& receipt)
{
    return s.books.closings[receipt.closing].key.kasse + "/" + std::string(s.books.receiptField(receipt, BON_ID));
}

// A finding's words and what it concerns, as the report gives them.
void describe(const CheckState& s, const RaisedFinding& r, BookkeepingFinding& f)
{
    const std::string_view words = s.raised.words(r);
    switch (r.subject) {
    case FindingSubject::Row: {
        const TseRow& row = s.books.rows[r.index];
        const BookedReceipt* receipt = s.books.findReceipt(row.closing, s.books.rowField(row, ROW_BON_ID));
        const std::string label =
            s.books.closings[row.closing].key.kasse + "/" + std::string(s.books.rowField(row, ROW_BON_ID));
        f.message = label + " (" + s.books.where(row.place) + "): " + fillIn(s, words, &row, receipt);
        f.transactions = {label};
        // A failure row that the TSE did sign names the log that signed it too.
        const uint32_t log = s.checks.rows[r.index].log;
        if (r.code == FindingCode::UnsignedButSigned && s.tse && log != NONE) {
            f.transactions.push_back(logLabel(*s.tse, s.tse->finishes[log]));
        }
        return;
    }
    case FindingSubject::Receipt: {
        const BookedReceipt& receipt = s.books.receipts[r.index];
        const bool sums = words.size() == 1 && words[0] == SUMS_VALUE;
        f.message = receiptLabel(s, receipt) + " (" + s.books.where(receipt.place) +
                    "): " + (sums ? s.bookChecks.describeReceipt(r.index) : fillIn(s, words, nullptr, &receipt));
        f.transactions = {receiptLabel(s, receipt)};
        return;
    }
    case FindingSubject::Log:
        f.message = words;
        f.transactions = {logLabel(*s.tse, s.tse->finishes[r.index])};
        return;
    case FindingSubject::Place:
        f.message = s.books.where(RowPlace{r.file, r.index}) + ": " + std::string(words);
        return;
    case FindingSubject::None: f.message = words; return;
    }
}

BookkeepingFinding findingAt(const CheckState& s, size_t position)
{
    const auto [fromAudit, index] = s.order[position];
    BookkeepingFinding f;
    if (fromAudit) {
        const Finding& a = s.tse->audit.findings[index];
        f = BookkeepingFinding{a.severity, std::string(findingName(a.code)), "TSE export: " + a.message, a.files, true};
    } else {
        const RaisedFinding& r = s.sorted[index];
        f.severity = findingSeverity(r.code);
        f.code = std::string(findingName(r.code));
        describe(s, r, f);
    }
    if (s.strict) f.severity = Severity::Error;
    return f;
}

// Errors first, then warnings, each code in catalogue order; the TSE
// export's own findings stand among them under their codes.
void orderFindings(CheckState& s)
{
    s.sorted = s.raised.sorted();
    const auto rank = [](Severity severity, FindingCode code) {
        return std::make_pair(severity, static_cast<int>(code));
    };
    for (size_t i = 0; i < s.sorted.size(); ++i) s.order.emplace_back(false, i);
    if (s.tse) {
        for (size_t i = 0; i < s.tse->audit.findings.size(); ++i) s.order.emplace_back(true, i);
    }
    std::stable_sort(s.order.begin(), s.order.end(), [&](const auto& a, const auto& b) {
        const auto rankOf = [&](const std::pair<bool, size_t>& entry) {
            if (!entry.first) return rank(findingSeverity(s.sorted[entry.second].code), s.sorted[entry.second].code);
            const Finding& f = s.tse->audit.findings[entry.second];
            return rank(f.severity, f.code);
        };
        return rankOf(a) < rankOf(b);
    });
}

void summarise(const CheckState& s, BookkeepingReport& report)
{
    BookkeepingSummary& sum = report.summary;
    for (const RowCheck& c : s.checks.rows) {
        ++sum.rows;
        sum.valid += c.verdict == RowVerdict::Valid;
        sum.invalid += c.verdict == RowVerdict::Invalid;
        sum.unsigned_ += c.verdict == RowVerdict::Unsigned;
        sum.unverifiable += c.verdict == RowVerdict::Unverifiable;
        if (const std::optional<MatchState> m = c.matchState()) {
            sum.matched += *m == MatchState::Matched, sum.differs += *m == MatchState::Differs;
            sum.unknown += *m == MatchState::Unknown, sum.outside += *m == MatchState::Outside;
        }
    }
    for (const LogState state : s.reconciliation.logs) {
        sum.unbooked += state == LogState::Unbooked, sum.outside += state == LogState::Outside;
    }
    for (size_t i = 0; i < report.findings.size(); ++i) {
        (report.findings[i].severity == Severity::Error ? sum.errors : sum.warnings) += 1;
    }
    sum.closings = static_cast<size_t>(
        std::count_if(s.books.closings.begin(), s.books.closings.end(), [](const Closing& c) { return c.booked; }));
    sum.receipts = s.books.receipts.size();
    if (s.tse) {
        sum.tseLogs = s.tse->audit.summary.logs;
        sum.tseFinishLogs = s.tse->finishes.size();
        sum.tseInvalidLogs = s.tse->audit.summary.invalid;
    }
}

std::vector<BookedTse> bookedTses(const CheckState& s)
{
    std::vector<BookedTse> out;
    for (const TseDeclaration& d : s.books.tses) {
        BookedTse t{d.serialNumber,
                    d.declaredSerial,
                    d.algorithmText,
                    d.timeFormatText,
                    d.encoding,
                    d.curve,
                    d.key ? std::string() : d.problem,
                    d.certificate,
                    d.inTseExport,
                    0};
        for (const RowCheck& c : s.checks.rows) t.rows += c.tse != NONE && &s.books.tses[c.tse] == &d;
        out.push_back(std::move(t));
    }
    return out;
}

BookkeepingReport reportOf(const std::shared_ptr<const CheckState>& state, const BookkeepingOptions& options)
{
    const CheckState& s = *state;
    BookkeepingReport report;
    report.dsfinvk = options.dsfinvk, report.tse = options.tse, report.tseGiven = !options.tse.empty();
    report.tses = bookedTses(s);
    report.tablesRead = s.books.tablesRead;
    report.periods = s.reconciliation.periods.empty() ? coveredPeriods(s.books) : s.reconciliation.periods;
    report.uncovered = s.reconciliation.uncovered;
    report.closings = s.bookChecks.closings;
    if (s.tse) report.tseAudit = s.tse->audit.summary;
    report.transactions = LazyList<BookedTransaction>(s.books.rows.size() + s.unbookedLogs.size(), [state](size_t i) {
        return i < state->books.rows.size() ? rowTransaction(*state, i)
                                            : logTransaction(*state, state->unbookedLogs[i - state->books.rows.size()]);
    });
    report.findings = LazyList<BookkeepingFinding>(s.order.size(), [state](size_t i) { return findingAt(*state, i); });
    summarise(s, report);
    return report;
}

bool cancelled(const BookkeepingOptions& options)
{
    return options.cancel && options.cancel->load();
}

}  // namespace

Result<BookkeepingReport> checkBookkeeping(const BookkeepingOptions& options)
{
    auto state = std::make_shared<CheckState>();
    CheckState& s = *state;
    s.strict = options.strict;
    Result<Bookkeeping> books =
        readBookkeeping(IntakeOptions{options.dsfinvk, options.maxTableSize, options.maxTotalSize}, s.raised);
    if (!books) return books.error();
    s.books = std::move(books).value();
    judgeDeclarations(s.books, s.raised);
    const ReceiptRows receiptRows = groupByReceipt(s.books);
    const RebuiltProcessData rebuilt = rebuildMissingProcessData(s.books, receiptRows);
    s.bookChecks = checkBooks(s.books, receiptRows, s.raised);
    s.books.releaseLines();
    VerifyOptions verify{options.jobs, {}, &rebuilt, options.cancel};
    if (options.progress) {
        verify.progress = [&](uint64_t done, uint64_t total) { options.progress({"bookkeeping", done, total}); };
    }
    verifyRows(s.books, verify, s.checks);
    if (cancelled(options)) return Error{AUDIT_CANCELLED};
    checkEncodings(s.books, verify, s.checks, s.raised);
    if (!options.tse.empty()) {
        TseExportOptions read{options.tse,   options.certificateFiles, options.trustDirectories, options.jobs, {},
                              options.cancel};
        if (options.progress) {
            read.progress = [&](const AuditProgress& p) { options.progress({"tse", p.bytesDone, p.bytesTotal}); };
        }
        Result<TseExport> tse = readTseExport(read);
        if (cancelled(options)) return Error{AUDIT_CANCELLED};
        if (!tse) return Error{"the TSE export cannot be read: " + tse.error().message};
        s.tse = std::move(tse).value();
        s.reconciliation = reconcileWithTse(s.books, s.checks, *s.tse, s.raised, &receiptRows);
        for (size_t i = 0; i < s.reconciliation.logs.size(); ++i) {
            if (s.reconciliation.logs[i] != LogState::Booked) s.unbookedLogs.push_back(i);
        }
    }
    reconcileBookkeeping(s.books, s.checks, s.tse ? &*s.tse : nullptr, s.raised, &receiptRows);
    judgeRows(s);
    orderFindings(s);
    return reportOf(state, options);
}

std::string_view rowVerdictName(RowVerdict verdict)
{
    switch (verdict) {
    case RowVerdict::Valid: return "valid";
    case RowVerdict::Invalid: return "invalid";
    case RowVerdict::Unsigned: return "unsigned";
    case RowVerdict::Unverifiable: return "unverifiable";
    }
    return "";
}

std::string_view matchStateName(MatchState state)
{
    switch (state) {
    case MatchState::Matched: return "matched";
    case MatchState::Differs: return "differs";
    case MatchState::Unbooked: return "unbooked";
    case MatchState::Unknown: return "unknown";
    case MatchState::Outside: return "outside";
    }
    return "";
}

std::string BookedTransaction::label() const
{
    if (row) return kasseId + "/" + bonId;
    return "TSE " + serialNumber.substr(0, 16) + ".../" +
           (transactionNumber ? std::to_string(*transactionNumber) : "?");
}

std::string BookedTransaction::logTime() const
{
    if (!logSeconds) return {};
    LogTime time;
    time.seconds = *logSeconds;
    time.fraction = logFraction;
    return time.iso();
}

int64_t coveredFrom(const BookkeepingReport& report)
{
    const auto first = std::min_element(report.periods.begin(), report.periods.end(),
                                        [](const CoveredPeriod& a, const CoveredPeriod& b) { return a.from < b.from; });
    return first == report.periods.end() ? 0 : first->from;
}

int64_t coveredTo(const BookkeepingReport& report)
{
    const auto last = std::max_element(report.periods.begin(), report.periods.end(),
                                       [](const CoveredPeriod& a, const CoveredPeriod& b) { return a.to < b.to; });
    return last == report.periods.end() ? 0 : last->to;
}

std::string_view BookkeepingReport::verdict() const
{
    return summary.errors ? "FAILED" : summary.warnings ? "PASSED WITH WARNINGS" : "PASSED";
}

}  // namespace tse
