#include "info_csv.h"

#include <string_view>

namespace tse {
namespace {

constexpr size_t MAX_FIELDS_PER_LINE = 64;

std::string trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const size_t last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

// One CSV line into fields; `at` ends after the line's end. Quotes follow
// the usual rules ("" inside quotes is one quote); bare fields lose the
// blanks around them, as some devices put a blank after each comma.
std::optional<std::vector<std::string>> csvLine(std::string_view text, size_t& at, std::string& error)
{
    std::vector<std::string> fields;
    std::string field;
    bool quoted = false, wasQuoted = false;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        if (quoted) {
            if (c != '"') field += c;
            else if (at + 1 < text.size() && text[at + 1] == '"') field += text[++at];
            else quoted = false;
        } else if (c == '"' && trimmed(field).empty()) {
            quoted = wasQuoted = true;
            field.clear();
        } else if (c == ',' || c == '\n' || c == '\r') {
            fields.push_back(wasQuoted ? field : trimmed(field));
            field.clear();
            wasQuoted = false;
            if (c != ',') break;
        } else {
            field += c;
        }
        if (fields.size() > MAX_FIELDS_PER_LINE) {
            error = "a line has more than " + std::to_string(MAX_FIELDS_PER_LINE) + " fields";
            return std::nullopt;
        }
    }
    if (quoted) {
        error = "a quoted field is not closed";
        return std::nullopt;
    }
    if (at >= text.size()) fields.push_back(wasQuoted ? field : trimmed(field));
    if (at < text.size() && text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n') ++at;
    ++at;
    return fields;
}

bool isKey(const std::string& field)
{
    return field.size() > 1 && field.back() == ':';
}

// Pairs each "key:" field with the value after it (empty when another key
// or the line's end follows); padding fields are skipped.
std::optional<InfoRecord> record(const std::vector<std::string>& fields, std::string& error)
{
    InfoRecord out;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].empty()) continue;
        if (!isKey(fields[i])) {
            error = "the field \"" + fields[i] + "\" follows no \"name:\" field";
            return std::nullopt;
        }
        std::string key = fields[i].substr(0, fields[i].size() - 1);
        const bool hasValue = i + 1 < fields.size() && !isKey(fields[i + 1]);
        out.emplace_back(std::move(key), hasValue ? fields[++i] : std::string());
    }
    return out;
}

}  // namespace

Result<InfoCsv> parseInfoCsv(ByteView data)
{
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    InfoCsv info;
    std::string error;
    for (size_t at = 0; at < text.size();) {
        const auto fields = csvLine(text, at, error);
        if (!fields) return Error{error, {}};
        const auto line = record(*fields, error);
        if (!line) return Error{error, {}};
        if (line->empty()) continue;
        if (line->front().first == "component") info.perComponent = true;
        info.records.push_back(*line);
    }
    if (info.records.empty()) return Error{"it holds no \"name:\",value pairs", {}};
    return info;
}

}  // namespace tse
