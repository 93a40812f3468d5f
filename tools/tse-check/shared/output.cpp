#include "shared/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>

#include "text.h"

#include "shared/inputs.h"

namespace tsecheck {
namespace {

// Why the path cannot take a report, or nothing when it can: an existing
// file must be writable, a new one needs a folder it can be made in.
std::optional<std::string> unwritable(const std::string& path)
{
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::file_status status = fs::status(path, ignored);
    if (fs::is_directory(status)) return std::string(std::strerror(EISDIR));
    if (fs::exists(status)) {
        if (::access(path.c_str(), W_OK) != 0) return std::string(std::strerror(errno));
        return std::nullopt;
    }
    const std::string folder = fs::path(path).parent_path().string();
    if (::access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) != 0) return std::string(std::strerror(errno));
    return std::nullopt;
}

[[noreturn]] void refuseToWrite(const std::string& path, const std::string& reason)
{
    refuse(EXIT_BAD_INPUT, "Cannot write " + tse::escapeText(path) + ": " + reason);
}

}  // namespace

void checkReportPaths(const ReportPaths& paths)
{
    std::vector<std::string> given;
    for (const std::string* path : {&paths.json, &paths.csv, &paths.html}) {
        if (!path->empty()) given.push_back(*path);
    }
    std::sort(given.begin(), given.end());
    const auto twice = std::adjacent_find(given.begin(), given.end());
    if (twice != given.end()) {
        refuse(EXIT_BAD_INPUT, "--json, --csv and --html cannot share " +
                                   (*twice == "-" ? "standard output; write all but one to files"
                                                  : "the file " + tse::escapeText(*twice)) +
                                   "\nRun with --help for more information.");
    }
    for (const std::string& path : given) {
        if (path == "-") continue;
        if (const std::optional<std::string> reason = unwritable(path)) refuseToWrite(path, *reason);
    }
}

bool anyToStandardOutput(const ReportPaths& paths)
{
    return paths.json == "-" || paths.csv == "-" || paths.html == "-";
}

void writeTo(const std::string& path, const std::function<void(std::ostream&)>& write)
{
    if (path == "-") {
        write(std::cout);
        std::cout.flush();
        return;
    }
    errno = 0;
    std::ofstream file(path, std::ios::binary);
    if (!file) refuseToWrite(path, errno ? std::strerror(errno) : "it cannot be opened");
    // The stream keeps no reason of its own; the failed write leaves it in errno.
    errno = 0;
    write(file);
    if (!file.flush()) refuseToWrite(path, errno ? std::strerror(errno) : "writing failed");
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
