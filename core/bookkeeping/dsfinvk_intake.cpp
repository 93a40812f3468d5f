#include "dsfinvk_intake.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "dsfinvk_csv.h"
#include "dsfinvk_field_rules.h"
#include "dsfinvk_index.h"
#include "dsfinvk_intake_tables.h"
#include "dsfinvk_tally.h"
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

// What a missing table takes away, for the warning that says so.
std::string skippedChecks(std::string_view table)
{
    static const std::map<std::string_view, std::string_view> skipped = {
        {"lines.csv", "that each sale has lines, the closings' business cases, and orders' processData rebuilt"},
        {"lines_vat.csv", "the receipts' lines against their VAT table, and the closings' business cases"},
        {"transactions_vat.csv", "the receipts' VAT table against their total and lines, the booked amounts against "
                                 "the signed ones, the VAT rates, and processData rebuilt from the bookkeeping"},
        {"datapayment.csv", "the sales' payments against their total, the closings' payments and cash, and the "
                            "booked payments against the signed ones"},
        {"businesscases.csv", "the closings' business cases against their lines"},
        {"payment.csv", "the closings' payment types against their payments"},
        {"cash_per_currency.csv", "the closings' cash per currency against their cash payments"},
        {"vat.csv", "the VAT rates of the closings"},
        {"references.csv", "the references between receipts"},
        {"location.csv", "that each closing has its location"},
        {"cashregister.csv", "that each closing has its register, and its serial number as the client ID"},
        {"slaves.csv", "the terminals' serial numbers as client IDs"},
    };
    const auto found = skipped.find(table);
    return found == skipped.end() ? std::string() : "; skipped: " + std::string(found->second);
}

class Intake {
public:
    Intake(const IntakeOptions& options, Bookkeeping& books, RaisedFindings& findings)
        : options_(options), books_(books), findings_(findings)
    {}

    Result<bool> readSource(const ExportSource& source);
    void raiseTallied() { tally_.raiseAll(findings_); }
    bool seen(std::string_view table) const { return seen_.count(std::string(table)) != 0; }
    // Every file of the table was read; checks that need a table are left
    // out where one of its files could not be.
    bool whole(std::string_view table) const { return seen(table) && !broken_.count(std::string(table)); }

private:
    std::optional<std::vector<TableDescription>> readIndex(const ExportSource& source, std::string& problem);
    Result<bool> readTables(const ExportSource& source, const std::vector<TableDescription>* index);
    void readMember(const ExportSource& source, const std::vector<TableDescription>* index, ExportMember&& member);
    void readTable(const std::string& label, const std::string& table, const TableLayout& layout, ByteView data,
                   const TableDescription* description);
    void broken(const std::string& table) { broken_.insert(table), sourceBroken_.insert(table); }
    std::optional<FileColumns> fileColumns(const std::string& label, const TableLayout& layout,
                                           const std::vector<std::string>& header, char delimiter);
    void reportMissing(const ExportSource& source, const std::vector<TableDescription>* index);

    const IntakeOptions& options_;
    Bookkeeping& books_;
    RaisedFindings& findings_;
    FindingTally tally_;
    FieldRules rules_{tally_};
    RecordReader reader_{books_, rules_, findings_};
    std::set<std::string> seen_;          // tables of any export
    std::set<std::string> present_;       // tables of the export being read
    std::set<std::string> broken_;        // tables with a file that could not be read
    std::set<std::string> sourceBroken_;  // of the export being read
    size_t total_ = 0;
};

// The columns of one file, checked once: a table that lacks what the
// checks need is not read at all, rather than read as empty fields.
std::optional<FileColumns> Intake::fileColumns(const std::string& label, const TableLayout& layout,
                                               const std::vector<std::string>& header, char delimiter)
{
    FileColumns columns = columnsOf(layout, header);
    std::vector<std::string_view> missing;
    for (size_t i = 0; i < layout.required; ++i) {
        if (!columns.has(i)) missing.push_back(layout.columns[i]);
    }
    if (layout.table == Table::Payments && !columns.has(7) && !columns.has(8)) missing.push_back("BASISWAEH_BETRAG");
    if (missing.empty()) return columns;
    broken(std::string(layout.file));
    std::string names;
    for (const std::string_view name : missing) names += (names.empty() ? "" : ", ") + std::string(name);
    findings_.raise(FindingCode::TableUnreadable, label + " lacks the column" + (missing.size() > 1 ? "s " : " ") +
                                                      names + headerHint(header, missing, delimiter) +
                                                      "; none of its rows was read");
    return std::nullopt;
}

