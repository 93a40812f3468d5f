#ifndef TSE_CORE_DSFINVK_INTAKE_TABLES_H
#define TSE_CORE_DSFINVK_INTAKE_TABLES_H

// What intake reads of each table: the columns the checks need, found by
// name in each file's header, and what the model keeps of a row.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "dsfinvk_csv.h"
#include "dsfinvk_field_rules.h"
#include "dsfinvk_findings.h"
#include "dsfinvk_model.h"

namespace tse {

enum class Table {
    Tse,
    Rows,
    Closings,
    Registers,
    Terminals,
    Receipts,
    Vat,
    Payments,
    Lines,
    LineVat,
    BusinessCases,
    ClosingPayments,
    CashPerCurrency,
    VatRates,
    References,
    Location,
    Other
};

// The columns the checks read of a table: its first `required` must be
// there, the others are read when they are.
struct TableLayout {
    std::string_view file;
    Table table;
    std::vector<std::string_view> columns;
    size_t required;
};

// The layout of a table file, nullptr for one no check reads.
const TableLayout* layoutOf(std::string_view file);
// A table that no check reads but whose rows keep the field rules.
const TableLayout& otherTableLayout();

// One file's columns in the order of its layout; SIZE_MAX where absent.
struct FileColumns {
    std::vector<size_t> at;
    std::string_view operator()(const CsvRecord& record, size_t column) const
    {
        const size_t index = at[column];
        return index < record.fields.size() ? std::string_view(record.fields[index]) : std::string_view();
    }
    bool has(size_t column) const { return at[column] != SIZE_MAX; }
};
FileColumns columnsOf(const TableLayout& layout, const std::vector<std::string>& header);

// Keeps what the checks need of each record.
class RecordReader {
public:
    RecordReader(Bookkeeping& books, FieldRules& rules, RaisedFindings& findings)
        : books_(books), rules_(rules), findings_(findings)
    {}
    void read(const TableLayout& layout, const FileColumns& c, const CsvRecord& record, RowPlace place,
              const CsvDialect& dialect);

private:
    uint32_t closingOf(const FileColumns& c, const CsvRecord& record);
    void readTse(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readRow(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readClosing(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    void readReceipt(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readPayment(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    void readVat(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    void readLine(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readLineVat(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    void readClosingAmount(Table table, const FileColumns& c, const CsvRecord& record, RowPlace place,
                           const CsvDialect& dialect);
    void readVatRate(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    void readReference(const FileColumns& c, const CsvRecord& record, RowPlace place);
    // An amount the checks need; nullopt (a finding) when it is none.
    std::optional<Amount> amount(std::string_view text, std::string_view column, RowPlace place,
                                 const CsvDialect& dialect);
    // An amount that may be left empty for zero; nullopt when it is none.
    std::optional<Amount> optionalAmount(std::string_view text, std::string_view column, RowPlace place,
                                         const CsvDialect& dialect);
    std::optional<uint32_t> vatKey(std::string_view text, RowPlace place);

    Bookkeeping& books_;
    FieldRules& rules_;
    RaisedFindings& findings_;
    std::map<std::tuple<std::string, std::string, std::string, std::string, std::string, std::string>, uint32_t>
        tseByContent_;
};

}  // namespace tse

#endif
