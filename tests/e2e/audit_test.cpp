// tse-check audit on the real exports and on synthetic ones from
// make-export: real keys, real signatures, the real executables, and the
// JSON and CSV reports parsed back.
#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "audit.h"
#include "fixtures.h"
#include "text.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();

void makeExport(const std::vector<std::string>& arguments)
{
    const fixtures::RunResult made = fixtures::run(fixtures::toolPath("make-export"), arguments);
    ASSERT_EQ(made.status, 0) << made.err;
}

struct Audit {
    int status;
    json report;
};

// Every report begins with the verdict and the exit status, which agree
// with the summary's counts and the process's status.
Audit audit(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {"audit", "--json", "-"});
    const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), arguments);
    Audit result{run.status, json::parse(run.out.empty() ? "null" : run.out, nullptr, false)};
    EXPECT_FALSE(result.report.is_discarded()) << run.out << run.err;
    if (!result.report.is_object()) return result;
    const nlohmann::ordered_json ordered = nlohmann::ordered_json::parse(run.out);
    const std::vector<std::string> first{ordered.begin().key(), std::next(ordered.begin()).key()};
    EXPECT_EQ(first, (std::vector<std::string>{"verdict", "exitStatus"}));
    EXPECT_EQ(result.report["exitStatus"], run.status);
    const json& summary = result.report["summary"];
    const char* verdict = summary["errors"] > 0     ? "FAILED"
                          : summary["warnings"] > 0 ? "PASSED WITH WARNINGS"
                                                    : "PASSED";
    EXPECT_EQ(result.report["verdict"], verdict);
    return result;
}

std::set<std::string> codes(const json& report)
{
    std::set<std::string> out;
    for (const json& finding : report["findings"]) out.insert(finding["code"].get<std::string>());
    return out;
}

TEST(Audit, RealExports)
{
    struct Case {
        std::string file;
        size_t logs;
        uint64_t missingCounters;
        int status;
    };
    for (const Case& c :
         std::vector<Case>{{"2021-09-30_63641_TSE.tar", 141, 64, 0},
                           {"6e6c6a42-5c8d-4a9c-9572-26c10619d020.tar", 10, 0, 0},
                           {"TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015.tar", 155, 0, 0},
                           {"logMessages1.tar", 17, 1, 0},
                           {"softwareUpdate.tar", 25, 1, 1}}) {
        SCOPED_TRACE(c.file);
        const Audit a = audit({REAL + c.file});
        EXPECT_EQ(a.status, c.status);
        ASSERT_EQ(a.report["logs"].size(), c.logs);
        const bool brokenDevice = c.file == "softwareUpdate.tar";
        for (const json& log : a.report["logs"]) {
            const uint64_t counter = log["signatureCounter"];
            const bool expectInvalid = brokenDevice && counter >= 4 && counter <= 19;
            EXPECT_EQ(log["verdict"], expectInvalid ? "invalid" : "valid") << log["file"];
        }
        uint64_t missing = 0;
        for (const json& f : a.report["findings"]) {
            if (f["code"] == "counter-gap")
                missing +=
                    std::stoull(f["message"].get<std::string>().substr(f["message"].get<std::string>().find(": ") + 2));
            if (f["severity"] == "error") {
                EXPECT_EQ(f["code"], "signature-invalid") << f["message"];
            }
        }
        EXPECT_EQ(missing, c.missingCounters);
        EXPECT_EQ(a.report["summary"]["errors"], brokenDevice ? 16 : 0);
    }
    // The lone counter both D-Trust test exports lack is 2.
    const Audit d = audit({REAL + "logMessages1.tar"});
    for (const json& f : d.report["findings"]) {
        EXPECT_NE(f["message"].get<std::string>().find("between 1 and 18: 2"), std::string::npos);
    }
}

