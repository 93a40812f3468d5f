#ifndef TSE_CORE_AUDIT_H
#define TSE_CORE_AUDIT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "audit_report.h"
#include "parallel.h"
#include "result.h"

namespace tse {

struct AuditProgress {
    uint64_t logsDone = 0;
    uint64_t bytesDone = 0, bytesTotal = 0;
};

struct AuditOptions {
    std::vector<std::string> exports;
    std::vector<std::string> certificateFiles;  // besides the export's own
    std::vector<std::string> trustDirectories;  // trusted root certificates
    unsigned jobs = defaultJobs();
    bool strict = false;  // warnings count as errors
    size_t maxMemberSize = 16u << 20;
    // Logs that come before their TSE's certificate wait in memory up to
    // this many bytes; the rest are read a second time once every
    // certificate is known.
    size_t maxPendingBytes = 16u << 20;
    // Called from the reading thread, often; keep it cheap.
    std::function<void(const AuditProgress&)> progress;
    // Called on the verifying threads with every log that parses, once it
    // is judged, for checks that need more of a log than its record keeps
    // (the bookkeeping check compares processData and signatures).
    std::function<void(const LogMessage&, const LogRecord&)> inspect;
    // Set by another thread to stop the audit before the next member; it
    // then ends with AUDIT_CANCELLED as its error. Null: it runs to its end.
    const std::atomic<bool>* cancel = nullptr;
};

inline constexpr const char* AUDIT_CANCELLED = "the check was cancelled";

// Reads every export once, verifies each log on `jobs` threads while the
// next members are read, and applies the integrity rules. An error when an
// export or a given certificate cannot be opened at all, or no export
// holds a log.
Result<AuditReport> auditExport(const AuditOptions& options);

}  // namespace tse

#endif
