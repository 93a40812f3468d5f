#include "audit_rules.h"

#include <algorithm>
#include <map>
#include <set>

#include "text.h"

namespace tse {
namespace {

constexpr size_t MAX_RANGES_SHOWN = 30;
constexpr size_t MAX_FILES_PER_FINDING = 200;

struct Findings {
    std::vector<Finding>& list;

    void add(FindingCode code, std::string message, std::vector<std::string> files, std::string_view source = {})
    {
        if (files.size() > MAX_FILES_PER_FINDING) files.resize(MAX_FILES_PER_FINDING);
        list.push_back(Finding{findingSeverity(code), code, std::move(message), std::move(files), std::string(source)});
    }
};

constexpr size_t NO_ISSUER = SIZE_MAX;

bool validAt(const std::optional<int64_t>& notBefore, const std::optional<int64_t>& notAfter, int64_t seconds)
{
    return !(notBefore && seconds < *notBefore) && !(notAfter && seconds > *notAfter);
}

std::string shortSerial(std::string_view serial)
{
    return "TSE " + std::string(serial.substr(0, 16)) + (serial.size() > 16 ? "..." : "");
}

bool isOperation(std::string_view operation, std::string_view word)
{
    return operation.size() >= word.size() && equalsIgnoringCase(operation.substr(0, word.size()), word);
}

bool isUpdateTime(const LogRecord& log)
{
    return log.type == LogType::System && equalsIgnoringCase(log.operation, "updateTime");
}

// Only the logs that something is wrong with are read whole.
void perLogFindings(const AuditReport& report, Findings& out)
{
    std::map<std::string, std::vector<std::string>> withoutCertificate;
    LogRecord log;
    for (size_t i = 0; i < report.logs.size(); ++i) {
        const LogTable::Row& row = report.logs.row(i);
        if (row.verdict == static_cast<uint8_t>(LogVerdict::Valid) && row.nameProblem == 0) continue;
        report.logs.read(i, log);
        if (log.verdict == LogVerdict::Invalid) {
            out.add(FindingCode::SignatureInvalid, log.file + ": " + log.reason, {log.file}, log.source);
        } else if (log.verdict == LogVerdict::Unreadable) {
            out.add(FindingCode::LogUnreadable, log.file + ": " + log.reason, {log.file}, log.source);
        } else if (log.verdict == LogVerdict::NoCertificate) {
            withoutCertificate[std::string(log.serialNumber)].push_back(log.file);
        }
        if (!log.nameProblem.empty()) {
            out.add(FindingCode::NameMismatch, log.file + ": " + log.nameProblem, {log.file}, log.source);
        }
    }
    for (auto& [serial, files] : withoutCertificate) {
        // The message is made before the files move into the finding.
        std::string message = counted(files.size(), "log", "logs") + " of " + shortSerial(serial) +
                              ": no certificate has a key whose SHA-256 is the serial number " + serial;
        out.add(FindingCode::CertificateMissing, std::move(message), std::move(files));
    }
}

// The logs of one TSE, as indices into the report's table, in the order of
// their counters. Rows are read as they are; a whole LogRecord is made only
// for a log a finding names.
struct TseLogs {
    const LogTable& table;
    std::vector<size_t> indices;