// Each defect alone yields exactly its finding, with the severity and exit
// status that belong to it; --strict makes a warning fail the audit.
TEST(Audit, PlantedDefects)
{
    struct Case {
        std::string defect;
        int status;
        std::string code = {};  // when the defect is not named by its finding
        std::string says = {};  // what the finding's message holds
    };
    fixtures::TempDir dir;
    // What make-export says each defect gives, taken from the catalogue.
    std::map<std::string, std::string> listed;
    std::istringstream list(fixtures::run(fixtures::toolPath("make-export"), {"--list-defects"}).out);
    for (std::string name, code; list >> name >> code;) listed[name] = code;
    size_t tested = 0;
    for (const Case& c : std::vector<Case>{
             {"signature-invalid", 1},
             {"certificate-missing", 1, "", "1 log of TSE"},
             {"log-unreadable", 1},
             {"counter-duplicate", 1},
             {"name-mismatch", 1},
             {"counter-gap", 0},
             {"transaction-incomplete", 0},
             {"time-regression", 0},
             {"certificate-chain", 0},
             {"unexpected-member", 0},
             // The TSE's certificate holds, its CA's had ended before the logs.
             {"ca-expired", 0, "certificate-chain", "22 logs lie outside the validity of the CA CN=Synthetic CA"},
             {"certificate-renamed", 1, "name-mismatch", "_X509.pem: the name gives the key hash"},
             {"ecsdsa", 1, "signature-invalid", "unsupported algorithm: ecsdsa-plain-SHA256"}}) {
        SCOPED_TRACE(c.defect);
        ++tested;
        EXPECT_EQ(listed[c.defect], c.code.empty() ? c.defect : c.code);
        const std::string archive = dir.path(c.defect + ".tar");
        makeExport({"-o", archive, "-n", "6", "--curve", "secp256r1", "--defect", c.defect});
        const Audit a = audit({archive});
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.report["verdict"], c.status ? "FAILED" : "PASSED WITH WARNINGS");
        const std::string text = fixtures::run(fixtures::tseCheckPath(), {"audit", archive}).out;
        EXPECT_EQ(text.substr(0, text.find(':')), a.report["verdict"]);
        EXPECT_EQ(codes(a.report), std::set<std::string>{c.code.empty() ? c.defect : c.code});
        if (!c.says.empty() && !a.report["findings"].empty()) {
            EXPECT_NE(a.report["findings"][0]["message"].get<std::string>().find(c.says), std::string::npos)
                << a.report["findings"][0]["message"];
        }
        EXPECT_EQ(audit({"--strict", archive}).status, 1);
    }
    EXPECT_EQ(tested, listed.size()) << "a defect make-export plants is not tested here";
}

// Every curve and time format, in every container form.
TEST(Audit, CleanExportsInEveryForm)
{
    const std::vector<std::string> curves{"brainpoolP256r1", "brainpoolP384r1", "brainpoolP512r1",
                                          "secp256r1",       "secp384r1",       "secp521r1"};
    const std::vector<std::string> forms{"tar", "tar.gz", "tar.bz2", "tar.xz", "dir", "split"};
    const std::vector<std::string> times{"unixTime", "utcTime", "generalizedTime"};
    fixtures::TempDir dir;
    for (size_t i = 0; i < curves.size() * times.size(); ++i) {
        const std::string curve = curves[i % curves.size()], time = times[i / curves.size()],
                          form = forms[i % forms.size()];
        SCOPED_TRACE(curve + " " + time + " " + form);
        const std::string out = dir.path("e" + std::to_string(i) + (form == "dir" ? "" : ".tar"));
        std::vector<std::string> args{
            "-o", out, "-n", "3", "--curve", curve, "--time-format", time, "--format", form == "split" ? "tar" : form};
        if (form == "split") args.insert(args.end(), {"--split", "2000"});
        makeExport(args);
        const Audit a = audit({form == "split" ? out + ".001" : out});
        EXPECT_EQ(a.status, 0);
        EXPECT_EQ(a.report["summary"]["valid"], 13);
        EXPECT_EQ(a.report["summary"]["logs"], 13);
        EXPECT_TRUE(a.report["findings"].empty()) << a.report["findings"].dump();
        EXPECT_EQ(a.report["logs"][0]["logTimeFormat"], time);
    }
}

std::string fileText(const std::string& path);