void Intake::readTable(const std::string& label, const std::string& table, const TableLayout& layout, ByteView data,
                       const TableDescription* description)
{
    const CsvDialect dialect = description ? description->dialect : CsvDialect();
    // A value above its declared length is still read: its length is a
    // field rule of its own, counted there.
    std::vector<CsvColumn> declared = description ? description->columns : std::vector<CsvColumn>();
    for (CsvColumn& column : declared) column.maxLength = 0;
    const auto file = static_cast<uint16_t>(books_.files.size());
    books_.files.push_back(
        TableFile{label, table, dialect.encoding, 0, dialect.decimalSymbol, dialect.digitGroupingSymbol});
    std::optional<FileColumns> columns;
    bool checked = false;
    const auto begin = [&](const std::vector<std::string>& header) {
        columns = fileColumns(label, layout, header, dialect.columnDelimiter), checked = true;
        rules_.beginFile(table, label, header, description ? &description->columns : nullptr, dialect);
    };
    const CsvRead read =
        readCsv(data, dialect, declared, [&](const std::vector<std::string>& header, const CsvRecord& r) {
            if (!checked) begin(header);
            if (!columns) return;
            ++books_.files[file].rows;
            const RowPlace place{file, static_cast<uint32_t>(r.line)};
            rules_.check(r, place);
            reader_.read(layout, *columns, r, place, dialect);
        });
    if (!checked && !read.header.empty()) columns = fileColumns(label, layout, read.header, dialect.columnDelimiter);
    if (!checked && read.header.empty() && read.problems.empty()) {
        broken(table);
        findings_.raise(FindingCode::TableUnreadable, label + " is empty: it has no header line, so none of its "
                                                              "rows can be read");
    }
    books_.tablesRead.push_back(label + " (" + std::to_string(books_.files[file].rows) + " rows)");
    for (size_t i = 0; i < read.problems.size() && i < PROBLEMS_PER_FILE; ++i) {
        findings_.raise(FindingCode::CsvMalformed, label + ": " + read.problems[i].message);
    }
    if (read.problems.size() > PROBLEMS_PER_FILE) {
        findings_.raise(FindingCode::CsvMalformed, label + ": " +
                                                       std::to_string(read.problems.size() - PROBLEMS_PER_FILE) +
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
        findings_.raise(FindingCode::UnexpectedMember, "the member name " + escapeText(member.name) + " in " +
                                                           source.label() +
                                                           " leads outside the export; it was not used");
        return;
    }
    const TableLayout* layout = layoutOf(table);
    const TableDescription* description = index ? findTable(*index, table) : nullptr;
    if (layout == nullptr && description == nullptr) return;  // read for its presence only
    present_.insert(table);
    seen_.insert(table);
    if (!member.contents) {
        broken(table);
        findings_.raise(FindingCode::MemberUnreadable,
                        label + " " + member.contents.error().message + "; none of its rows was read");
        return;
    }
    // A table no check reads still keeps the field rules.
    readTable(label, table, layout ? *layout : otherTableLayout(), *member.contents, description);
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
        present_.insert(asciiLower(baseName(member.name)));
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
        findings_.raise(FindingCode::TableMissing, source.label() + " has no " + table + skippedChecks(table));
    }
}

Result<bool> Intake::readSource(const ExportSource& source)
{
    present_.clear();
    sourceBroken_.clear();
    // Closings are told which export named them first, so that a check
    // needing a table is made only where their export holds it.
    books_.sourceTables.emplace_back();
    books_.sourceLabels.push_back(source.label());
    std::string problem;
    const std::optional<std::vector<TableDescription>> index = readIndex(source, problem);
    if (!index) {
        findings_.raise(FindingCode::IndexMissing,
                        source.label() + " " + problem +
                            "; its tables are read in the standard dialect (UTF-8, \";\", quotes, decimal comma, a "
                            "header line), and lengths and decimal places are not checked");
    }
    Result<bool> read = readTables(source, index ? &*index : nullptr);
    if (!read) return read;
    reportMissing(source, index ? &*index : nullptr);
    for (const std::string& table : present_) {
        if (!sourceBroken_.count(table)) books_.sourceTables.back().insert(table);
    }
    return true;
}

}  // namespace

const std::vector<std::string>& standardTables()
{
    static const std::vector<std::string> tables = {"cashpointclosing.csv",
                                                    "location.csv",
                                                    "cashregister.csv",
                                                    "slaves.csv",
                                                    "pa.csv",
                                                    "tse.csv",
                                                    "vat.csv",
                                                    "businesscases.csv",
                                                    "payment.csv",
                                                    "cash_per_currency.csv",
                                                    "transactions.csv",
                                                    "datapayment.csv",
                                                    "lines.csv",
                                                    "itemamounts.csv",
                                                    "subitems.csv",
                                                    "transactions_tse.csv",
                                                    "transactions_vat.csv",
                                                    "lines_vat.csv",
                                                    "allocation_groups.csv",
                                                    "references.csv"};
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
    intake.raiseTallied();
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
