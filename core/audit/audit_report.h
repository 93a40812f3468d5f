#ifndef TSE_CORE_AUDIT_REPORT_H
#define TSE_CORE_AUDIT_REPORT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "certificate_chain.h"
#include "info_csv.h"
#include "log_judgement.h"
#include "log_message.h"
#include "log_time.h"

namespace tse {

enum class Severity { Error, Warning };
std::string_view severityName(Severity severity);  // "error", "warning"

// Values that repeat from log to log (serial numbers, algorithms,
// operations, client IDs) are kept once; records point into it. The set
// moves with the report without moving its strings.
class StringPool {
public:
    std::string_view intern(std::string_view text);

private:
    std::deque<std::string> strings_;  // never moved, so views stay valid
    std::unordered_set<std::string_view> index_;
};

// What the audit keeps of one log once it is verified: enough for every
// report and integrity rule, but not the log itself, so that memory does
// not grow with the size of the logs. The views point into the report's
// pool.
struct LogRecord {
    std::string file;    // the member name as in the archive, escaped (escapeText)
    std::string_view source;  // the export it came from, as given
    uint64_t ordinal = 0;
    std::optional<LogType> type;  // from the content, or the name when unreadable
    LogVerdict verdict = LogVerdict::Unreadable;
    std::optional<uint64_t> counter;
    std::string_view serialNumber;  // hex; empty when unreadable
    std::string_view algorithm;
    std::optional<int64_t> seconds;
    std::string fraction;
    std::optional<TimeFormat> timeFormat;
    std::optional<uint64_t> transactionNumber;
    std::string_view operation;
    std::string_view clientId;
    std::string_view processType;
    std::string reason;
    std::string nameProblem;  // how the name disagrees with the content

    std::optional<LogTime> logTime() const;
};

struct Finding {
    Severity severity = Severity::Warning;
    std::string code;  // "signature-invalid", "counter-gap", ...
    std::string message;
    std::vector<std::string> files;
    std::string source;  // the export it concerns; empty when it spans several
};

struct CertificateRecord {
    std::string file;
    std::string serialNumber;  // SHA-256 of the key's point, hex
    std::string subject, issuer;
    std::optional<int64_t> notBefore, notAfter;
    std::string curve;
    std::string keyProblem;  // why its key cannot check logs, e.g. an unsupported curve
    ChainJudgement chain;
    bool given = false;  // from --cert rather than the export
    size_t copies = 1;   // identical certificates met, counted once
};

struct AuditSummary {
    size_t logs = 0, valid = 0, invalid = 0, noCertificate = 0, unreadable = 0;
    size_t transaction = 0, system = 0, audit = 0;
    size_t duplicatesSkipped = 0;  // members with the bytes of one seen before
    size_t errors = 0, warnings = 0;
};

// One of the exports audited together, with what it holds.
struct AuditedExport {
    std::string path;  // the archive (first part), directory or file, as given
    bool standalone = false;  // a log file given by itself, which carries no info.csv
    size_t logMembers = 0;
    std::optional<InfoCsv> info;
    std::string infoProblem;  // why its info.csv cannot be read
};

struct AuditReport {
    std::vector<std::string> exports;
    std::vector<AuditedExport> audited;  // one per export, in the order given
    AuditSummary summary;
    std::optional<InfoCsv> info;  // the first export's that has one
    std::string infoProblem;
    std::vector<CertificateRecord> certificates;
    // In reading order; a deque grows without copying what it holds, which
    // keeps the peak low on exports of a hundred thousand logs.
    std::deque<LogRecord> logs;
    StringPool strings;  // what the logs' views point to
    std::vector<Finding> findings;
};

}  // namespace tse

#endif
