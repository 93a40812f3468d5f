// tse-check dsfinvk on DSFinV-K exports that make-dsfinvk derives from the
// real TSE exports and from make-export's: every signature in them is
// real. The JSON and CSV reports are parsed back.
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fixtures.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();
const std::string CLOUD = REAL + "2021-09-30_63641_TSE.tar";  // Kassenbeleg-V1, unixTime
const std::string JSON_TSE = REAL + "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015.tar";  // utcTime

void make(const std::string& program, const std::vector<std::string>& arguments)
{
    const fixtures::RunResult made = fixtures::run(fixtures::toolPath(program), arguments, {}, {120, 0});
    ASSERT_EQ(made.status, 0) << program << ": " << made.err;
}

struct Check {
    int status = -1;
    json report;
    std::string err;
};

Check dsfinvk(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {"dsfinvk", "--json", "-"});
    const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), arguments, {}, {120, 0});
    Check result{run.status, json::parse(run.out.empty() ? "null" : run.out, nullptr, false), run.err};
    EXPECT_FALSE(result.report.is_discarded()) << run.out << run.err;
    return result;
}

std::multiset<std::string> codes(const json& report)
{
    std::multiset<std::string> out;
    for (const json& finding : report["findings"]) out.insert(finding["code"].get<std::string>());
    return out;
}

std::map<std::string, size_t> matches(const json& report)
{
    std::map<std::string, size_t> out;
    for (const json& t : report["transactions"])
        out[t["match"].is_null() ? "null" : t["match"].get<std::string>()] += 1;
    return out;
}

TEST(Dsfinvk, RealExportsVerifyAndMatchRowByRow)
{
    struct Case {
        std::string tse;
        size_t rows;
        std::multiset<std::string> findings;  // the TSE exports' own: a counter gap, three transactions left open
    };
    for (const Case& c : std::vector<Case>{
             {CLOUD, 51, {"counter-gap"}},
             {JSON_TSE, 70, {"transaction-incomplete", "transaction-incomplete", "transaction-incomplete"}}}) {
        SCOPED_TRACE(c.tse);
        fixtures::TempDir dir;
        make("make-dsfinvk", {"--tse", c.tse, "--out", dir.path("dsfinvk")});
        const Check check = dsfinvk({dir.path("dsfinvk"), "--tse", c.tse});
        EXPECT_EQ(check.status, 0) << check.err;
        const json& s = check.report["summary"];
        EXPECT_EQ(s["rows"], c.rows);
        EXPECT_EQ(s["valid"], c.rows);
        EXPECT_EQ(s["matched"], c.rows);
        EXPECT_EQ(s["errors"], 0);
        EXPECT_EQ(codes(check.report), c.findings);
        for (const json& t : check.report["transactions"]) {
            EXPECT_EQ(t["verdict"], "valid") << t.dump();
            EXPECT_EQ(t["match"], "matched") << t.dump();
            EXPECT_EQ(t["clientIdSource"], "KASSE_SERIENNR");
            EXPECT_EQ(t["serialNumber"].get<std::string>().size(), 64u);
        }
        // From the bookkeeping alone the same rows verify, and nothing is matched.
        const Check alone = dsfinvk({dir.path("dsfinvk")});
        EXPECT_EQ(alone.status, 0);
        EXPECT_EQ(alone.report["summary"]["valid"], c.rows);
        EXPECT_TRUE(alone.report["tse"].is_null());
        EXPECT_EQ(matches(alone.report), (std::map<std::string, size_t>{{"null", c.rows}}));
    }
}

