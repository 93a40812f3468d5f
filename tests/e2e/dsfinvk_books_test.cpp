// The bookkeeping in itself: each defect make-dsfinvk plants gives exactly
// its finding in the text report and in JSON, the writers' variants give
// none, a missing table skips only its checks, and TSE-failure rows are
// linked to the Finish logs that signed their sales. Reports are parsed.
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "dsfinvk_tables.h"
#include "dsfinvk_zip.h"
#include "fixtures.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;
using Codes = std::multiset<std::string>;

const std::string REAL = fixtures::realExportsFolder();
const std::string CLOUD = REAL + "2021-09-30_63641_TSE.tar";
const std::string JSON_TSE = REAL + "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015.tar";

fixtures::RunResult make(const std::string& program, const std::vector<std::string>& arguments)
{
    return fixtures::run(fixtures::toolPath(program), arguments, {}, {180, 0});
}

struct Report {
    int status = -1;
    json document;
    Codes codes, text;  // the finding codes, each as often as found
};

Report check(const std::string& books, const std::string& tse)
{
    std::vector<std::string> arguments = {"dsfinvk", books};
    if (!tse.empty()) arguments.insert(arguments.end(), {"--tse", tse});
    // One run gives both: the text on standard output, the JSON to a file.
    const fixtures::TempDir out;
    arguments.insert(arguments.end(), {"--json", out.path("report.json")});
    const fixtures::RunResult text = fixtures::run(fixtures::tseCheckPath(), arguments, {}, {180, 0});
    Report r;
    r.status = text.status;
    r.document = json::parse(fixtures::fileText(out.path("report.json")), nullptr, false);
    EXPECT_FALSE(r.document.is_discarded()) << text.err;
    if (r.document.is_discarded()) return r;
    for (const json& f : r.document["findings"]) r.codes.insert(f["code"].get<std::string>());
    // "  error  closing-sum-differs (2)"
    const std::regex heading(R"(^\s+(error|warning)\s+([a-z-]+) \((\d+)\)$)");
    std::istringstream lines(text.out);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (!std::regex_match(line, m, heading)) continue;
        for (int i = std::stoi(m[3]); i > 0; --i) r.text.insert(m[2]);
    }
    return r;
}

// What the real pairs give untouched: the cloud export's own counter gap,
// the other's unfinished transactions.
Codes withoutBaseline(const Codes& codes)
{
    Codes out;
    for (const std::string& code : codes) {
        if (code != "counter-gap" && code != "transaction-incomplete") out.insert(code);
    }
    return out;
}

struct Defect {
    std::string name;
    Codes expected;
};

std::vector<Defect> listedDefects()
{
    std::vector<Defect> out;
    std::istringstream lines(make("make-dsfinvk", {"--list-defects"}).out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        Defect d;
        std::string codes;
        fields >> d.name >> codes;
        std::istringstream each(codes);
        for (std::string code; std::getline(each, code, ',');) {
            if (code != "-") d.expected.insert(code);
        }
        out.push_back(d);
    }
    return out;
}

// A sale whose row is gone also leaves its receipt without one: a finding
// of its own, expected beside the planted one.
bool dropsRows(const std::string& defect)
{
    return defect.find("row-dropped") != std::string::npos || defect.find("rows-dropped") != std::string::npos;
}

TEST(DsfinvkBooks, EachPlantedDefectGivesExactlyItsFinding)
{
    const std::vector<Defect> defects = listedDefects();
    // Every finding of the bookkeeping in itself has a defect that plants it.
    Codes planted;
    for (const Defect& d : defects) planted.insert(d.expected.begin(), d.expected.end());
    for (const char* code : {"reference-missing", "receipt-sum-differs", "closing-sum-differs", "closing-gap",
                             "bon-duplicate", "bon-gap", "receipt-outside-closing", "vat-rate-wrong",
                             "unsigned-but-signed", "failure-while-signing", "field-format"}) {
        EXPECT_TRUE(planted.count(code)) << code;
    }
    for (const std::string& tse : {CLOUD, JSON_TSE}) {
        for (const Defect& d : defects) {
            SCOPED_TRACE(d.name + " on " + fs::path(tse).filename().string());
            fixtures::TempDir dir;
            // The other export signs no amounts: defects of amounts cannot be planted there.
            if (make("make-dsfinvk", {"--tse", tse, "--out", dir.path("d"), "--defect", d.name}).status != 0) {
                EXPECT_NE(tse, CLOUD);
                continue;
            }
            const Report r = check(dir.path("d"), tse);
            Codes got = withoutBaseline(r.codes);
            if (dropsRows(d.name)) got.erase("receipt-without-tse");
            EXPECT_EQ(got, d.expected) << r.document["findings"].dump(1);
            EXPECT_EQ(r.text, r.codes);
            // Beside the signed text, the one rebuilt from the booked amounts.
            for (const json& f : r.document["findings"]) {
                if (f["code"] != "amounts-differ") continue;
                EXPECT_NE(f["message"].get<std::string>().find("processData rebuilt from the bookkeeping: \"Beleg^"),
                          std::string::npos)
                    << f["message"];
            }
        }
    }
}

