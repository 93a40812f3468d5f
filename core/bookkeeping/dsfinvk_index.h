#ifndef TSE_CORE_DSFINVK_INDEX_H
#define TSE_CORE_DSFINVK_INDEX_H

#include <string>
#include <string_view>
#include <vector>

#include "bytes.h"
#include "dsfinvk_csv.h"
#include "result.h"

namespace tse {

// One table of a bookkeeping export as its index.xml describes it.
struct TableDescription {
    std::string url;   // the file name, "transactions_tse.csv"
    std::string name;  // "TSE_Transaktionen"
    CsvDialect dialect;
    std::vector<CsvColumn> columns;
};

// index.xml is read by a real XML parser; its document type refers to a DTD
// that is never fetched. Inputs above this size are refused.
constexpr size_t MAX_INDEX_XML = 4u << 20;

// The tables described, never none; the error says why the description
// cannot be used.
Result<std::vector<TableDescription>> parseIndexXml(ByteView data);

// The table whose URL names this file (by its last path part, regardless of
// case), or nullptr.
const TableDescription* findTable(const std::vector<TableDescription>& tables, std::string_view fileName);

}  // namespace tse

#endif
