#ifndef TSE_CORE_DSFINVK_CHECK_H
#define TSE_CORE_DSFINVK_CHECK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    bool strict = false;  // warnings count as errors
    size_t maxTableSize = 256u << 20;  // a CSV file above this is refused (a million rows stay below)
    // Called often from the reading thread; keep it cheap.
    std::function<void(const BookkeepingProgress&)> progress;
    // Set by another thread to stop the check between rows and members; it
    // then ends with AUDIT_CANCELLED as its error. Null: it runs to its end.
    const std::atomic<bool>* cancel = nullptr;
};

// Reads the bookkeeping export, verifies every signed row from its own data
// with the receipt rebuild, and, given a TSE export, matches the two by
// (TSE serial number, transaction number).
// An error for an export that cannot be read, or one without its TSE tables.
Result<BookkeepingReport> checkBookkeeping(const BookkeepingOptions& options);

// The UTC seconds of a wall-clock time in Germany (CET, CEST from the last
// Sunday of March to the last Sunday of October, 01:00 UTC each).
int64_t germanLocalToUtc(int64_t localSeconds);

// Kassenbeleg-V1 processData: the gross amounts of the five VAT rates and
// the payments, in hundredths; nullopt when it does not have that form.
struct ReceiptAmounts {
    int64_t vat[5] = {0, 0, 0, 0, 0};
    struct Payment {
        bool cash = false;
        std::string currency;  // "" for the base currency
        int64_t amount = 0;
    };
    std::vector<Payment> payments;
};
std::optional<ReceiptAmounts> parseReceiptAmounts(std::string_view processData);

}  // namespace tse

#endif