// The words of the numbering findings name what an auditor looks up: the
// register, the closings, the numbers and times on both sides of the fault,
// and the message agrees with itself (the missing number lies between the
// two, the earlier closing is earlier, the receipt ends after the period).
TEST(DsfinvkBooks, NumberingFindingsNameBothSidesOfTheFault)
{
    const struct {
        const char* defect;
        const char* severity;
        std::regex words;
        std::function<void(const std::smatch&)> agrees;
    } cases[] = {
        {"closing-gap", "error",
         std::regex(R"(cashpointclosing\.csv:\d+: closing numbers of register "Kasse 1": (\d+) \(created [^)]+\) )"
                    R"(follows (\d+) \(created [^)]+\): (\d+) missing$)"),
         [](const std::smatch& m) {
             EXPECT_EQ(std::stoi(m[3]), std::stoi(m[2]) + 1);
             EXPECT_EQ(std::stoi(m[1]), std::stoi(m[2]) + 2);
         }},
        {"bon-duplicate", "error",
         std::regex(R"(^closing (\d+) of register "Kasse 1" \(created [^)]+\): receipts with a BON_ID an earlier )"
                    R"(receipt of the register has: 1 receipt: BON_ID "\d+" \(first in closing (\d+)\)$)"),
         [](const std::smatch& m) { EXPECT_LT(std::stoi(m[2]), std::stoi(m[1])); }},
        {"receipt-outside-closing", "warning",
         std::regex(R"(^closing \d+ of register "Kasse 1" \(created ([0-9T:-]+)Z\): receipts that end outside its )"
                    R"(period \(after ([0-9T:-]+)Z, up to its creation\): 1 receipt: BON_ID "\d+" ended )"
                    R"("([0-9T:-]+)\.\d+Z"$)"),
         [](const std::smatch& m) {
             // ISO 8601 texts of one form order as their times do.
             EXPECT_LT(m[2].str(), m[1].str());
             EXPECT_GT(m[3].str(), m[1].str());
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.defect);
        fixtures::TempDir dir;
        ASSERT_EQ(make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d"), "--defect", c.defect}).status, 0);
        const Report r = check(dir.path("d"), CLOUD);
        int seen = 0;
        for (const json& f : r.document["findings"]) {
            if (f["code"] != c.defect) continue;
            ++seen;
            EXPECT_EQ(f["severity"], c.severity);
            const std::string message = f["message"];
            std::smatch m;
            if (!std::regex_search(message, m, c.words)) {
                ADD_FAILURE() << message;
                continue;
            }
            c.agrees(m);
        }
        EXPECT_EQ(seen, 1) << r.document["findings"].dump(1);
    }
}

TEST(DsfinvkBooks, WritersVariantsAndBothRealPairsGiveNoFinding)
{
    for (const std::string& tse : {CLOUD, JSON_TSE}) {
        for (const std::string variant : {"", "empty-zero-amounts", "no-cashless-currency-row", "vat-from-lines"}) {
            SCOPED_TRACE(variant + " on " + fs::path(tse).filename().string());
            fixtures::TempDir dir;
            std::vector<std::string> arguments = {"--tse", tse, "--out", dir.path("d"), "--lines", "3"};
            if (!variant.empty()) arguments.insert(arguments.end(), {"--variant", variant});
            ASSERT_EQ(make("make-dsfinvk", arguments).status, 0);
            for (const std::string& against : {tse, std::string()}) {
                const Report r = check(dir.path("d"), against);
                EXPECT_EQ(withoutBaseline(r.codes), Codes{}) << r.document["findings"].dump(1);
                EXPECT_EQ(r.status, 0);
            }
        }
    }
}

TEST(DsfinvkBooks, AMissingTableSkipsOnlyItsChecks)
{
    struct Case {
        std::string defect, removed, skipped;  // skipped: words of the table-missing warning
    };
    const std::vector<Case> cases = {
        {"vat-rate-wrong", "vat.csv", "VAT rates"},
        {"closing-sum-differs", "datapayment.csv", "closings' payments and cash"},
        {"receipt-sum-differs", "lines_vat.csv", "lines against their VAT table"},
        {"reference-missing", "references.csv", "references between receipts"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.removed);
        fixtures::TempDir dir;
        ASSERT_EQ(make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d"), "--defect", c.defect}).status, 0);
        fs::remove(dir.path("d") + "/" + c.removed);
        const Report r = check(dir.path("d"), CLOUD);
        EXPECT_EQ(withoutBaseline(r.codes), Codes{"table-missing"}) << r.document["findings"].dump(1);
        for (const json& f : r.document["findings"]) {
            if (f["code"] != "table-missing") continue;
            const std::string message = f["message"];
            EXPECT_NE(message.find(c.removed), std::string::npos) << message;
            EXPECT_NE(message.find(c.skipped), std::string::npos) << message;
        }
    }
}

TEST(DsfinvkBooks, TheHtmlReportShowsTheClosingsTotalsAndMarksWhatDiffers)
{
    fixtures::TempDir dir;
    ASSERT_EQ(make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d"), "--defect", "closing-sum-differs"}).status,
              0);
    const fixtures::RunResult r =
        fixtures::run(fixtures::tseCheckPath(), {"dsfinvk", dir.path("d"), "--html", dir.path("r.html")}, {}, {180, 0});
    EXPECT_EQ(r.status, 1) << r.err;
    std::ifstream in(dir.path("r.html"));
    const std::string page((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t section = page.find("The bookkeeping in itself");
    ASSERT_NE(section, std::string::npos);
    const size_t marked = page.find("DIFFERS", section);
    ASSERT_NE(marked, std::string::npos);
    // The row marked is the planted one: Z_SE_BARZAHLUNGEN 10.00 below its payments.
    const size_t row = page.rfind("<tr", marked);
    EXPECT_NE(page.substr(row, marked - row).find("Z_SE_BARZAHLUNGEN"), std::string::npos);
    EXPECT_EQ(page.find("DIFFERS", marked + 1), std::string::npos) << "one total differs";
}

TEST(DsfinvkBooks, ProcessDataIsRebuiltOnlyFromTablesThatAreThere)
{
    fixtures::TempDir dir;
    ASSERT_EQ(make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d")}).status, 0);
    fixtures::DsfinvkTable rows(dir.path("d"), "transactions_tse.csv");
    for (size_t i = 0; i < rows.rows.size(); ++i) rows.at(i, "TSE_VORGANGSDATEN").clear();
    rows.save();
    // Rebuilt from the booked amounts, every signature holds.
    const Report rebuilt = check(dir.path("d"), "");
    EXPECT_EQ(rebuilt.codes, Codes{}) << rebuilt.document["findings"].dump(1);
    EXPECT_EQ(rebuilt.document["summary"]["valid"], 51);
    size_t said = 0;
    for (const json& t : rebuilt.document["transactions"]) {
        said += t["reason"].get<std::string>().find("rebuilt from the bookkeeping") != std::string::npos;
    }
    EXPECT_EQ(said, 51u);
    // Without the VAT table only the TSE export's Finish logs can vouch for them.
    fs::remove(dir.path("d") + "/transactions_vat.csv");
    const Report logs = check(dir.path("d"), CLOUD);
    EXPECT_EQ(logs.codes.count("processdata-missing"), 51u) << logs.document["findings"].dump(1);
    EXPECT_EQ(std::set<std::string>(logs.codes.begin(), logs.codes.end()),
              (std::set<std::string>{"counter-gap", "processdata-missing", "table-missing"}));
}

TEST(DsfinvkBooks, FieldRulesAreCountedPerRuleAndTable)
{
    struct Case {
        std::string table, column;
        std::function<std::string(const std::string&)> value;  // the new value from the old
        size_t rows;                                           // edited, from the first
        std::string code, words;
    };
    const std::vector<Case> cases = {
        // Read in any case for the signatures, but not one of the names.
        {"tse.csv", "TSE_ZEITFORMAT", [](const std::string&) { return "epoch"; }, 7, "field-invalid",
         "TSE_ZEITFORMAT outside its fixed vocabulary: 7 rows"},
        {"lines.csv", "ARTIKELTEXT", [](const std::string&) { return std::string(300, 'x'); }, 5, "field-format",
         "ARTIKELTEXT longer than the 255 characters index.xml declares: 5 rows"},
        // The same quantity, with a fourth decimal place where three are declared.
        {"lines.csv", "MENGE", [](const std::string& old) { return old + "0"; }, 2, "field-format",
         "MENGE with more than the 3 decimal places index.xml declares: 2 rows"},
        {"datapayment.csv", "ZAHLART_TYP", [](const std::string& old) { return old == "Bar" ? "bar" : old; }, 1,
         "field-invalid", "ZAHLART_TYP outside its fixed vocabulary: 1 row"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.table + " " + c.column);
        fixtures::TempDir dir;
        ASSERT_EQ(make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d")}).status, 0);
        fixtures::DsfinvkTable table(dir.path("d"), c.table);
        ASSERT_GE(table.rows.size(), c.rows);
        for (size_t i = 0; i < c.rows; ++i) table.at(i, c.column) = c.value(table.at(i, c.column));
        table.save();
        const Report r = check(dir.path("d"), "");
        Codes expected{c.code};
        // A cash payment that is no longer one moves the closing's cash
        // total and is no longer the signed cash payment.
        if (c.column == "ZAHLART_TYP") expected.insert({"closing-sum-differs", "amounts-differ"});
        EXPECT_EQ(r.codes, expected) << r.document["findings"].dump(1);
        for (const json& f : r.document["findings"]) {
            if (f["code"] != c.code) continue;
            const std::string message = f["message"];
            EXPECT_NE(message.find(c.words), std::string::npos) << message;
            EXPECT_EQ(message.find("and " + std::to_string(c.rows - 3) + " more") != std::string::npos, c.rows > 3)
                << message;
        }
    }
}

TEST(DsfinvkBooks, ReceiptsTakenOutLeaveGapsTheClosingsStillCount)
{
    fixtures::TempDir dir;
    ASSERT_EQ(make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d")}).status, 0);
    const std::set<std::string> gone = {"5", "6", "7", "10"};
    for (const char* name : {"transactions.csv", "transactions_tse.csv", "transactions_vat.csv", "datapayment.csv",
                             "lines.csv", "lines_vat.csv"}) {
        fixtures::DsfinvkTable table(dir.path("d"), name);
        const size_t bon = table.column("BON_ID");
        table.removeIf([&](const std::vector<std::string>& row) { return gone.count(row[bon]) != 0; });
        table.save();
    }
    const Report r = check(dir.path("d"), "");
    EXPECT_EQ(r.codes, (Codes{"bon-gap", "closing-sum-differs"})) << r.document["findings"].dump(1);
    for (const json& f : r.document["findings"]) {
        if (f["code"] == "bon-gap") {
            EXPECT_NE(f["message"].get<std::string>().find("4 missing between 1 and 51: 5-7, 10"), std::string::npos)
                << f["message"];
        }
    }
    // The closing of receipts 5 to 7 books them in its totals still.
    size_t differing = 0;
    for (const json& c : r.document["closings"]) differing += c["differs"].get<bool>();
    EXPECT_GE(differing, 1u);
}

// Turns the rows of these transaction numbers into TSE failures without
// number, times or signature, as a register that claims the TSE was down.
void bookAsFailures(const std::string& books, const std::set<std::string>& numbers)
{
    fixtures::DsfinvkTable rows(books, "transactions_tse.csv");
    for (size_t i = 0; i < rows.rows.size(); ++i) {
        if (!numbers.count(rows.at(i, "TSE_TANR"))) continue;
        for (const char* column :
             {"TSE_TANR", "TSE_TA_START", "TSE_TA_ENDE", "TSE_TA_SIGZ", "TSE_TA_SIG", "TSE_VORGANGSDATEN"}) {
            rows.at(i, column).clear();
        }
        rows.at(i, "TSE_TA_FEHLER") = "TSE ausgefallen";
    }
    rows.save();
}

TEST(DsfinvkBooks, FailureRowsAreLinkedToTheLogsThatSignedThem)
{
    // Every sale of this export has the same amounts: only time tells them apart.
    fixtures::TempDir dir;
    ASSERT_EQ(make("make-export",
                   {"--out", dir.path("t"), "--format", "dir", "-n", "6", "--interval", "600", "--curve", "secp256r1"})
                  .status,
              0);
    ASSERT_EQ(make("make-dsfinvk", {"--tse", dir.path("t"), "--out", dir.path("d")}).status, 0);
    const fixtures::DsfinvkTable before(dir.path("d"), "transactions_tse.csv");
    std::map<std::string, std::string> bonOf;  // transaction number -> BON_ID
    for (size_t i = 0; i < before.rows.size(); ++i) {
        bonOf[before.rows[i][before.column("TSE_TANR")]] = before.rows[i][before.column("BON_ID")];
    }
    bookAsFailures(dir.path("d"), {"2", "5"});
    const Report r = check(dir.path("d"), dir.path("t"));
    EXPECT_EQ(r.codes, (Codes{"unsigned-but-signed", "unsigned-but-signed"})) << r.document["findings"].dump(1);
    EXPECT_EQ(r.document["summary"]["unbooked"], 0);
    for (const json& f : r.document["findings"]) {
        const std::string message = f["message"];
        const std::string number = message.find("transaction 2 ") != std::string::npos ? "2" : "5";
        EXPECT_EQ(f["transactions"][0], "Kasse 1/" + bonOf[number]) << message;
        ASSERT_EQ(f["transactions"].size(), 2u);
        const std::string log = f["transactions"][1];
        EXPECT_EQ(log.substr(log.rfind('/')), "/" + number) << log;
    }
}

TEST(DsfinvkBooks, RegistersAcrossTheRateChangeOf2021AddUpExactly)
{
    fixtures::TempDir dir;
    for (const std::string client : {"KASSE-A", "KASSE-B"}) {
        ASSERT_EQ(make("make-export",
                       {"--out", dir.path(client), "--format", "dir", "-n", "40", "--interval", "1800", "--start",
                        "2020-12-31T12:00:00Z", "--varied", "--curve", "secp256r1", "--client", client})
                      .status,
                  0);
    }
    ASSERT_EQ(make("make-dsfinvk",
                   {"--tse", dir.path("KASSE-A"), dir.path("KASSE-B"), "--out", dir.path("d"), "--lines", "4"})
                  .status,
              0);
    const Report clean = check(dir.path("d"), "");
    EXPECT_EQ(clean.codes, Codes{}) << clean.document["findings"].dump(1);
    std::set<std::string> registers;
    for (const json& c : clean.document["closings"]) {
        registers.insert(c["kasseId"].get<std::string>());
        EXPECT_FALSE(c["differs"].get<bool>());
        for (const json& t : c["totals"]) EXPECT_EQ(t["booked"], t["computed"]) << t.dump();
    }
    EXPECT_EQ(registers.size(), 2u);
    // The 2020 rate kept into 2021 is wrong, and only there.
    fixtures::DsfinvkTable vat(dir.path("d"), "vat.csv");
    for (size_t i = 0; i < vat.rows.size(); ++i) {
        if (vat.at(i, "UST_SCHLUESSEL") == "1") vat.at(i, "UST_SATZ") = "16,00";
    }
    vat.save();
    const Report wrong = check(dir.path("d"), "");
    EXPECT_GE(wrong.codes.count("vat-rate-wrong"), 1u);
    for (const json& f : wrong.document["findings"]) {
        EXPECT_EQ(f["code"], "vat-rate-wrong");
        EXPECT_NE(f["message"].get<std::string>().find("2021-01-"), std::string::npos) << f["message"];
    }
}

}  // namespace
