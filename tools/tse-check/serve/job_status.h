#ifndef TSE_CHECK_SERVE_JOB_STATUS_H
#define TSE_CHECK_SERVE_JOB_STATUS_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "serve/jobs.h"

namespace tsecheck::serve {

// What GET /api/jobs/ID says of a job beside its result: kind, state,
// progress, files and, once it is over,, exit status, error, the text
// summaries and where its documents are.
nlohmann::json jobStatus(const Job& job);
// The status as text; bytes that are no UTF-8 become U+FFFD.
std::string dumpStatus(const nlohmann::json& status);

// The documents that make a finished job's result in the API: the check's
// own JSON as "result" and, for an audit with the bookkeeping, the
// bookkeeping's JSON as "bookkeeping".
struct ResultPart {
    std::string key, document;
};
std::vector<ResultPart> resultParts(const Job& job);

// "PASSED", "PASSED WITH WARNINGS", "FAILED": the first words of a text summary.
std::string verdictOf(const std::string& summary);

}  // namespace tsecheck::serve

#endif
