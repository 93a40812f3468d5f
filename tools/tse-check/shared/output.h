#ifndef TSE_CHECK_SHARED_OUTPUT_H
#define TSE_CHECK_SHARED_OUTPUT_H

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "shared/options.h"

namespace tsecheck {

// Refuses, before any work is done: two reports to standard output or to
// one file (a usage error), or a path that cannot be written (the path and
// the system's reason), so that an hour's audit is not lost to a typo.
void checkReportPaths(const ReportPaths& paths);
// Whether a report takes standard output; the text summary stays off it then.
bool anyToStandardOutput(const ReportPaths& paths);
// Writes through `write` into the file, or to standard output for "-".
// Refuses naming the path (escaped) and the system's reason when the file
// cannot be opened or written.
void writeTo(const std::string& path, const std::function<void(std::ostream&)>& write);

// Rows of columns, every column but the last padded to its widest cell, so
// that people can scan verdicts and counters down a column. A control
// character or a byte that is not UTF-8 in a cell is escaped, so that no
// input drives the terminal.
void printAligned(std::ostream& out, const std::vector<std::vector<std::string>>& rows);

// Every string in the document (keys too) as valid UTF-8 without control
// characters (tse::escapeUnsafe): the last guard before a JSON writer,
// which refuses anything else.
void makeJsonSafe(nlohmann::json& document);

// One CSV cell: control characters escaped, quoted when it holds a comma,
// quote or line end, and prefixed with ' when it starts with =, +, -, @, a
// tab or a carriage return, so that a spreadsheet shows it as text instead
// of running it as a formula.
std::string csvCell(std::string_view text);

}  // namespace tsecheck

#endif
