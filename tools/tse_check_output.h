#ifndef TSE_CHECK_OUTPUT_H
#define TSE_CHECK_OUTPUT_H

#include <ostream>
#include <string>
#include <vector>

namespace tsecheck {

// "NO-CERTIFICATE" -> "no-certificate": the JSON spelling of a verdict word.
std::string lowerWord(const std::string& word);

// Rows of columns, every column but the last padded to its widest cell, so
// that people can scan verdicts and counters down a column.
void printAligned(std::ostream& out, const std::vector<std::vector<std::string>>& rows);

}  // namespace tsecheck

#endif
