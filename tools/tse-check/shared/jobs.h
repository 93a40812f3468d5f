#ifndef TSE_CHECK_SHARED_JOBS_H
#define TSE_CHECK_SHARED_JOBS_H

// The checks of audit, dsfinvk and receipt for callers other than their
// command line (tse-check serve): the same code and the same reports,
// written through the same writers, without the console. Each refuses
// (Refusal) exactly as its command does. Defined in the subcommands' rooms.

#include <atomic>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "audit.h"
#include "dsfinvk_check.h"
#include "parallel.h"
#include "shared/options.h"

namespace tsecheck {

// The audit's report, or a refusal ("Cannot audit: ...").
tse::AuditReport runAudit(const tse::AuditOptions& options);
// Writes the reports asked for, as --json, --csv and --html do, and, given
// a stream, the text summary; returns the exit status.
int writeAuditReports(const tse::AuditReport& report, const tse::AuditOptions& options, const ReportPaths& reports,
                      std::ostream* summary);

tse::BookkeepingReport runBookkeeping(const tse::BookkeepingOptions& options);
int writeBookkeepingReports(const tse::BookkeepingReport& report, const tse::BookkeepingOptions& options,
                            const ReportPaths& reports, std::ostream* summary);

struct ReceiptOptions {
    std::vector<std::string> texts;
    std::vector<std::string> lists;
    std::vector<std::string> pictures;
    bool json = false;
    bool explain = false;
    int64_t timeWindow = 7200;
    unsigned jobs = tse::defaultJobs();
    // Pictures read, of all; called from the reading threads.
    std::function<void(uint64_t done, uint64_t total)> progress;
    // Stops the batch before the next picture and before explaining.
    const std::atomic<bool>* cancel = nullptr;
};

struct ReceiptBatch {
    nlohmann::json document;          // what --json prints
    std::vector<std::string> errors;  // the [ERROR] lines: unreadable files, pictures without a code
    int status = 0;                   // the exit status
};
ReceiptBatch checkReceipts(const ReceiptOptions& options);

}  // namespace tsecheck

#endif
