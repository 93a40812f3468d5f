#ifndef TSE_CORE_RECEIPT_EXPLAIN_H
#define TSE_CORE_RECEIPT_EXPLAIN_H

#include <cstdint>
#include <string>
#include <vector>

#include "parallel.h"
#include "receipt_text.h"

namespace tse {

// Why a receipt's signature fails: the one change under which it holds.
// ECDSA does not hold by chance, so a change found is what the TSE signed.
struct Explanation {
    bool found = false;
    std::string change;       // "log time off by +1367 s"
    std::string field;        // "logTime"
    std::string shownValue;   // as the receipt prints it
    std::string signedValue;  // what the TSE signed
    std::string sentence;     // the whole finding, or that nothing was found
    std::string form;         // the rebuild under which the signature held
    std::vector<std::string> tried;
    uint64_t checks = 0;         // signature checks spent
    bool cutShort = false;       // the work bound ended the search before it was through
    int64_t searchedWindow = 0;  // seconds either side of the log time searched in full
};

// The work bounds, in signature checks: one receipt may take enough to
// search the default window in every message form (some 1.5 s of one core
// on P-256, 4.5 s on brainpoolP256r1, where a check is a hash and one
// multiple of G), a batch all its receipts together (some 8 s of one core
// on P-256) shared out evenly.
constexpr uint64_t MAX_EXPLAIN_CHECKS = 150000;
constexpr uint64_t MAX_EXPLAIN_BATCH_CHECKS = 800000;
constexpr int64_t MAX_TIME_WINDOW = 7 * 86400;

struct ExplainOptions {
    int64_t timeWindow = 7200;  // seconds either side of the printed log time, at most MAX_TIME_WINDOW
    unsigned jobs = defaultJobs();
    uint64_t maxChecks = MAX_EXPLAIN_CHECKS;
};

// Tries the changes real receipts suffer: time zones, a clock off by up to
// the window, start and log time swapped, case, trailing blanks, line ends,
// character encoding, another hash of the family, numbers off by one.
// The cheap changes come first, the log time window last, nearest first;
// when the bound ends the search, the explanation says so and how far the
// window was searched.
Explanation explainReceipt(const Receipt& receipt, const ExplainOptions& options = {});

// A batch, one receipt after another (each on every core), within
// MAX_EXPLAIN_BATCH_CHECKS together: each gets an even share of what is left,
// at most options.maxChecks.
std::vector<Explanation> explainReceipts(const std::vector<const Receipt*>& receipts,
                                         const ExplainOptions& options = {},
                                         uint64_t batchChecks = MAX_EXPLAIN_BATCH_CHECKS);

}  // namespace tse

#endif
