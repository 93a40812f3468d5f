#include "shared/output.h"

#include <algorithm>
#include <cctype>

#include "text.h"

namespace tsecheck {

std::string lowerWord(const std::string& word)
{
    std::string out = word;
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

void printAligned(std::ostream& out, const std::vector<std::vector<std::string>>& unsafeRows)
{
    std::vector<std::vector<std::string>> escaped;
    const bool safe = std::all_of(unsafeRows.begin(), unsafeRows.end(), [](const std::vector<std::string>& row) {
        return std::all_of(row.begin(), row.end(), [](const std::string& cell) { return tse::isSafeText(cell); });
    });
    if (!safe) {
        escaped = unsafeRows;
        for (auto& row : escaped) {
            for (std::string& cell : row) cell = tse::escapeUnsafe(cell);
        }
    }
    const std::vector<std::vector<std::string>>& rows = safe ? unsafeRows : escaped;
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

void makeJsonSafe(nlohmann::json& document)
{
    if (document.is_string()) {
        const std::string& text = document.get_ref<const std::string&>();
        if (!tse::isSafeText(text)) document = tse::escapeUnsafe(text);
    } else if (document.is_array()) {
        for (nlohmann::json& item : document) makeJsonSafe(item);
    } else if (document.is_object()) {
        nlohmann::json safe = nlohmann::json::object();
        for (auto it = document.begin(); it != document.end(); ++it) {
            makeJsonSafe(it.value());
            safe[tse::isSafeText(it.key()) ? it.key() : tse::escapeUnsafe(it.key())] = std::move(it.value());
        }
        document = std::move(safe);
    }
}

std::string csvCell(std::string_view text)
{
    std::string cell = tse::isSafeText(text) ? std::string(text) : tse::escapeUnsafe(text);
    if (!cell.empty() && std::string_view("=+-@\t\r").find(cell.front()) != std::string_view::npos) {
        cell.insert(cell.begin(), '\'');
    }
    if (cell.find_first_of(",\"\n\r") == std::string::npos) return cell;
    std::string quoted = "\"";
    for (char c : cell) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

}  // namespace tsecheck