TEST(Dsfinvk, EachPlantedDefectGivesExactlyItsFinding)
{
    struct Case {
        std::string defect;
        int status;
        std::vector<std::string> findings;  // the first names the transaction the defect concerns
        std::string verdict, match;         // of that transaction
        std::string difference;
    };
    const std::vector<Case> cases = {
        {"row-dropped", 1, {"transaction-unbooked", "receipt-without-tse"}, "valid", "unbooked", ""},
        {"amount-edited", 1, {"signature-invalid", "transaction-differs"}, "invalid", "differs", "processData"},
        {"local-time", 0, {"local-time"}, "valid", "matched", ""},
        {"tse-failure", 1, {"unsigned-but-signed"}, "unsigned", "differs", "signature"},
        {"extra-row", 1, {"signature-invalid", "transaction-unknown"}, "invalid", "unknown", ""},
        {"old-column", 0, {}, "", "", ""},
        {"wrong-serial", 1, {"serial-mismatch"}, "", "", ""},
        {"malformed-line", 1, {"csv-malformed"}, "", "", ""},
        {"amounts-differ", 1, {"amounts-differ"}, "valid", "matched", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.defect);
        fixtures::TempDir dir;
        make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d"), "--defect", c.defect});
        const Check check = dsfinvk({dir.path("d"), "--tse", CLOUD});
        EXPECT_EQ(check.status, c.status) << check.err;
        std::multiset<std::string> expected(c.findings.begin(), c.findings.end());
        expected.insert("counter-gap");  // the real export's own
        EXPECT_EQ(codes(check.report), expected) << check.report["findings"].dump(1);
        if (c.findings.empty() || c.verdict.empty()) continue;
        // The finding names the transaction, and the transaction carries the verdict.
        json finding;
        for (const json& f : check.report["findings"]) {
            if (f["code"] == c.findings.front() && finding.is_null()) finding = f;
        }
        ASSERT_FALSE(finding["transactions"].empty());
        const std::string label = finding["transactions"][0];
        bool found = false;
        for (const json& t : check.report["transactions"]) {
            const std::string own = t["bonId"].is_null()
                                        ? "TSE " + t["serialNumber"].get<std::string>().substr(0, 16) + ".../" +
                                              std::to_string(t["transactionNumber"].get<uint64_t>())
                                        : t["kasseId"].get<std::string>() + "/" + t["bonId"].get<std::string>();
            if (own != label) continue;
            found = true;
            EXPECT_EQ(t["verdict"], c.verdict);
            EXPECT_EQ(t["match"], c.match);
            if (!c.difference.empty()) {
                EXPECT_NE(std::find(t["differences"].begin(), t["differences"].end(), c.difference),
                          t["differences"].end());
            }
            if (c.defect == "local-time") {
                EXPECT_NE(t["reason"].get<std::string>().find("German local time"), std::string::npos);
            }
        }
        EXPECT_TRUE(found) << label;
    }
    // --strict turns the warning into a failure.
    fixtures::TempDir dir;
    make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d"), "--defect", "local-time"});
    EXPECT_EQ(dsfinvk({dir.path("d"), "--tse", CLOUD, "--strict"}).status, 1);
}

TEST(Dsfinvk, PeriodsAndCoverage)
{
    fixtures::TempDir dir;
    make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("first.zip"), "--format", "zip", "--part", "1/2"});
    make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("second.tar"), "--format", "tar", "--part", "2/2"});
    // Two consecutive periods read as one cover the TSE export exactly.
    Check both = dsfinvk({dir.path("first.zip"), dir.path("second.tar"), "--tse", CLOUD});
    EXPECT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(codes(both.report), std::multiset<std::string>{"counter-gap"});
    EXPECT_EQ(matches(both.report), (std::map<std::string, size_t>{{"matched", 51}}));
    // One period alone: the other half of the TSE's sales lies outside it,
    // which is no finding.
    Check half = dsfinvk({dir.path("first.zip"), "--tse", CLOUD});
    EXPECT_EQ(half.status, 0) << half.err;
    EXPECT_EQ(codes(half.report), std::multiset<std::string>{"counter-gap"});
    // The parts end with whole business days: the first holds 26 sales,
    // up to the end of the day in which the 25th falls.
    EXPECT_EQ(matches(half.report), (std::map<std::string, size_t>{{"matched", 26}, {"outside", 25}}));
    Check second = dsfinvk({dir.path("second.tar"), "--tse", CLOUD});
    EXPECT_EQ(matches(second.report), (std::map<std::string, size_t>{{"matched", 25}, {"outside", 26}}));
    // The CSV report has one row per transaction.
    const fixtures::RunResult csv =
        fixtures::run(fixtures::tseCheckPath(), {"dsfinvk", dir.path("first.zip"), "--tse", CLOUD, "--csv", "-"});
    EXPECT_EQ(csv.status, 0);
    std::istringstream lines(csv.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line.rfind("bonId,kasseId,closing,clientId,serialNumber,transactionNumber", 0), 0u);
    size_t rows = 0, outside = 0;
    while (std::getline(lines, line)) ++rows, outside += line.find(",outside,") != std::string::npos;
    EXPECT_EQ(rows, 51u);
    EXPECT_EQ(outside, 25u);
}

