#include "dsfinvk_tables.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fixtures {
namespace {

namespace fs = std::filesystem;

std::vector<std::vector<std::string>> parse(const std::string& text)
{
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> row;
    std::string field;
    bool quoted = false, any = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted) {
            if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') field += '"', ++i;
            else if (c == '"') quoted = false;
            else field += c;
            continue;
        }
        if (c == '"') quoted = true, any = true;
        else if (c == ';') row.push_back(std::move(field)), field.clear(), any = true;
        else if (c == '\r' || c == '\n') {
            if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
            if (any || !field.empty()) row.push_back(std::move(field)), rows.push_back(std::move(row));
            row.clear(), field.clear(), any = false;
        } else {
            field += c, any = true;
        }
    }
    if (any || !field.empty()) row.push_back(std::move(field)), rows.push_back(std::move(row));
    return rows;
}

std::string cell(const std::string& value)
{
    if (value.find_first_of(";\"\r\n") == std::string::npos) return value;
    std::string out = "\"";
    for (const char c : value) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

}  // namespace

DsfinvkTable::DsfinvkTable(std::string directory, std::string name) : path_(directory + "/" + name)
{
    std::ifstream in(path_, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path_);
    std::stringstream text;
    text << in.rdbuf();
    rows = parse(text.str());
    if (rows.empty()) return;
    header = rows.front();
    rows.erase(rows.begin());
}

void DsfinvkTable::save() const
{
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    const auto line = [&](const std::vector<std::string>& fields) {
        for (size_t i = 0; i < fields.size(); ++i) out << (i ? ";" : "") << cell(fields[i]);
        out << "\r\n";
    };
    if (!header.empty()) line(header);
    for (const std::vector<std::string>& row : rows) line(row);
    if (!out.flush()) throw std::runtime_error("cannot write " + path_);
}

size_t DsfinvkTable::column(const std::string& name) const
{
    const auto found = std::find(header.begin(), header.end(), name);
    if (found == header.end()) throw std::runtime_error(path_ + " has no column " + name);
    return static_cast<size_t>(found - header.begin());
}

std::string& DsfinvkTable::at(size_t row, const std::string& name)
{
    return rows.at(row).at(column(name));
}

size_t DsfinvkTable::removeIf(const std::function<bool(const std::vector<std::string>&)>& pick)
{
    const size_t before = rows.size();
    rows.erase(std::remove_if(rows.begin(), rows.end(), pick), rows.end());
    return before - rows.size();
}

size_t DsfinvkTable::find(const std::string& name, const std::string& value) const
{
    const size_t c = column(name);
    for (size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].at(c) == value) return i;
    }
    throw std::runtime_error(path_ + " has no row with " + name + " " + value);
}

void replaceInColumn(const std::string& directory, const std::string& column, const std::string& from,
                     const std::string& to)
{
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        if (entry.path().extension() != ".csv") continue;
        DsfinvkTable table(directory, entry.path().filename().string());
        const auto found = std::find(table.header.begin(), table.header.end(), column);
        if (found == table.header.end()) continue;
        const size_t c = static_cast<size_t>(found - table.header.begin());
        for (std::vector<std::string>& row : table.rows) {
            if (c < row.size() && row[c] == from) row[c] = to;
        }
        table.save();
    }
}

void copyDirectory(const std::string& from, const std::string& to)
{
    fs::copy(from, to, fs::copy_options::recursive);
}

}  // namespace fixtures
