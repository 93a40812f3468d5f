#ifndef TESTS_SUPPORT_DSFINVK_TABLES_H
#define TESTS_SUPPORT_DSFINVK_TABLES_H

// The tables of a DSFinV-K export written to a folder, read and edited by
// column name and written back as a register would write them (";",
// quotes where needed, CR LF), so that a test can plant what a dishonest
// register would.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace fixtures {

class DsfinvkTable {
public:
    // Reads DIR/NAME; an empty table when the file has no line.
    DsfinvkTable(std::string directory, std::string name);
    void save() const;  // writes the file back

    std::vector<std::string> header;
    std::vector<std::vector<std::string>> rows;

    size_t column(const std::string& name) const;  // throws when there is none
    std::string& at(size_t row, const std::string& column);
    // Removes the rows the predicate picks; returns how many.
    size_t removeIf(const std::function<bool(const std::vector<std::string>&)>& pick);
    // The index of the first row whose column holds the value; throws when none does.
    size_t find(const std::string& column, const std::string& value) const;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Every table of the folder that has the column, with the value replaced
// wherever it stands in that column.
void replaceInColumn(const std::string& directory, const std::string& column, const std::string& from,
                     const std::string& to);

// A copy of a folder, for one test case to change.
void copyDirectory(const std::string& from, const std::string& to);

}  // namespace fixtures

#endif
