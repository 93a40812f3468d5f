#include "tse_check_output.h"

#include <algorithm>
#include <cctype>

namespace tsecheck {

std::string lowerWord(const std::string& word)
{
    std::string out = word;
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

void printAligned(std::ostream& out, const std::vector<std::vector<std::string>>& rows)
{
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        for (size_t i = 0; i + 1 < row.size(); ++i) {
            if (widths.size() <= i) widths.push_back(0);
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
    out.flush();
}

}  // namespace tsecheck
