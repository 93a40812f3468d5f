// The DSFinV-K reading: the CSV reader against what exporters write in the
// field, the official index.xml, amounts and German local time.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dsfinvk_check.h"
#include "dsfinvk_csv.h"
#include "dsfinvk_index.h"
#include "dsfinvk_model.h"
#include "file_reader.h"
#include "log_time.h"

namespace {

const std::string DATA = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../data/dsfinvk/";

struct Read {
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> records;
    std::vector<size_t> lines;
    std::vector<size_t> problemLines;
};

Read readText(const std::string& text, tse::CsvDialect dialect = {}, const std::vector<tse::CsvColumn>& declared = {})
{
    Read out;
    const tse::CsvRead read = tse::readCsv(tse::ByteView(text), dialect, declared,
                                           [&](const std::vector<std::string>&, const tse::CsvRecord& r) {
                                               out.records.push_back(r.fields);
                                               out.lines.push_back(r.line);
                                           });
    out.header = read.header;
    for (const tse::CsvProblem& p : read.problems) {
        EXPECT_NE(p.message.find("line " + std::to_string(p.line)), std::string::npos) << p.message;
        out.problemLines.push_back(p.line);
    }
    return out;
}

TEST(DsfinvkCsv, RecordsAsExportersWriteThem)
{
    using Records = std::vector<std::vector<std::string>>;
    struct Case {
        const char* name;
        std::string text;
        tse::CsvEncoding encoding;
        Records records;
        std::vector<size_t> lines;
        std::vector<size_t> problems;
    };
    const std::vector<Case> cases = {
        {"quoted delimiter and quotes",
         "A;B\r\n\"x;y\";\"say \"\"hi\"\"\"\r\n",
         tse::CsvEncoding::Utf8,
         Records{{"x;y", "say \"hi\""}},
         {2},
         {}},
        // Bestellung-V1 separates order lines with CR inside processData.
        {"line breaks inside a field",
         "A;B\r\n\"1\r2\r\n3\n4\";z\r\nq;r\r\n",
         tse::CsvEncoding::Utf8,
         Records{{"1\r2\r\n3\n4", "z"}, {"q", "r"}},
         {2, 6},
         {}},
        {"byte order mark",
         "\xEF\xBB\xBF"
         "A;B\r\n1;2\r\n",
         tse::CsvEncoding::Utf8,
         Records{{"1", "2"}},
         {2},
         {}},
        {"byte order mark beats ANSI",
         "\xEF\xBB\xBF"
         "A;B\r\n\xC3\xA4;2\r\n",
         tse::CsvEncoding::Windows1252,
         Records{{"\xC3\xA4", "2"}},
         {2},
         {}},
        {"Windows-1252",
         "A;B\r\nM\xFC"
         "ller;\x80 5\r\n",
         tse::CsvEncoding::Windows1252,
         Records{{"M\xC3\xBCller", "\xE2\x82\xAC 5"}},
         {2},
         {}},
        {"CR-only lines", "A;B\r1;2\r3;4", tse::CsvEncoding::Utf8, Records{{"1", "2"}, {"3", "4"}}, {2, 3}, {}},
        {"LF-only lines and a blank line",
         "A;B\n1;2\n\n3;4\n",
         tse::CsvEncoding::Utf8,
         Records{{"1", "2"}, {"3", "4"}},
         {2, 4},
         {}},
        {"empty fields", "A;B;C\r\n;;\r\n", tse::CsvEncoding::Utf8, Records{{"", "", ""}}, {2}, {}},
        {"truncated inside a quote", "A;B\r\n1;2\r\n3;\"cut of", tse::CsvEncoding::Utf8, Records{{"1", "2"}}, {2}, {3}},
        {"too many fields, then good",
         "A;B\r\n1;2;3\r\n4;5\r\n",
         tse::CsvEncoding::Utf8,
         Records{{"4", "5"}},
         {3},
         {2}},
        {"text after closing quote",
         "A;B\r\n\"1\"x;2\r\n3;4\r\n",
         tse::CsvEncoding::Utf8,
         Records{{"3", "4"}},
         {3},
         {2}},
        {"stray quote in a bare field",
         "A;B\r\nKunde \"Nord;2\r\n3;4\r\n",
         tse::CsvEncoding::Utf8,
         Records{{"3", "4"}},
         {3},
         {2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tse::CsvDialect dialect;
        dialect.encoding = c.encoding;
        const Read read = readText(c.text, dialect);
        const bool three = c.text.find("A;B;C") != std::string::npos;
        const std::vector<std::string> header =
            three ? std::vector<std::string>{"A", "B", "C"} : std::vector<std::string>{"A", "B"};
        EXPECT_EQ(read.header, header);
        EXPECT_EQ(read.records, c.records);
        EXPECT_EQ(read.lines, c.lines);
        EXPECT_EQ(read.problemLines, c.problems);
    }
}

TEST(DsfinvkCsv, DeclaredLengthsAndDialect)
{
    // Lengths count characters, not bytes: "ä" is one.
    const std::vector<tse::CsvColumn> declared = {{"A", 3}, {"B", 0}};
    Read read = readText("A;B\r\n\xC3\xA4\xC3\xA4\xC3\xA4;long long long\r\nabcd;x\r\nok;y\r\n", {}, declared);
    EXPECT_EQ(read.records,
              (std::vector<std::vector<std::string>>{{"\xC3\xA4\xC3\xA4\xC3\xA4", "long long long"}, {"ok", "y"}}));
    EXPECT_EQ(read.problemLines, std::vector<size_t>{3});

    // No header line: the declared columns name the fields; another delimiter and no quoting.
    tse::CsvDialect dialect;
    dialect.headerLine = false;
    dialect.columnDelimiter = ',';
    dialect.textEncapsulator = '\0';
    read = readText("x,\"y\"\r\n", dialect, {{"A", 0}, {"B", 0}});
    EXPECT_EQ(read.header, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(read.records, (std::vector<std::vector<std::string>>{{"x", "\"y\""}}));

    // A field beyond every bound is refused without holding it whole.
    std::string huge = "A\r\n" + std::string(tse::MAX_CSV_FIELD + 10, 'x') + "\r\nok\r\n";
    read = readText(huge);
    EXPECT_EQ(read.records, (std::vector<std::vector<std::string>>{{"ok"}}));
    EXPECT_EQ(read.problemLines, std::vector<size_t>{2});
}

TEST(DsfinvkIndex, OfficialDescription)
{
    const tse::Result<tse::Bytes> file = tse::readFileBounded(DATA + "index.xml", tse::MAX_INDEX_XML);
    ASSERT_TRUE(file) << file.error().message;
    const tse::Result<std::vector<tse::TableDescription>> index = tse::parseIndexXml(*file);
    ASSERT_TRUE(index) << index.error().message;
    EXPECT_EQ(index->size(), 20u);
    const tse::TableDescription* rows = tse::findTable(*index, "export/TRANSACTIONS_TSE.csv");
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(rows->name, "TSE_Transaktionen");
    EXPECT_EQ(rows->dialect.encoding, tse::CsvEncoding::Utf8);
    EXPECT_EQ(rows->dialect.columnDelimiter, ';');
    EXPECT_EQ(rows->dialect.recordDelimiter, "\r\n");
    EXPECT_EQ(rows->dialect.textEncapsulator, '"');
    EXPECT_EQ(rows->dialect.decimalSymbol, ',');
    EXPECT_TRUE(rows->dialect.headerLine);
    ASSERT_EQ(rows->columns.size(), 13u);
    EXPECT_EQ(rows->columns.back().name, "TSE_VORGANGSDATEN");
    EXPECT_EQ(rows->columns.front().maxLength, 50u);

    const std::string ansi =
        "<DataSet><Version>1</Version><Media><Name>x</Name><Table><URL>a.csv</URL>"
        "<DecimalSymbol>.</DecimalSymbol><DigitGroupingSymbol>,</DigitGroupingSymbol>"
        "<VariableLength><ColumnDelimiter>&#x9;</ColumnDelimiter><VariableColumn><Name>A</Name>"
        "<AlphaNumeric/><MaxLength>5</MaxLength></VariableColumn></VariableLength></Table></Media></DataSet>";
    const tse::Result<std::vector<tse::TableDescription>> parsed = tse::parseIndexXml(tse::ByteView(ansi));
    ASSERT_TRUE(parsed) << parsed.error().message;
    ASSERT_EQ(parsed->size(), 1u);
    const tse::CsvDialect& dialect = parsed->front().dialect;
    EXPECT_EQ(dialect.encoding, tse::CsvEncoding::Windows1252);  // the document type's default
    EXPECT_EQ(dialect.columnDelimiter, '\t');
    EXPECT_EQ(dialect.decimalSymbol, '.');
    EXPECT_FALSE(dialect.headerLine);

    // Broken XML says where it broke; a document of the wrong kind cannot.
    const struct {
        std::string text;
        bool offset;
    } broken[] = {{"", true}, {"<DataSet><Media>", true}, {"<Other/>", false}, {"<DataSet/>", false}};
    for (const auto& b : broken) {
        const tse::Result<std::vector<tse::TableDescription>> bad = tse::parseIndexXml(tse::ByteView(b.text));
        ASSERT_FALSE(bad) << b.text;
        EXPECT_FALSE(bad.error().message.empty()) << b.text;
        EXPECT_EQ(bad.error().offset.has_value(), b.offset) << b.text;
    }
}

TEST(DsfinvkAmounts, TablesAndProcessData)
{
    struct Case {
        const char* text;
        char decimal, grouping;
        std::optional<int64_t> hundredths;
    };
    for (const Case& c : std::vector<Case>{{"15,00", ',', '.', 1500},
                                           {"1.234,5", ',', '.', 123450},
                                           {"-0,05", ',', '.', -5},
                                           {"3,000.00", '.', ',', 300000},
                                           {"2,345", ',', '.', 235},
                                           {"7", ',', '.', 700},
                                           {"", ',', '.', std::nullopt},
                                           {"1,2,3", ',', '.', std::nullopt},
                                           {"1,2x", ',', '.', std::nullopt}}) {
        EXPECT_EQ(tse::parseAmount(c.text, c.decimal, c.grouping), c.hundredths) << c.text;
    }
    const auto amounts = tse::parseReceiptAmounts("Beleg^3,000.00_20.00_0.00_0.00_1.50^10.00:Bar_3011.50:Unbar:USD");
    ASSERT_TRUE(amounts);
    EXPECT_EQ(amounts->vat[0], 300000);
    EXPECT_EQ(amounts->vat[4], 150);
    ASSERT_EQ(amounts->payments.size(), 2u);
    EXPECT_TRUE(amounts->payments[0].cash);
    EXPECT_EQ(amounts->payments[1].currency, "USD");
    EXPECT_TRUE(tse::parseReceiptAmounts("Beleg^0.00_0.00_0.00_0.00_0.00^"));
    EXPECT_FALSE(tse::parseReceiptAmounts("{\"json\": 1}"));
    EXPECT_FALSE(tse::parseReceiptAmounts("Beleg^1.00_2.00^1.00:Bar"));
}

TEST(DsfinvkTime, GermanLocalTime)
{
    struct Case {
        const char* local;
        const char* utc;
    };
    for (const Case& c : std::vector<Case>{{"2021-01-15T12:00:00Z", "2021-01-15T11:00:00Z"},
                                           {"2021-07-15T12:00:00Z", "2021-07-15T10:00:00Z"},
                                           // Summer time starts at 01:00 UTC on the last Sunday of March ...
                                           {"2021-03-28T01:59:59Z", "2021-03-28T00:59:59Z"},
                                           {"2021-03-28T03:00:00Z", "2021-03-28T01:00:00Z"},
                                           // ... and ends at 01:00 UTC on the last Sunday of October.
                                           {"2021-10-31T02:30:00Z", "2021-10-31T00:30:00Z"},
                                           {"2021-10-31T03:00:00Z", "2021-10-31T02:00:00Z"}}) {
        const auto local = tse::parseIsoTime(c.local);
        ASSERT_TRUE(local);
        EXPECT_EQ(tse::isoSeconds(tse::germanLocalToUtc(local->seconds)), c.utc) << c.local;
    }
}

}  // namespace

TEST(DsfinvkAmounts, ExactToTheFifthDecimal)
{
    struct Case {
        const char* text;
        char decimal, grouping;
        std::optional<int64_t> units;  // of 10^-5
    };
    for (const Case& c : std::vector<Case>{{"15,00", ',', '.', 1500000},
                                           {"1.234,56789", ',', '.', 123456789},
                                           {"-0,05", ',', '.', -5000},
                                           {"+7", ',', '.', 700000},
                                           {"3,000.00", '.', ',', 300000000},
                                           {"0,123450000", ',', '.', 12345},      // trailing zeros beyond the fifth
                                           {"0,123456", ',', '.', std::nullopt},  // a sixth digit is no cent of ours
                                           {"1,2,3", ',', '.', std::nullopt},
                                           {"1,2.3", ',', '.', std::nullopt},
                                           {".5", ',', '.', std::nullopt},
                                           {"12.50", ',', '.', std::nullopt},  // a decimal point by mistake
                                           {"1.234.567", ',', '.', 123456700000},
                                           {"", ',', '.', std::nullopt},
                                           {"-", ',', '.', std::nullopt},
                                           {"92233720368547,75808", ',', '.', std::nullopt},
                                           {"922337203685478", ',', '.', std::nullopt}}) {
        EXPECT_EQ(tse::parseExactAmount(c.text, c.decimal, c.grouping), c.units) << c.text;
    }
    EXPECT_EQ(tse::formatExactAmount(123456789), "1234.56");
    EXPECT_EQ(tse::formatExactAmount(-5000), "-0.05");
    EXPECT_EQ(tse::formatExactAmount(123456789, 5), "1234.56789");
}

TEST(DsfinvkAmounts, VatKeysMapOntoTheSignedAmounts)
{
    const std::vector<std::pair<uint32_t, std::optional<size_t>>> keys = {{1, 0},
                                                                          {11, 0},
                                                                          {21, 0},
                                                                          {2, 1},
                                                                          {12, 1},
                                                                          {22, 1},
                                                                          {3, 2},
                                                                          {13, 2},
                                                                          {43, 2},
                                                                          {4, 3},
                                                                          {5, 4},
                                                                          {6, 4},
                                                                          {7, 4},
                                                                          {8, 4},
                                                                          {9, std::nullopt},
                                                                          {1000, std::nullopt},
                                                                          {0, std::nullopt}};
    for (const auto& [key, field] : keys) EXPECT_EQ(tse::processDataField(key), field) << key;
}

TEST(DsfinvkIndex, RangeFromSaysWhetherAHeaderLineComes)
{
    for (const auto& [from, header] :
         std::vector<std::pair<std::string, bool>>{{"1", false}, {"2", true}, {"3", true}}) {
        const std::string xml = "<DataSet><Media><Table><URL>a.csv</URL><UTF8/><Range><From>" + from +
                                "</From></Range><VariableLength><VariableColumn><Name>A</Name></VariableColumn>"
                                "</VariableLength></Table></Media></DataSet>";
        const tse::Result<std::vector<tse::TableDescription>> parsed = tse::parseIndexXml(tse::ByteView(xml));
        ASSERT_TRUE(parsed) << parsed.error().message;
        EXPECT_EQ(parsed->front().dialect.headerLine, header) << from;
    }
}

TEST(DsfinvkModel, RecordsKeepTheirFieldsWhateverTheirLengths)
{
    tse::RecordPool pool;
    std::vector<std::pair<tse::RecordPool::Ref, std::vector<std::string>>> written;
    for (const size_t length :
         {size_t{0}, size_t{1}, size_t{127}, size_t{128}, size_t{16383}, size_t{16384}, size_t{1} << 20}) {
        std::vector<std::string> fields = {std::string(length, 'a'), "", std::string(length / 2 + 1, '\xFF')};
        written.emplace_back(pool.add({fields[0], fields[1], fields[2]}), fields);
    }
    for (const auto& [ref, fields] : written) {
        for (size_t i = 0; i < fields.size(); ++i) EXPECT_EQ(pool.field(ref, i), fields[i]) << fields[0].size();
        EXPECT_EQ(pool.field(ref, fields.size()), "");
    }
}
