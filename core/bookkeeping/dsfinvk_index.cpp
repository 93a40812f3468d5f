#include "dsfinvk_index.h"

#include <algorithm>
#include <cstdlib>

#include <pugixml.hpp>

#include "text.h"

namespace tse {
namespace {

// A delimiter element holds one character, or an entity such as &#x9;.
char singleCharacter(const pugi::xml_node& node, char fallback)
{
    if (!node) return fallback;
    const std::string text = node.child_value();
    return text.empty() ? '\0' : text.front();
}

CsvDialect dialectOf(const pugi::xml_node& table)
{
    CsvDialect dialect;
    // The document type makes ANSI the default when a table names no code page.
    dialect.encoding = table.child("UTF8") ? CsvEncoding::Utf8 : CsvEncoding::Windows1252;
    dialect.decimalSymbol = singleCharacter(table.child("DecimalSymbol"), ',');
    dialect.digitGroupingSymbol = singleCharacter(table.child("DigitGroupingSymbol"), '.');
    if (const pugi::xml_node from = table.child("Range").child("From")) {
        dialect.headerLine = std::strtol(from.child_value(), nullptr, 10) >= 2;
    } else {
        dialect.headerLine = false;
    }
    const pugi::xml_node variable = table.child("VariableLength");
    dialect.columnDelimiter = singleCharacter(variable.child("ColumnDelimiter"), ';');
    if (const pugi::xml_node records = variable.child("RecordDelimiter"))
        dialect.recordDelimiter = records.child_value();
    dialect.textEncapsulator = singleCharacter(variable.child("TextEncapsulator"), '\0');
    return dialect;
}

}  // namespace

Result<std::vector<TableDescription>> parseIndexXml(ByteView data)
{
    if (data.size() > MAX_INDEX_XML) return Error{"is larger than " + std::to_string(MAX_INDEX_XML >> 20) + " MiB"};
    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_buffer(data.data(), data.size(), pugi::parse_default);
    if (!parsed) {
        return Error{std::string("is no XML document: ") + parsed.description() + " at byte " +
                         std::to_string(parsed.offset),
                     static_cast<size_t>(parsed.offset)};
    }
    const pugi::xml_node dataSet = document.child("DataSet");
    if (!dataSet) return Error{"has no DataSet element"};
    std::vector<TableDescription> tables;
    for (const pugi::xml_node media : dataSet.children("Media")) {
        for (const pugi::xml_node table : media.children("Table")) {
            const pugi::xml_node variable = table.child("VariableLength");
            TableDescription description;
            description.url = table.child_value("URL");
            description.name = table.child_value("Name");
            if (description.url.empty() || !variable) continue;  // fixed-length tables are no DSFinV-K
            description.dialect = dialectOf(table);
            for (const pugi::xml_node column : variable.children()) {
                const std::string_view kind = column.name();
                if (kind != "VariableColumn" && kind != "VariablePrimaryKey") continue;
                CsvColumn entry;
                entry.name = column.child_value("Name");
                entry.maxLength = static_cast<size_t>(std::strtoul(column.child_value("MaxLength"), nullptr, 10));
                if (const pugi::xml_node numeric = column.child("Numeric")) {
                    entry.numeric = true;
                    entry.accuracy = static_cast<unsigned>(
                        std::min(5ul, std::strtoul(numeric.child_value("Accuracy"), nullptr, 10)));
                }
                if (!entry.name.empty()) description.columns.push_back(std::move(entry));
            }
            tables.push_back(std::move(description));
        }
    }
    if (tables.empty()) return Error{"describes no table of variable length"};
    return tables;
}

const TableDescription* findTable(const std::vector<TableDescription>& tables, std::string_view fileName)
{
    for (const TableDescription& table : tables) {
        if (equalsIgnoringCase(baseName(table.url), baseName(fileName))) return &table;
    }
    return nullptr;
}

}  // namespace tse
