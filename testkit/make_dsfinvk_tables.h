#ifndef TOOLS_MAKE_DSFINVK_TABLES_H
#define TOOLS_MAKE_DSFINVK_TABLES_H

#include <map>
#include <string>
#include <vector>

#include "dsfinvk_index.h"
#include "make_dsfinvk_book.h"

namespace makedsfinvk {

// The text of every table the description names, written from the book in
// the description's columns and dialect (header line, ';', CR LF, quotes
// where a value needs them), by file name. Tables the book has nothing for
// are written with their header alone.
std::map<std::string, std::string> writeTables(const Book& book, const std::vector<tse::TableDescription>& tables);

}  // namespace makedsfinvk

#endif
