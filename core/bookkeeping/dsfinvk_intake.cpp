#include "dsfinvk_intake.h"

#include <algorithm>
#include <optional>
#include <set>

#include "dsfinvk_csv.h"
#include "dsfinvk_index.h"
#include "export_names.h"
#include "export_reader.h"
#include "text.h"

namespace tse {
namespace {

constexpr size_t PROBLEMS_PER_FILE = 100;
constexpr std::string_view TSE_TABLE = "tse.csv";
constexpr std::string_view ROWS_TABLE = "transactions_tse.csv";
constexpr std::string_view CLOSINGS_TABLE = "cashpointclosing.csv";
constexpr std::string_view RECEIPTS_TABLE = "transactions.csv";

enum class Table { Tse, Rows, Closings, Registers, Terminals, Receipts, Vat, Payments };

// What the checks read of a table: its first `required` columns must be
// there, the others are read when they are.
struct TableSpec {
    std::string_view file;
    Table table;
    std::vector<std::string_view> columns;
    size_t required;
};

const std::vector<TableSpec>& tableSpecs()
{
    static const std::vector<TableSpec> specs = {
        {ROWS_TABLE,
         Table::Rows,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "TSE_ID", "TSE_TANR", "TSE_TA_START", "TSE_TA_ENDE",
          "TSE_TA_VORGANGSART", "TSE_TA_SIGZ", "TSE_TA_SIG", "TSE_TA_FEHLER", "TSE_VORGANGSDATEN",
          "TSE_TA_VORGANGSDATEN"},
         12},
        {TSE_TABLE,
         Table::Tse,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "TSE_ID", "TSE_SERIAL", "TSE_SIG_ALGO", "TSE_ZEITFORMAT",
          "TSE_PD_ENCODING", "TSE_PUBLIC_KEY", "TSE_ZERTIFIKAT_I", "TSE_ZERTIFIKAT_II"},
         9},
        {CLOSINGS_TABLE,
         Table::Closings,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "Z_BUCHUNGSTAG", "Z_START_ID", "Z_ENDE_ID"},
         3},
        {"cashregister.csv", Table::Registers, {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "KASSE_SERIENNR"}, 4},
        {"slaves.csv", Table::Terminals, {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "TERMINAL_ID", "TERMINAL_SERIENNR"}, 5},
        {RECEIPTS_TABLE,
         Table::Receipts,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "BON_TYP", "BON_NR", "TERMINAL_ID", "BON_START", "BON_ENDE",
          "UMS_BRUTTO"},
         5},
        {"transactions_vat.csv",
         Table::Vat,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "UST_SCHLUESSEL", "BON_BRUTTO"},
         6},
        {"datapayment.csv",
         Table::Payments,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "ZAHLART_TYP", "ZAHLART_NAME", "ZAHLWAEH_CODE",
          "ZAHLWAEH_BETRAG", "BASISWAEH_BETRAG"},
         5},
    };
    return specs;
}

const TableSpec* specOf(std::string_view file)
{
    for (const TableSpec& spec : tableSpecs()) {
        if (spec.file == file) return &spec;
    }
    return nullptr;
}

// One file's columns in the order of its spec; SIZE_MAX where absent.
struct FileColumns {
    std::vector<size_t> at;
    std::string_view operator()(const CsvRecord& record, size_t column) const
    {
        const size_t index = at[column];
        return index < record.fields.size() ? std::string_view(record.fields[index]) : std::string_view();
    }
    bool has(size_t column) const { return at[column] != SIZE_MAX; }
};

FileColumns columnsOf(const TableSpec& spec, const std::vector<std::string>& header)
{
    FileColumns columns;
    for (const std::string_view name : spec.columns) {
        const auto found = std::find(header.begin(), header.end(), name);
        columns.at.push_back(found == header.end() ? SIZE_MAX : static_cast<size_t>(found - header.begin()));
    }
    return columns;
}

// Why the header lacks these columns, as far as can be told.
std::string headerHint(const std::vector<std::string>& header, const std::vector<std::string_view>& missing,
                       char delimiter)
{
    std::vector<std::string> otherCase;
    for (const std::string_view name : missing) {
        for (const std::string& column : header) {
            if (column != name && equalsIgnoringCase(column, name)) otherCase.push_back(quoted(column));
        }
    }
    if (!otherCase.empty()) {
        std::string list;
        for (const std::string& name : otherCase) list += (list.empty() ? "" : ", ") + name;
        return "; the header has " + list + " in other letter case, and names are read as written";
    }
    if (header.size() == 1) {
        for (const char other : {';', ',', '\t', '|'}) {
            if (other != delimiter && header.front().find(other) != std::string::npos) {
                return "; the header line is one field: its columns seem separated by " +
                       quoted(std::string(1, other)) + ", while the description declares " +
                       quoted(std::string(1, delimiter));
            }
        }
    }
    return {};
}

