#ifndef TSE_CORE_DSFINVK_TSE_EXPORT_H
#define TSE_CORE_DSFINVK_TSE_EXPORT_H

// The TSE export as the bookkeeping check needs it: audited exactly as
// `tse-check audit` audits it (its findings count here too), and beside
// the audit's report the Start and Finish logs of every transaction,
// small enough for a year of sales.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "audit.h"
#include "dsfinvk_model.h"
#include "result.h"

namespace tse {

struct TseFinish {
    uint32_t serial = 0;  // index into TseExport::serials
    uint64_t transaction = 0, counter = 0;
    int64_t seconds = 0;
    uint64_t ordinal = 0;        // of its record in the audit's log table
    uint64_t signatureHash = 0;  // of r || s
    RecordPool::Ref processData = 0;
    uint32_t fraction = 0, clientId = 0, processType = 0;  // in TseExport::texts
    LogVerdict verdict = LogVerdict::Unreadable;
};

struct TseStart {
    uint32_t serial = 0;
    uint64_t transaction = 0;
    int64_t seconds = 0;
};

struct TseExport {
    AuditReport audit;
    std::vector<std::string> serials;  // hex, as the logs name them
    std::vector<TseFinish> finishes;   // by (serial, transaction)
    std::vector<TseStart> starts;      // by (serial, transaction)
    RecordPool pool;
    TextSet texts;

    std::optional<uint32_t> serialIndex(std::string_view hex) const;
    // The Finish log of the transaction, or nullptr.
    const TseFinish* finish(uint32_t serial, uint64_t transaction) const;
    std::optional<int64_t> startSeconds(uint32_t serial, uint64_t transaction) const;
    // The lowest transaction number that has a Start log: those below it
    // began before the export did.
    std::optional<uint64_t> firstStarted(uint32_t serial) const;
    std::string_view processData(const TseFinish& log) const { return pool.field(log.processData, 0); }
    std::string file(const TseFinish& log) const;  // the member's name
};

struct TseExportOptions {
    std::vector<std::string> exports;
    std::vector<std::string> certificateFiles;
    std::vector<std::string> trustDirectories;
    unsigned jobs = 1;
    std::function<void(const AuditProgress&)> progress;
    const std::atomic<bool>* cancel = nullptr;  // as AuditOptions::cancel
};

// The export audited, with its transaction logs; an error when it cannot
// be read at all.
Result<TseExport> readTseExport(const TseExportOptions& options);

// The hash under which the Finish logs keep their signature, for rows to
// compare theirs with.
uint64_t signatureHash(ByteView plainSignature);

}  // namespace tse

#endif