// The same export twice (as merged incremental exports would have it)
// counts each log once and is no counter duplicate.
TEST(Audit, IdenticalLogsCountOnce)
{
    fixtures::TempDir dir;
    makeExport({"-o", dir.path("a.tar"), "-n", "4"});
    makeExport({"-o", dir.path("d"), "-n", "4", "--format", "dir"});
    fs::copy_file(dir.path("a.tar"), dir.path("b.tar"));
    const Audit twice = audit({dir.path("a.tar"), dir.path("b.tar")});
    EXPECT_EQ(twice.status, 0);
    EXPECT_EQ(twice.report["summary"]["logs"], 16);
    EXPECT_EQ(twice.report["summary"]["duplicatesSkipped"], 16);
    // So do the certificate files the two exports share.
    const Audit once = audit({dir.path("a.tar")});
    ASSERT_EQ(twice.report["certificates"].size(), once.report["certificates"].size());
    for (const json& c : twice.report["certificates"]) EXPECT_EQ(c["copies"], 1) << c["file"];
    // Two TSEs with their own keys: no duplicates, no findings.
    const Audit two = audit({dir.path("a.tar"), dir.path("d")});
    EXPECT_EQ(two.report["summary"]["valid"], 32);
    EXPECT_TRUE(two.report["findings"].empty());

    // Copies within one export under other names, also of a log that cannot
    // be read, count once too.
    fs::create_directory(dir.path("copies"));
    for (const auto& entry : fs::directory_iterator(dir.path("d"))) {
        const std::string name = entry.path().filename().string();
        if (name.find("_X509") != std::string::npos) fs::copy_file(entry.path(), dir.path("copies/" + name));
        if (name.find("_Log-Aud") == std::string::npos) continue;
        fs::copy_file(entry.path(), dir.path("copies/" + name));
        fs::copy_file(entry.path(), dir.path("copies/" + name.substr(0, name.size() - 4) + "_Fc-1.log"));
        const std::string cut = fileText(entry.path().string()).substr(0, 40);
        std::ofstream(dir.path("copies/Unixt_1_Sig-900_Log-Aud.log"), std::ios::binary) << cut;
        std::ofstream(dir.path("copies/Unixt_1_Sig-900_Log-Aud_Fc-1.log"), std::ios::binary) << cut;
    }
    const Audit copies = audit({dir.path("copies")});
    EXPECT_EQ(copies.report["summary"]["logs"], 2);
    EXPECT_EQ(copies.report["summary"]["duplicatesSkipped"], 2);
    EXPECT_EQ(codes(copies.report).count("counter-duplicate"), 0u);
}