    size_t size() const { return indices.size(); }
    const LogTable::Row& row(size_t i) const { return table.row(indices[i]); }
    LogRecord record(size_t i) const { return table[indices[i]]; }
    std::string file(size_t i) const { return table.file(indices[i]); }
};

void counterFindings(std::string_view serial, const TseLogs& logs, const std::set<uint64_t>& extraCounters,
                     Findings& out)
{
    // The logs come sorted by counter, so the counters present are those
    // and the few extra ones merged in order; no set of a million counters.
    std::vector<std::pair<uint64_t, uint64_t>> gaps;
    uint64_t missing = 0;
    std::optional<uint64_t> first, last;
    const auto present = [&](uint64_t counter) {
        if (last && counter > *last + 1) {
            gaps.emplace_back(*last + 1, counter - 1);
            missing += counter - *last - 1;
        }
        if (!first) first = counter;
        if (!last || counter > *last) last = counter;
    };
    auto extra = extraCounters.begin();
    for (size_t i = 0; i < logs.size(); ++i) {
        const uint64_t counter = logs.row(i).counter;
        for (; extra != extraCounters.end() && *extra <= counter; ++extra) present(*extra);
        present(counter);
        size_t j = i;
        while (j + 1 < logs.size() && logs.row(j + 1).counter == counter) ++j;
        if (j > i) {
            std::vector<std::string> files;
            for (size_t k = i; k <= j; ++k) files.push_back(logs.file(k));
            out.add(FindingCode::CounterDuplicate,
                    shortSerial(serial) + ": " + std::to_string(j - i + 1) +
                        " different logs carry signature counter " + std::to_string(counter),
                    std::move(files));
            i = j;
        }
    }
    for (; extra != extraCounters.end(); ++extra) present(*extra);
    if (gaps.empty()) return;
    out.add(FindingCode::CounterGap,
            shortSerial(serial) + ": " + counted(missing, "signature counter", "signature counters") +
                " missing between " + std::to_string(*first) + " and " + std::to_string(*last) + ": " +
                counterRanges(gaps, MAX_RANGES_SHOWN),
            {});
}

void timeFindings(const TseLogs& logs, Findings& out)
{
    constexpr uint8_t HAS_SECONDS = LogTable::Row::HAS_SECONDS;
    for (size_t i = 1; i < logs.size(); ++i) {
        const LogTable::Row& a = logs.row(i - 1);
        const LogTable::Row& b = logs.row(i);
        if (!(a.present & HAS_SECONDS) || !(b.present & HAS_SECONDS) || a.counter == b.counter) continue;
        if (b.seconds >= a.seconds) continue;
        const LogRecord before = logs.record(i - 1);
        const LogRecord log = logs.record(i);
        // A clock set back is legal when the TSE logs it with updateTime.
        if (isUpdateTime(before) || isUpdateTime(log)) continue;
        out.add(FindingCode::TimeRegression,
                log.file + ": its log time " + log.logTime()->iso() + " is earlier than " + before.logTime()->iso() +
                    " of signature counter " + std::to_string(*before.counter),
                {before.file, log.file});
    }
}

// Transactions at the export's edges are left alone: those that started
// before it (no Start, numbered below every Start seen) and those still
// open at its end (no Finish, numbered above every Finish seen). The logs
// are sorted by transaction number as positions, not gathered in a map of
// lists: a busy year holds hundreds of thousands of transactions.
void transactionFindings(std::string_view serial, const TseLogs& logs, Findings& out)
{
    std::vector<size_t> positions;
    for (size_t i = 0; i < logs.size(); ++i) {
        const LogTable::Row& row = logs.row(i);
        if (row.type == static_cast<uint8_t>(LogType::Transaction) && (row.present & LogTable::Row::HAS_TRANSACTION)) {
            positions.push_back(i);
        }
    }
    const auto number = [&](size_t i) { return logs.row(i).transactionNumber; };
    std::stable_sort(positions.begin(), positions.end(), [&](size_t a, size_t b) { return number(a) < number(b); });
    struct Span {
        size_t begin, end;
        bool start, finish;
    };
    const auto spanAt = [&](size_t begin) {
        Span span{begin, begin, false, false};
        for (; span.end < positions.size() && number(positions[span.end]) == number(positions[begin]); ++span.end) {
            const std::string_view operation = logs.table.text(logs.row(positions[span.end]).operation);
            span.start |= isOperation(operation, "start");
            span.finish |= isOperation(operation, "finish");
        }
        return span;
    };
    std::optional<uint64_t> firstStarted, lastFinished;
    for (size_t i = 0; i < positions.size();) {
        const Span span = spanAt(i);
        if (span.start && !firstStarted) firstStarted = number(positions[i]);
        if (span.finish) lastFinished = number(positions[i]);
        i = span.end;
    }
    for (size_t i = 0; i < positions.size();) {
        const Span span = spanAt(i);
        i = span.end;
        const uint64_t transaction = number(positions[span.begin]);
        std::string problem;
        if (!span.start && firstStarted && transaction > *firstStarted) problem = "has no Start";
        else if (span.start && !span.finish && lastFinished && transaction < *lastFinished)
            problem = "has a Start but no Finish";
        if (problem.empty()) continue;
        std::vector<std::string> files;
        for (size_t k = span.begin; k < span.end; ++k) files.push_back(logs.file(positions[k]));
        out.add(FindingCode::TransactionIncomplete,
                shortSerial(serial) + ": transaction " + std::to_string(transaction) + " " + problem, std::move(files));
    }
}

void perTseFindings(const AuditReport& report, Findings& out)
{
    const LogTable& table = report.logs;
    std::map<std::string_view, TseLogs> byTse;
    std::set<uint64_t> unreadableCounters;
    for (size_t i = 0; i < table.size(); ++i) {
        const LogTable::Row& row = table.row(i);
        if (!row.hasCounter()) continue;
        if (row.serialNumber != 0)
            byTse.try_emplace(table.text(row.serialNumber), TseLogs{table, {}}).first->second.indices.push_back(i);
        else unreadableCounters.insert(row.counter);
    }
    for (auto& [serial, logs] : byTse) {
        std::stable_sort(logs.indices.begin(), logs.indices.end(),
                         [&](size_t a, size_t b) { return table.row(a).counter < table.row(b).counter; });
        // An unreadable log names its counter only in its file name; with
        // one TSE in the export it is that TSE's, and not a gap.
        counterFindings(serial, logs, byTse.size() == 1 ? unreadableCounters : std::set<uint64_t>{}, out);
        timeFindings(logs, out);
        transactionFindings(serial, logs, out);
    }
}

void certificateFindings(const AuditReport& report, bool trustGiven, Findings& out)
{
    std::map<std::string, const CertificateRecord*, std::less<>> bySerial;
    for (const CertificateRecord& certificate : report.certificates) {
        bySerial.emplace(certificate.serialNumber, &certificate);
        if (trustGiven && certificate.chain.status != ChainStatus::Trusted) {
            out.add(FindingCode::CertificateChain,
                    certificate.file + ": the chain is " + std::string(chainStatusName(certificate.chain.status)) +
                        ": " + certificate.chain.reason,
                    {certificate.file});
        }
    }
    // Keyed by the certificate and the place in its chain: NO_ISSUER for
    // the certificate itself, else the index of the CA above it.
    std::map<std::pair<const CertificateRecord*, size_t>, std::vector<std::string>> outside;
    const LogTable& logs = report.logs;
    uint32_t lastSerial = 0;  // consecutive logs nearly always share their TSE
    const CertificateRecord* certificate = nullptr;
    for (size_t n = 0; n < logs.size(); ++n) {
        const LogTable::Row& row = logs.row(n);
        if (row.serialNumber != lastSerial || n == 0) {
            const auto found = bySerial.find(logs.text(row.serialNumber));
            certificate = found == bySerial.end() ? nullptr : found->second;
            lastSerial = row.serialNumber;
        }
        if (certificate == nullptr || !(row.present & LogTable::Row::HAS_SECONDS)) continue;
        const CertificateRecord& c = *certificate;
        if (!validAt(c.notBefore, c.notAfter, row.seconds)) outside[{&c, NO_ISSUER}].push_back(logs.file(n));
        for (size_t i = 0; i < c.chain.issuers.size(); ++i) {
            const ChainIssuer& issuer = c.chain.issuers[i];
            if (!validAt(issuer.notBefore, issuer.notAfter, row.seconds)) outside[{&c, i}].push_back(logs.file(n));
        }
    }
    for (auto& [where, files] : outside) {
        const CertificateRecord& c = *where.first;
        const bool self = where.second == NO_ISSUER;
        const std::optional<int64_t> from = self ? c.notBefore : c.chain.issuers[where.second].notBefore;
        const std::optional<int64_t> to = self ? c.notAfter : c.chain.issuers[where.second].notAfter;
        const std::string what = self ? c.file : "the CA " + c.chain.issuers[where.second].subject + " above " + c.file;
        std::string message = counted(files.size(), "log lies", "logs lie") + " outside the validity of " + what +
                              " (" + (from ? isoSeconds(*from) : "?") + " to " + (to ? isoSeconds(*to) : "?") + ")";
        out.add(FindingCode::CertificateChain, std::move(message), std::move(files));
    }
}

}  // namespace

std::string counterRanges(const std::vector<std::pair<uint64_t, uint64_t>>& ranges, size_t maxShown)
{
    std::string text;
    for (size_t i = 0; i < ranges.size() && i < maxShown; ++i) {
        if (!text.empty()) text += ", ";
        text += std::to_string(ranges[i].first);
        if (ranges[i].second != ranges[i].first) text += "-" + std::to_string(ranges[i].second);
    }
    if (ranges.size() > maxShown) text += " and " + std::to_string(ranges.size() - maxShown) + " more ranges";
    return text;
}

void applyIntegrityRules(AuditReport& report, bool trustGiven)
{
    Findings out{report.findings};
    perLogFindings(report, out);
    perTseFindings(report, out);
    certificateFindings(report, trustGiven, out);
}

}  // namespace tse