TEST(Dsfinvk, GeneratedExportsOnEveryCurveAndTimeFormat)
{
    for (const std::string curve :
         {"secp256r1", "secp384r1", "secp521r1", "brainpoolP256r1", "brainpoolP384r1", "brainpoolP512r1"}) {
        for (const std::string format : {"unixTime", "utcTime", "generalizedTime"}) {
            SCOPED_TRACE(curve + " " + format);
            fixtures::TempDir dir;
            make("make-export", {"--out", dir.path("tse.tar"), "-n", "4", "--curve", curve, "--time-format", format});
            const bool spki = curve == "secp384r1" || curve == "brainpoolP256r1";
            std::vector<std::string> arguments = {"--tse", dir.path("tse.tar"), "--out", dir.path("d")};
            if (spki) arguments.push_back("--spki-key");
            make("make-dsfinvk", arguments);
            const Check check = dsfinvk({dir.path("d"), "--tse", dir.path("tse.tar")});
            EXPECT_EQ(check.status, 0) << check.err;
            EXPECT_EQ(check.report["summary"]["valid"], 4);
            EXPECT_EQ(check.report["summary"]["matched"], 4);
            EXPECT_EQ(check.report["tses"][0]["curve"], curve);
            EXPECT_EQ(codes(check.report), std::multiset<std::string>{});
        }
    }
}

TEST(Dsfinvk, SeveralTsesRegistersAndTerminals)
{
    fixtures::TempDir dir;
    make("make-export", {"--out", dir.path("a.tar"), "-n", "5", "--curve", "brainpoolP256r1", "--client", "KASSE-A"});
    make("make-export",
         {"--out", dir.path("b"), "--format", "dir", "-n", "3", "--curve", "secp256r1", "--client", "KASSE-B"});
    for (const bool terminals : {false, true}) {
        SCOPED_TRACE(terminals ? "terminals" : "registers");
        const std::string out = dir.path(terminals ? "terminals" : "registers");
        std::vector<std::string> arguments = {"--tse", dir.path("a.tar"), dir.path("b"), "--out", out};
        if (terminals) arguments.push_back("--terminals");
        make("make-dsfinvk", arguments);
        const Check check = dsfinvk({out, "--tse", dir.path("a.tar"), dir.path("b")});
        EXPECT_EQ(check.status, 0) << check.err;
        EXPECT_EQ(check.report["tses"].size(), 2u);
        EXPECT_EQ(matches(check.report), (std::map<std::string, size_t>{{"matched", 8}}));
        std::map<std::string, std::string> clientOfKasse;
        for (const json& t : check.report["transactions"]) {
            EXPECT_EQ(t["clientIdSource"], terminals ? "TERMINAL_SERIENNR" : "KASSE_SERIENNR");
            clientOfKasse[t["clientId"]] = t["kasseId"];
        }
        EXPECT_EQ(clientOfKasse.size(), 2u);
        if (!terminals) {
            EXPECT_NE(clientOfKasse["KASSE-A"], clientOfKasse["KASSE-B"]);
        }
        // Against only one of the TSE exports, the other TSE's rows lie outside it.
        const Check one = dsfinvk({out, "--tse", dir.path("a.tar")});
        EXPECT_EQ(matches(one.report), (std::map<std::string, size_t>{{"matched", 5}, {"outside", 3}}));
    }
}

TEST(Dsfinvk, StartedOnOneClientFinishedOnAnother)
{
    // Transaction 31 of this cloud TSE was started by one client and finished
    // by another: the Finish log's client signs, and the join is by serial.
    fixtures::TempDir dir;
    make("make-dsfinvk", {"--tse", JSON_TSE, "--out", dir.path("d")});
    const Check check = dsfinvk({dir.path("d"), "--tse", JSON_TSE});
    bool seen = false;
    for (const json& t : check.report["transactions"]) {
        if (t["transactionNumber"] != 31) continue;
        seen = true;
        EXPECT_EQ(t["verdict"], "valid");
        EXPECT_EQ(t["match"], "matched");
        EXPECT_EQ(t["clientId"].get<std::string>().rfind("c3c735b3", 0), 0u);
    }
    EXPECT_TRUE(seen);
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void spill(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// tse.csv is written without quotes; its tenth and eleventh fields are the certificate.
std::vector<std::vector<std::string>> tseRows(const std::string& text)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::vector<std::string> fields;
        std::istringstream parts(line);
        for (std::string field; std::getline(parts, field, ';');) fields.push_back(field);
        if (line.back() == ';') fields.emplace_back();
        rows.push_back(fields);
    }
    return rows;
}

