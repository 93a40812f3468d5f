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
};

struct ExplainOptions {
    int64_t timeWindow = 7200;  // seconds either side of the printed log time
    unsigned jobs = defaultJobs();
};

// Tries the changes real receipts suffer: time zones, a clock off by up to
// the window, start and log time swapped, case, trailing blanks, line ends,
// character encoding, another hash of the family, numbers off by one.
Explanation explainReceipt(const Receipt& receipt, const ExplainOptions& options = {});

}  // namespace tse

#endif