// A log file given by itself may have any name; inside an export, or when
// its name follows the TSE's pattern, the name must agree with the content.
TEST(Audit, LogNamesWhereTheyCount)
{
    fixtures::TempDir dir;
    makeExport({"-o", dir.path("e"), "-n", "3", "--curve", "secp256r1", "--format", "dir"});
    std::string certificate, auditLog;
    for (const auto& entry : fs::directory_iterator(dir.path("e"))) {
        const std::string name = entry.path().filename().string();
        if (name.find("_X509") != std::string::npos) certificate = entry.path().string();
        if (name.find("_Log-Aud") != std::string::npos) auditLog = entry.path().string();
    }
    fs::create_directory(dir.path("inner"));
    fs::copy_file(auditLog, dir.path("copy-of-a-log.log"));
    fs::copy_file(auditLog, dir.path("inner/copy-of-a-log.log"));
    fs::copy_file(auditLog, dir.path("Unixt_1700000000_Sig-99_Log-Aud.log"));
    struct Case {
        std::string path;
        std::set<std::string> codes;
    };
    for (const Case& c : std::vector<Case>{{dir.path("copy-of-a-log.log"), {}},
                                           // A directory is an export, which should describe its device.
                                           {dir.path("inner"), {"name-mismatch", "info-missing"}},
                                           {dir.path("Unixt_1700000000_Sig-99_Log-Aud.log"), {"name-mismatch"}}}) {
        SCOPED_TRACE(c.path);
        const Audit a = audit({"--cert", certificate, c.path});
        EXPECT_EQ(a.report["summary"]["valid"], 1);
        EXPECT_EQ(codes(a.report), c.codes);
    }
}

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(Audit, HostileMembers)
{
    fixtures::TempDir dir;
    makeExport({"-o", dir.path("good"), "-n", "3", "--format", "dir"});
    std::vector<std::pair<std::string, std::string>> members;
    std::string someLog;
    for (const auto& entry : fs::directory_iterator(dir.path("good"))) {
        members.emplace_back("./" + entry.path().filename().string(), fileText(entry.path().string()));
        if (entry.path().extension() == ".log") someLog = members.back().second;
    }
    std::mt19937 random(7);
    std::string noise(300, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    members.push_back({"Unixt_1_Sig-900_Log-Aud.log", someLog.substr(0, someLog.size() - 9)});
    members.push_back({"Unixt_1_Sig-901_Log-Aud.log", noise});
    members.push_back({"Unixt_1_Sig-902_Log-Aud.log", std::string(20u << 20, 'x')});
    members.push_back({"../escape.log", someLog});
    members.push_back({"/etc/absolute.log", someLog});
    fixtures::writeTar(dir.path("hostile.tar"), members);

    const Audit a = audit({dir.path("hostile.tar")});
    EXPECT_EQ(a.status, 1);
    std::map<std::string, json> byFile;
    for (const json& log : a.report["logs"]) byFile[log["file"]] = log;
    for (const char* file :
         {"Unixt_1_Sig-900_Log-Aud.log", "Unixt_1_Sig-901_Log-Aud.log", "Unixt_1_Sig-902_Log-Aud.log"}) {
        EXPECT_EQ(byFile[file]["verdict"], "unreadable") << file;
    }
    EXPECT_NE(byFile["Unixt_1_Sig-902_Log-Aud.log"]["reason"].get<std::string>().find("larger than 16 MiB"),
              std::string::npos);
    EXPECT_EQ(byFile.count("../escape.log") + byFile.count("/etc/absolute.log"), 0u);
    EXPECT_EQ(a.report["summary"]["valid"], 13);
    EXPECT_EQ(codes(a.report), (std::set<std::string>{"log-unreadable", "unexpected-member", "counter-gap"}));
    EXPECT_FALSE(fs::exists(dir.path("escape.log")));

    // A cut archive still reports what it holds; no export at all is status 2.
    const std::string whole = fileText(dir.path("hostile.tar"));
    std::ofstream(dir.path("cut.tar"), std::ios::binary) << whole.substr(0, 6000);
    EXPECT_EQ(audit({dir.path("cut.tar")}).status, 1);
    std::ofstream(dir.path("noise.tar"), std::ios::binary) << noise;
    for (const std::string& path : {dir.path("noise.tar"), dir.path("missing.tar")}) {
        EXPECT_EQ(fixtures::run(fixtures::tseCheckPath(), {"audit", path}).status, 2) << path;
    }
}

TEST(Audit, CsvMatchesJson)
{
    const std::string tar = REAL + "6e6c6a42-5c8d-4a9c-9572-26c10619d020.tar";
    const json report = audit({tar}).report;
    const auto rows = fixtures::parseCsv(fixtures::run(fixtures::tseCheckPath(), {"audit", "--csv", "-", tar}).out);
    ASSERT_EQ(rows.size(), 11u);
    const std::vector<std::string> header{"file",
                                          "type",
                                          "verdict",
                                          "signatureCounter",
                                          "logTime",
                                          "transactionNumber",
                                          "operationType",
                                          "clientId",
                                          "processType",
                                          "serialNumber",
                                          "signatureAlgorithm",
                                          "reason",
                                          "export"};
    EXPECT_EQ(rows[0], header);
    for (size_t i = 1; i < rows.size(); ++i) {
        const json& log = report["logs"][i - 1];
        EXPECT_EQ(rows[i][0], log["file"]);
        EXPECT_EQ(rows[i][3], std::to_string(log["signatureCounter"].get<uint64_t>()));
        EXPECT_EQ(rows[i][4], log["logTime"]);
        EXPECT_EQ(rows[i][7], log["clientId"].is_null() ? "" : log["clientId"].get<std::string>());
        EXPECT_EQ(rows[i][12], log["export"]);
    }
}

// What the reports hold comes back whole when parsed: more logs than the
// JSON writer puts in one chunk, names with a backslash and a quote, the
// transaction numbers; an export given twice or in parts counts once.
TEST(Audit, ReportsReadBackWhole)
{
    fixtures::TempDir dir;
    const std::string big = dir.path("big.tar.gz");
    makeExport({"-o", big, "-n", "350", "--curve", "secp256r1", "--format", "tar.gz"});
    std::ifstream in(big, std::ios::binary);
    char magic[2] = {};
    in.read(magic, 2);
    EXPECT_EQ(static_cast<unsigned char>(magic[0]), 0x1F);  // gzip, not a plain tar under that name
    EXPECT_EQ(static_cast<unsigned char>(magic[1]), 0x8B);
    const Audit a = audit({big});
    const size_t logs = a.report["logs"].size();
    ASSERT_GE(logs, 1050u);  // three a transaction, and the TSE's system logs
    for (const json& log : a.report["logs"]) {
        if (log["type"] != "transaction") continue;
        ASSERT_TRUE(log.contains("transactionNumber")) << log["file"];
        const std::string file = log["file"];
        const std::string number = file.substr(file.find("_No-") + 4);
        EXPECT_EQ(std::to_string(log["transactionNumber"].get<uint64_t>()), number.substr(0, number.find('_'))) << file;
    }

    // Given twice, the export's logs and certificate count once.
    const Audit twice = audit({big, big});
    EXPECT_EQ(twice.report["logs"].size(), logs);
    EXPECT_EQ(twice.report["certificates"].size(), a.report["certificates"].size());

    // A split archive's parts are one export, read once.
    const std::string split = dir.path("split.tar");
    makeExport({"-o", split, "-n", "6", "--curve", "secp256r1", "--split", "3000"});
    std::vector<std::string> parts;
    for (const auto& entry : fs::directory_iterator(dir.path(""))) {
        if (entry.path().filename().string().rfind("split.tar.", 0) == 0) parts.push_back(entry.path().string());
    }
    std::sort(parts.begin(), parts.end());
    ASSERT_GT(parts.size(), 1u);
    const std::string whole = dir.path("whole.tar");
    makeExport({"-o", whole, "-n", "6", "--curve", "secp256r1"});
    EXPECT_EQ(audit(parts).report["logs"].size(), audit({whole}).report["logs"].size());

    // A backslash and a quote in a name survive JSON and CSV.
    const std::string loose = dir.path("loose");
    makeExport({"-o", loose, "-n", "3", "--curve", "secp256r1", "--format", "dir"});
    std::string odd;
    for (const auto& entry : fs::directory_iterator(loose)) {
        if (entry.path().extension() != ".log") continue;
        odd = entry.path().stem().string() + "_a\\b\"c.log";
        fs::rename(entry.path(), fs::path(loose) / odd);
        break;
    }
    const json report = audit({loose}).report;
    const auto rows = fixtures::parseCsv(fixtures::run(fixtures::tseCheckPath(), {"audit", "--csv", "-", loose}).out);
    ASSERT_EQ(rows.size(), report["logs"].size() + 1);
    // Reports escape a backslash as two, so that the name can be restored.
    const std::string shown = tse::escapeText(odd);
    size_t found = 0;
    for (size_t i = 0; i < report["logs"].size(); ++i) {
        const std::string file = report["logs"][i]["file"];
        EXPECT_EQ(rows[i + 1][0], file);
        found += file.size() >= shown.size() && file.compare(file.size() - shown.size(), shown.size(), shown) == 0;
    }
    EXPECT_EQ(found, 1u) << odd;
}

}  // namespace

// An export whose certificate comes last: with no room for the logs that
// wait for it, each is read a second time, and every verdict stays.
TEST(Audit, LogsBeforeTheirCertificateAreReadAgainWhenTheyCannotWait)
{
    const std::string tar = REAL + "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015.tar";
    std::vector<std::pair<std::string, tse::LogVerdict>> verdicts[2];
    for (const size_t room : {size_t{16} << 20, size_t{0}}) {
        tse::AuditOptions options;
        options.exports = {tar};
        options.jobs = 2;
        options.maxPendingBytes = room;
        const tse::Result<tse::AuditReport> outcome = tse::auditExport(options);
        ASSERT_TRUE(outcome) << outcome.error().message;
        EXPECT_EQ(outcome->summary.valid, 155u);
        for (const tse::LogRecord& log : outcome->logs) verdicts[room == 0].emplace_back(log.file, log.verdict);
    }
    EXPECT_EQ(verdicts[0], verdicts[1]);
}