class Intake {
public:
    Intake(const IntakeOptions& options, Bookkeeping& books, RaisedFindings& findings)
        : options_(options), books_(books), findings_(findings)
    {
    }

    Result<bool> readSource(const ExportSource& source);
    bool seen(std::string_view table) const { return seen_.count(std::string(table)) != 0; }
    // Every file of the table was read; checks that need a table are left
    // out where one of its files could not be.
    bool whole(std::string_view table) const { return seen(table) && !broken_.count(std::string(table)); }

private:
    std::optional<std::vector<TableDescription>> readIndex(const ExportSource& source, std::string& problem);
    Result<bool> readTables(const ExportSource& source, const std::vector<TableDescription>* index);
    void readMember(const ExportSource& source, const std::vector<TableDescription>* index, ExportMember&& member);
    void readTable(const std::string& label, const TableSpec& spec, ByteView data, const TableDescription* description);
    std::optional<FileColumns> fileColumns(const std::string& label, const TableSpec& spec,
                                           const std::vector<std::string>& header, char delimiter);
    void reportMissing(const ExportSource& source, const std::vector<TableDescription>* index);
    void readRecord(const TableSpec& spec, const FileColumns& c, const CsvRecord& record, RowPlace place,
                    const CsvDialect& dialect);
    uint32_t closingOf(const FileColumns& c, const CsvRecord& record);
    void readTse(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readRow(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readClosing(const FileColumns& c, const CsvRecord& record, RowPlace place);
    void readPayment(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    void readVat(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect);
    std::optional<Amount> amount(std::string_view text, std::string_view column, RowPlace place,
                                 const CsvDialect& dialect);

    const IntakeOptions& options_;
    Bookkeeping& books_;
    RaisedFindings& findings_;
    std::set<std::string> seen_;     // tables of any export
    std::set<std::string> present_;  // tables of the export being read
    std::set<std::string> broken_;   // tables with a file that could not be read
    std::map<std::tuple<std::string, std::string, std::string, std::string, std::string, std::string>, uint32_t>
        tseByContent_;
    size_t total_ = 0;
};

uint32_t Intake::closingOf(const FileColumns& c, const CsvRecord& record)
{
    return books_.closingOf(ClosingKey{std::string(c(record, 0)), std::string(c(record, 1)), std::string(c(record, 2))});
}

void Intake::readTse(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    const uint32_t closing = closingOf(c, record);
    TseDeclaration d;
    d.declaredSerial = c(record, 4), d.algorithmText = c(record, 5), d.timeFormatText = c(record, 6);
    d.encoding = c(record, 7), d.keyText = c(record, 8);
    d.certificateText = std::string(c(record, 9)) + std::string(c(record, 10));
    d.place = place;
    // One TSE stands in tse.csv once per closing; it is judged once.
    const auto content = std::make_tuple(d.declaredSerial, d.algorithmText, d.timeFormatText, d.encoding, d.keyText,
                                         d.certificateText);
    auto found = tseByContent_.find(content);
    if (found == tseByContent_.end()) {
        found = tseByContent_.emplace(content, static_cast<uint32_t>(books_.tses.size())).first;
        books_.tses.push_back(std::move(d));
    }
    const std::string tseId(c(record, 3));
    if (!books_.tseOfClosing.emplace(std::make_pair(closing, tseId), found->second).second) {
        findings_.raise(FindingCode::CsvMalformed, books_.where(place) + ": TSE_ID " + quoted(tseId) +
                                                       " stands twice for closing " +
                                                       books_.closings[closing].key.number);
    }
}

void Intake::readRow(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    TseRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    row.processDataColumn = c.has(12) || c.has(13);
    // The official description and the DSFinV-K text name the column
    // differently; an export that fills both with different values is a
    // finding, and both are kept for the signature to decide.
    std::string_view data = c(record, 12), other = c(record, 13);
    if (data.empty()) std::swap(data, other);
    if (other == data) other = {};
    row.record = books_.pool.add({c(record, 3), c(record, 4), c(record, 5), c(record, 6), c(record, 7), c(record, 8),
                                  c(record, 9), c(record, 10), c(record, 11), data, other});
    if (!other.empty()) {
        findings_.raise(FindingCode::ColumnConflict, FindingSubject::Row, books_.rows.size(),
                        "TSE_VORGANGSDATEN " + rowValue(ROW_PROCESS_DATA) + " and TSE_TA_VORGANGSDATEN " +
                            rowValue(ROW_OTHER_PROCESS_DATA) + " differ");
    }
    books_.rows.push_back(row);
}

void Intake::readClosing(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    Closing& closing = books_.closings[closingOf(c, record)];
    if (closing.booked) {
        findings_.raise(FindingCode::CsvMalformed, books_.where(place) + ": closing " + closing.key.number + " of " +
                                                       quoted(closing.key.kasse) + " stands twice, first at " +
                                                       books_.where(closing.place));
        return;
    }
    closing.booked = true;
    closing.place = place;
    closing.createdSeconds = bookedSeconds(closing.key.created);
    closing.businessDay = c(record, 3);
    closing.startId = c(record, 4);
    closing.endId = c(record, 5);
}

std::optional<Amount> Intake::amount(std::string_view text, std::string_view column, RowPlace place,
                                     const CsvDialect& dialect)
{
    const std::optional<int64_t> value = parseExactAmount(text, dialect.decimalSymbol, dialect.digitGroupingSymbol);
    if (!value) findings_.raise(FindingCode::FieldInvalid, place, std::string(column) + " is no amount");
    return value;
}

void Intake::readVat(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    VatRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    row.bonId = books_.pool.add({c(record, 3)});
    const std::optional<uint64_t> key = parseDecimal(c(record, 4));
    if (!key || *key > UINT32_MAX) {
        findings_.raise(FindingCode::FieldInvalid, place, "UST_SCHLUESSEL is no VAT key");
        return;
    }
    row.key = static_cast<uint32_t>(*key);
    const std::optional<Amount> gross = amount(c(record, 5), "BON_BRUTTO", place, dialect);
    if (!gross) return;
    row.gross = *gross;
    books_.vat.push_back(row);
}

// BASISWAEH_BETRAG is the amount in the base currency, the one every writer
// fills; ZAHLWAEH_BETRAG stands in for it only when no foreign currency is
// named.
void Intake::readPayment(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    PaymentRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    const std::string_view currency = c(record, 6), base = c(record, 8), paid = c(record, 7);
    const bool foreign = !currency.empty() && !equalsIgnoringCase(currency, "EUR");
    std::optional<Amount> value;
    if (!base.empty()) value = amount(base, "BASISWAEH_BETRAG", place, dialect);
    else if (!foreign && !paid.empty()) value = amount(paid, "ZAHLWAEH_BETRAG", place, dialect);
    else {
        findings_.raise(FindingCode::FieldInvalid, place,
                        std::string("a payment") + (foreign ? " in a foreign currency" : "") +
                            " without BASISWAEH_BETRAG, the amount in the base currency");
    }
    if (!value) return;
    row.base = *value;
    row.record = books_.pool.add({c(record, 3), c(record, 4), c(record, 5), currency});
    books_.payments.push_back(row);
}

void Intake::readRecord(const TableSpec& spec, const FileColumns& c, const CsvRecord& record, RowPlace place,
                        const CsvDialect& dialect)
{
    switch (spec.table) {
    case Table::Tse: return readTse(c, record, place);
    case Table::Rows: return readRow(c, record, place);
    case Table::Closings: return readClosing(c, record, place);
    case Table::Registers: books_.closings[closingOf(c, record)].kasseSerial = c(record, 3); return;
    case Table::Terminals:
        books_.terminals.push_back(Terminal{closingOf(c, record), std::string(c(record, 3)), std::string(c(record, 4))});
        return;
    case Table::Receipts:
        books_.receipts.push_back(BookedReceipt{
            books_.pool.add({c(record, 3), c(record, 5), c(record, 4), c(record, 6), c(record, 7), c(record, 8),
                             c(record, 9)}),
            closingOf(c, record), place});
        return;
    case Table::Vat: return readVat(c, record, place, dialect);
    case Table::Payments: return readPayment(c, record, place, dialect);
    }
}

// The columns of one file, checked once: a table that lacks what the
// checks need is not read at all, rather than read as empty fields.
std::optional<FileColumns> Intake::fileColumns(const std::string& label, const TableSpec& spec,
                                               const std::vector<std::string>& header, char delimiter)
{
    FileColumns columns = columnsOf(spec, header);
    std::vector<std::string_view> missing;
    for (size_t i = 0; i < spec.required; ++i) {
        if (!columns.has(i)) missing.push_back(spec.columns[i]);
    }
    if (spec.table == Table::Payments && !columns.has(7) && !columns.has(8)) missing.push_back("BASISWAEH_BETRAG");
    if (missing.empty()) return columns;
    broken_.insert(std::string(spec.file));
    std::string names;
    for (const std::string_view name : missing) names += (names.empty() ? "" : ", ") + std::string(name);
    findings_.raise(FindingCode::TableUnreadable, label + " lacks the column" + (missing.size() > 1 ? "s " : " ") +
                                                      names + headerHint(header, missing, delimiter) +
                                                      "; none of its rows was read");
    return std::nullopt;
}

void Intake::readTable(const std::string& label, const TableSpec& spec, ByteView data,
                       const TableDescription* description)
{
    const CsvDialect dialect = description ? description->dialect : CsvDialect();
    const std::vector<CsvColumn> declared = description ? description->columns : std::vector<CsvColumn>();
    const auto file = static_cast<uint16_t>(books_.files.size());
    books_.files.push_back(TableFile{label, std::string(spec.file), dialect.encoding, 0});
    std::optional<FileColumns> columns;
    bool checked = false;
    const CsvRead read = readCsv(data, dialect, declared, [&](const std::vector<std::string>& header, const CsvRecord& r) {
        if (!checked) columns = fileColumns(label, spec, header, dialect.columnDelimiter), checked = true;
        if (!columns) return;
        ++books_.files[file].rows;
        readRecord(spec, *columns, r, RowPlace{file, static_cast<uint32_t>(r.line)}, dialect);
    });
    if (!checked && !read.header.empty()) columns = fileColumns(label, spec, read.header, dialect.columnDelimiter);
    if (!checked && read.header.empty() && read.problems.empty()) {
        broken_.insert(std::string(spec.file));
        findings_.raise(FindingCode::TableUnreadable, label + " is empty: it has no header line, so none of its "
                                                              "rows can be read");
    }
    books_.tablesRead.push_back(label + " (" + std::to_string(books_.files[file].rows) + " rows)");
    for (size_t i = 0; i < read.problems.size() && i < PROBLEMS_PER_FILE; ++i) {
        findings_.raise(FindingCode::CsvMalformed, label + ": " + read.problems[i].message);
    }
    if (read.problems.size() > PROBLEMS_PER_FILE) {
        findings_.raise(FindingCode::CsvMalformed, label + ": " + std::to_string(read.problems.size() - PROBLEMS_PER_FILE) +
                                                       " more malformed lines");
    }
}

// The description first, wherever it stands in the archive; then the
// tables one at a time, so that only one file is ever held whole.
std::optional<std::vector<TableDescription>> Intake::readIndex(const ExportSource& source, std::string& problem)
{
    std::optional<std::vector<TableDescription>> index;
    problem = "has no index.xml";
    const Result<ExportRead> read = readExportSource(source, MAX_INDEX_XML, [&](ExportMember&& member) {
        if (index || !equalsIgnoringCase(baseName(member.name), "index.xml") || unsafeMemberName(member.name)) return;
        if (!member.contents) {
            problem = "has an index.xml that " + member.contents.error().message;
            return;
        }
        Result<std::vector<TableDescription>> parse = parseIndexXml(*member.contents);
        if (parse) index = std::move(parse).value();
        else problem = "has an index.xml that " + parse.error().message;
    });
    if (!read) problem = read.error().message;
    return index;
}

void Intake::readMember(const ExportSource& source, const std::vector<TableDescription>* index, ExportMember&& member)
{
    const std::string table = asciiLower(baseName(member.name));
    const std::string label = source.label() + ":" + escapeText(member.name);
    if (!member.standalone && unsafeMemberName(member.name)) {
        findings_.raise(FindingCode::UnexpectedMember,
                        "the member name " + escapeText(member.name) + " in " + source.label() +
                            " leads outside the export; it was not used");
        return;
    }
    const TableSpec* spec = specOf(table);
    const TableDescription* description = index ? findTable(*index, table) : nullptr;
    if (spec == nullptr) return;  // read for its presence only
    present_.insert(table);
    seen_.insert(table);
    if (!member.contents) {
        broken_.insert(table);
        findings_.raise(FindingCode::MemberUnreadable, label + " " + member.contents.error().message + "; none of its rows was read");
        return;
    }
    readTable(label, *spec, *member.contents, description);
}

Result<bool> Intake::readTables(const ExportSource& source, const std::vector<TableDescription>* index)
{
    bool tooLarge = false;
    const Result<ExportRead> read = readExportSource(source, options_.maxTableSize, [&](ExportMember&& member) {
        if (tooLarge) return;
        if (member.contents) total_ += member.contents->size();
        if (total_ > options_.maxTotalSize) {
            tooLarge = true;
            return;
        }
        const std::string name = asciiLower(baseName(member.name));
        if (!specOf(name)) present_.insert(name);
        readMember(source, index, std::move(member));
    });
    if (!read) return read.error();
    if (tooLarge) {
        return Error{source.label() + ": the bookkeeping's tables hold more than " +
                     std::to_string(options_.maxTotalSize >> 20) + " MiB uncompressed; they are not read"};
    }
    if (read->truncation) {
        findings_.raise(FindingCode::MemberUnreadable, *read->truncation + "; the tables after the break are missing");
    }
    return true;
}

void Intake::reportMissing(const ExportSource& source, const std::vector<TableDescription>* index)
{
    std::vector<std::string> expected;
    if (index) {
        for (const TableDescription& table : *index) expected.push_back(asciiLower(baseName(table.url)));
    } else {
        expected = standardTables();
    }
    for (const std::string& table : expected) {
        if (present_.count(table) || table == TSE_TABLE || table == ROWS_TABLE) continue;
        if (table == CLOSINGS_TABLE || table == RECEIPTS_TABLE) {
            findings_.raise(FindingCode::RequiredTableMissing,
                            source.label() + " has no " + table +
                                (table == CLOSINGS_TABLE ? ": the periods the bookkeeping covers are unknown"
                                                         : ": no receipt can be linked to its TSE row"));
            continue;
        }
        findings_.raise(FindingCode::TableMissing, source.label() + " has no " + table);
    }
}

Result<bool> Intake::readSource(const ExportSource& source)
{
    present_.clear();
    std::string problem;
    const std::optional<std::vector<TableDescription>> index = readIndex(source, problem);
    if (!index) {
        findings_.raise(FindingCode::IndexMissing,
                        source.label() + " " + problem +
                            "; its tables are read in the standard dialect (UTF-8, \";\", quotes, decimal comma, a "
                            "header line)");
    }
    Result<bool> read = readTables(source, index ? &*index : nullptr);
    if (!read) return read;
    reportMissing(source, index ? &*index : nullptr);
    return true;
}

}  // namespace

const std::vector<std::string>& standardTables()
{
    static const std::vector<std::string> tables = {
        "cashpointclosing.csv", "location.csv",         "cashregister.csv", "slaves.csv",
        "pa.csv",               "tse.csv",              "vat.csv",          "businesscases.csv",
        "payment.csv",          "cash_per_currency.csv", "transactions.csv", "datapayment.csv",
        "lines.csv",            "itemamounts.csv",      "subitems.csv",     "transactions_tse.csv",
        "transactions_vat.csv", "lines_vat.csv",        "allocation_groups.csv", "references.csv"};
    return tables;
}

Result<Bookkeeping> readBookkeeping(const IntakeOptions& options, RaisedFindings& findings)
{
    Result<std::vector<ExportSource>> grouping = groupExportPaths(options.paths);
    if (!grouping) return grouping.error();
    Bookkeeping books;
    Intake intake(options, books, findings);
    for (ExportSource& source : std::move(grouping).value()) {
        source.zip = true;
        const Result<bool> read = intake.readSource(source);
        if (!read) return read.error();
    }
    for (const std::string_view table : {ROWS_TABLE, TSE_TABLE}) {
        if (!intake.seen(table)) {
            return Error{"the bookkeeping export has no " + std::string(table) + ", so there is nothing to check"};
        }
    }
    books.receiptsTable = intake.whole(RECEIPTS_TABLE);
    books.closingsTable = intake.whole(CLOSINGS_TABLE);
    books.vatTable = intake.whole("transactions_vat.csv");
    books.paymentsTable = intake.whole("datapayment.csv");
    books.sortReceipts();
    return books;
}

}  // namespace tse
