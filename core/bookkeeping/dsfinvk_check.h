#ifndef TSE_CORE_DSFINVK_CHECK_H
#define TSE_CORE_DSFINVK_CHECK_H

// The bookkeeping check: a register's DSFinV-K export read (intake), each
// row's signature checked (verification), and the whole held against its
// receipts and the TSE export (reconciliation). It says PASSED only when
// every sale the TSE signed for the registers and periods the bookkeeping
// covers is booked, unaltered, every booked sale is signed or an explained
// TSE failure, and both sides were read whole.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "dsfinvk_amounts.h"
#include "dsfinvk_report.h"
#include "parallel.h"
#include "result.h"

namespace tse {

struct BookkeepingProgress {
    std::string_view stage;  // "bookkeeping", "tse"
    uint64_t done = 0, total = 0;
};

struct BookkeepingOptions {
    std::vector<std::string> dsfinvk;  // folders, ZIP or TAR archives, read as one
    std::vector<std::string> tse;      // TSE exports, read as `audit` reads them; empty: the bookkeeping alone
    std::vector<std::string> certificateFiles;
    std::vector<std::string> trustDirectories;
    unsigned jobs = defaultJobs();
    bool strict = false;               // warnings count as errors
    size_t maxTableSize = 256u << 20;  // a CSV file above this is refused (a million rows stay below)
    size_t maxTotalSize = 1u << 30;    // all tables together, uncompressed
    // Called often from the working threads; keep it cheap.
    std::function<void(const BookkeepingProgress&)> progress;
};

// An error ("cannot check") for an export that cannot be read, one without
// its TSE tables, or a TSE export that cannot be read at all.
Result<BookkeepingReport> checkBookkeeping(const BookkeepingOptions& options);

}  // namespace tse

#endif