TEST(Dsfinvk, FindingsFromEditedTables)
{
    struct Case {
        std::string name;
        std::function<void(const std::string& dir, const fixtures::TempDir& scratch)> edit;
        bool againstTse;
        std::multiset<std::string> findings;
        std::string verdict;  // of the first row
    };
    const std::vector<Case> cases = {
        {"a row booked twice",
         [](const std::string& d, const fixtures::TempDir&) {
             const std::string text = slurp(d + "/transactions_tse.csv");
             const size_t first = text.find("\r\n") + 2, second = text.find("\r\n", first) + 2;
             spill(d + "/transactions_tse.csv", text + text.substr(first, second - first));
         },
         true,
         {"transaction-duplicate", "transaction-duplicate", "counter-gap"},
         "valid"},
        {"processData left out",
         [](const std::string& d, const fixtures::TempDir&) {
             std::string text = slurp(d + "/transactions_tse.csv");
             const std::string data = "Beleg^62.00_0.00_0.00_0.00_0.00^66.30:Bar\r\n";
             text.replace(text.find(data), data.size(), "\r\n");
             spill(d + "/transactions_tse.csv", text);
         },
         // The booked amounts rebuild it, and the signature holds over them.
         true,
         {"counter-gap"},
         "valid"},
        {"a TSE failure without the TSE export",
         [](const std::string& d, const fixtures::TempDir&) {
             std::string text = slurp(d + "/transactions_tse.csv");
             const size_t first = text.find("\r\n") + 2, end = text.find("\r\n", first);
             std::string line = text.substr(first, end - first);
             // Keep the closing key, BON_ID, TSE_ID and TSE_TANR; the rest is the failure.
             size_t at = 0;
             for (int i = 0; i < 6; ++i) at = line.find(';', at) + 1;
             line = line.substr(0, at) + ";;;;;TSE ausgefallen;";
             spill(d + "/transactions_tse.csv", text.substr(0, first) + line + text.substr(end));
         },
         false,
         {"unsigned-transaction"},
         "unsigned"},
        {"another TSE's certificate",
         [](const std::string& d, const fixtures::TempDir& scratch) {
             make("make-export", {"--out", scratch.path("other.tar"), "-n", "1", "--curve", "secp256r1"});
             make("make-dsfinvk", {"--tse", scratch.path("other.tar"), "--out", scratch.path("other")});
             const auto other = tseRows(slurp(scratch.path("other") + "/tse.csv"));
             std::string out;
             for (auto row : tseRows(slurp(d + "/tse.csv"))) {
                 if (row.size() == 11 && row[0] != "Z_KASSE_ID") row[9] = other[1][9], row[10] = other[1][10];
                 for (size_t i = 0; i < row.size(); ++i) out += (i ? ";" : "") + row[i];
                 out += "\r\n";
             }
             spill(d + "/tse.csv", out);
         },
         true,
         {"certificate-mismatch", "counter-gap"},
         "valid"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fixtures::TempDir dir;
        make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d")});
        c.edit(dir.path("d"), dir);
        std::vector<std::string> arguments = {dir.path("d")};
        if (c.againstTse) arguments.insert(arguments.end(), {"--tse", CLOUD});
        const Check check = dsfinvk(arguments);
        EXPECT_EQ(codes(check.report), c.findings);
        ASSERT_FALSE(check.report["transactions"].empty()) << check.err << check.report.dump().substr(0, 1500);
        EXPECT_EQ(check.report["transactions"][0]["verdict"], c.verdict);
        if (c.againstTse) {
            EXPECT_EQ(check.report["transactions"][0]["match"], "matched");
        }
    }
}

TEST(Dsfinvk, UnreadableInputsAndMissingTables)
{
    fixtures::TempDir dir;
    make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("d")});
    const auto refused = [](const std::vector<std::string>& arguments, const std::string& words) {
        const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), arguments, {}, {60, 0});
        EXPECT_EQ(run.status, 2) << run.out;
        EXPECT_NE(run.err.find(words), std::string::npos) << run.err;
    };
    refused({"dsfinvk", dir.path("missing")}, "does not exist");
    refused({"dsfinvk", dir.path("d"), "--tse", dir.path("nothing.tar")}, "does not exist");
    fs::remove(dir.path("d") + "/tse.csv");
    refused({"dsfinvk", dir.path("d")}, "no tse.csv");
    refused({"dsfinvk"}, "DSFINVK");
    // Without index.xml the standard dialect applies, with a warning; a
    // missing secondary table is a warning too.
    make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("e")});
    fs::remove(dir.path("e") + "/index.xml");
    fs::remove(dir.path("e") + "/lines.csv");
    const Check check = dsfinvk({dir.path("e"), "--tse", CLOUD});
    EXPECT_EQ(check.status, 0);
    EXPECT_EQ(codes(check.report), (std::multiset<std::string>{"index-missing", "table-missing", "counter-gap"}));
    EXPECT_EQ(check.report["summary"]["matched"], 51);
}

}  // namespace
