// tse-check audit --html as a person sees it: the real executables write
// reports of real and of planted-defect exports, and headless Chromium
// renders, prints and photographs them. Without Chromium these tests are
// reported as skipped, never as passed.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "fixtures.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();

std::string programOnPath(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const fs::path candidate = fs::path(dir) / name;
        if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) return candidate.string();
    }
    return {};
}

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Headless Chromium with a profile of its own that it never shares, and
// nothing that reaches out to the network.
class Browser {
public:
    Browser() : program_(programOnPath("chromium")) {}
    bool present() const { return !program_.empty(); }

    fixtures::RunResult run(const fixtures::TempDir& dir, std::vector<std::string> arguments) const
    {
        const std::string profile = dir.path("profile-" + std::to_string(runs_++));
        fs::create_directories(profile);
        std::vector<std::string> all{"--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--disable-quic",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--user-data-dir=" + profile};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return fixtures::run(program_, all, {"HOME=" + dir.path("")}, fixtures::RunLimits{120, 0});
    }

    std::string dom(const fixtures::TempDir& dir, const std::string& page) const
    {
        const fixtures::RunResult result = run(dir, {"--dump-dom", "file://" + page});
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    std::string printedText(const fixtures::TempDir& dir, const std::string& page) const
    {
        const std::string pdf = dir.path(fs::path(page).stem().string() + ".pdf");
        const fixtures::RunResult printed =
            run(dir, {"--no-pdf-header-footer", "--print-to-pdf=" + pdf, "file://" + page});
        EXPECT_EQ(printed.status, 0) << printed.err;
        const fixtures::RunResult text = fixtures::run(programOnPath("pdftotext"), {"-layout", pdf, "-"});
        EXPECT_EQ(text.status, 0) << text.err;
        return text.out;
    }

    // The first screen of the page, kept in the build tree for a person to look at.
    void screenshot(const fixtures::TempDir& dir, const std::string& page, const std::string& name) const
    {
        fs::create_directories(BROWSER_ARTEFACTS);
        const std::string png = std::string(BROWSER_ARTEFACTS) + "/" + name + ".png";
        const fixtures::RunResult shot = run(dir, {"--window-size=1000,1400", "--screenshot=" + png, "file://" + page});
        EXPECT_EQ(shot.status, 0) << shot.err;
        EXPECT_GT(fs::exists(png) ? fs::file_size(png) : 0, 10000u) << png;
    }

private:
    std::string program_;
    mutable int runs_ = 0;
};

#define REQUIRE_BROWSER(browser)                                                                                       \
    if (!(browser).present()) {                                                                                        \
        GTEST_SKIP() << "SKIPPED: chromium is not installed (scripts/test installs it)";                               \
    }                                                                                                                  \
    if (programOnPath("pdftotext").empty()) {                                                                          \
        GTEST_SKIP() << "SKIPPED: pdftotext (poppler-utils) is not installed";                                         \
    }

struct Audited {
    json report;  // the same audit as JSON, which the page must agree with
    std::string page;
};

Audited auditToHtml(const fixtures::TempDir& dir, const std::string& name, std::vector<std::string> arguments)
{
    Audited out;
    out.page = dir.path(name + ".html");
    std::vector<std::string> all{"audit", "--no-progress", "--json", dir.path(name + ".json"), "--html", out.page};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), all);
    EXPECT_TRUE(run.status == 0 || run.status == 1) << run.err;
    out.report = json::parse(fileText(dir.path(name + ".json")), nullptr, false);
    return out;
}

std::string thousands(uint64_t n)
{
    std::string digits = std::to_string(n), out;
    for (size_t i = 0; i < digits.size(); ++i)
        out += (i && (digits.size() - i) % 3 == 0 ? "," : "") + digits.substr(i, 1);
    return out;
}

std::string verdictOf(const json& report)
{
    if (report["summary"]["errors"] > 0) return "FAILED";
    return report["summary"]["warnings"] > 0 ? "PASSED WITH WARNINGS" : "PASSED";
}

std::set<std::string> codesOf(const json& report)
{
    std::set<std::string> codes;
    for (const json& f : report["findings"]) codes.insert(f["code"].get<std::string>());
    return codes;
}

// Verdict, counts and every finding code, in the text the person reads.
void expectSaysWhatTheAuditSaid(const std::string& text, const json& report, const std::string& where)
{
    const json& s = report["summary"];
    const std::string verdict = verdictOf(report);
    EXPECT_NE(text.find(verdict), std::string::npos) << where;
    if (verdict == "PASSED") {
        EXPECT_EQ(text.find("FAILED"), std::string::npos) << where;
    }
    const std::string counts = thousands(s["logs"]) + " logs, " + thousands(s["errors"]) + " errors, " +
                               thousands(s["warnings"]) + " warnings";
    EXPECT_NE(text.find(counts), std::string::npos) << where << ": " << counts;
    for (const std::string& code : codesOf(report))
        EXPECT_NE(text.find(code), std::string::npos) << where << ": " << code;
}

TEST(BrowserReport, RealExports)
{
    Browser browser;
    REQUIRE_BROWSER(browser);
    fixtures::TempDir dir;
    for (const auto& entry : fs::directory_iterator(REAL)) {
        if (entry.path().extension() != ".tar") continue;
        const std::string name = entry.path().stem().string();
        const Audited a = auditToHtml(dir, name, {entry.path().string()});
        ASSERT_FALSE(a.report.is_discarded()) << name;
        const std::string dom = browser.dom(dir, a.page);
        expectSaysWhatTheAuditSaid(dom, a.report, name + " (DOM)");
        // Self-contained: nothing the page would load from elsewhere.
        EXPECT_FALSE(std::regex_search(dom, std::regex(R"((src|href)\s*=\s*"(https?:|//))"))) << name;
        EXPECT_NE(dom.find("<svg"), std::string::npos) << name;
        // The report names the inputs as given, never where this machine keeps them.
        EXPECT_EQ(fileText(a.page).find(fs::current_path().string() + "/"), std::string::npos) << name;
    }
    const Audited first = auditToHtml(dir, "logMessages1", {REAL + "logMessages1.tar"});
    expectSaysWhatTheAuditSaid(browser.printedText(dir, first.page), first.report, "logMessages1 (printed)");
    browser.screenshot(dir, first.page, "report-real-export");
}

TEST(BrowserReport, FailingExport)
{
    Browser browser;
    REQUIRE_BROWSER(browser);
    fixtures::TempDir dir;
    std::vector<std::string> exports;
    for (const char* defect : {"signature-invalid", "counter-gap", "time-regression"}) {
        exports.push_back(dir.path(std::string(defect) + ".tar"));
        const fixtures::RunResult made =
            fixtures::run(fixtures::toolPath("make-export"), {"-o", exports.back(), "-n", "30", "--defect", defect});
        ASSERT_EQ(made.status, 0) << made.err;
    }
    const Audited a = auditToHtml(dir, "failing", exports);
    ASSERT_EQ(verdictOf(a.report), "FAILED");
    ASSERT_EQ(codesOf(a.report), (std::set<std::string>{"signature-invalid", "counter-gap", "time-regression"}));
    const std::string dom = browser.dom(dir, a.page);
    expectSaysWhatTheAuditSaid(dom, a.report, "failing (DOM)");
    // The charts mark what the findings say, in words as well as shapes.
    EXPECT_NE(dom.find("counter gap (1)"), std::string::npos);
    EXPECT_NE(dom.find("time set back (1)"), std::string::npos);
    expectSaysWhatTheAuditSaid(browser.printedText(dir, a.page), a.report, "failing (printed)");
    browser.screenshot(dir, a.page, "report-failing-export");
}

TEST(BrowserReport, HostileClientIdIsShownNotRun)
{
    Browser browser;
    REQUIRE_BROWSER(browser);
    fixtures::TempDir dir;
    // First: the check below sees a script that runs.
    const std::string control =
        dir.write("control.html", std::string("<title>quiet</title><script>document.title='RAN'</script>"));
    EXPECT_NE(browser.dom(dir, control).find("<title>RAN</title>"), std::string::npos);

    const std::vector<std::string> hostile{"\"><script>alert(1)</script>", "<script>document.title='RAN'</script>",
                                           "<img src=x onerror=\"document.title='RAN'\">"};
    auto key = fixtures::makeEcKey();
    std::vector<std::string> arguments{"--cert", dir.write("tse.pem", fixtures::certificatePem(key.get()))};
    for (size_t i = 0; i < hostile.size(); ++i) {
        fixtures::LogFields fields;
        fields.clientId = hostile[i];
        fields.signatureCounter = 538 + i;
        fields.transactionNumber = 7 + i;
        arguments.push_back(
            dir.write("log" + std::to_string(i) + ".log", fixtures::signedExportedLog(key.get(), fields)));
    }
    const Audited a = auditToHtml(dir, "hostile", arguments);
    ASSERT_EQ(a.report["summary"]["valid"], 3) << a.report.dump();
    const std::string dom = browser.dom(dir, a.page);
    EXPECT_NE(dom.find("<title>TSE export audit"), std::string::npos);
    EXPECT_EQ(dom.find("RAN</title>"), std::string::npos);
    EXPECT_EQ(dom.find("<script"), std::string::npos);
    EXPECT_EQ(dom.find("<img"), std::string::npos);
    // Shown as text: the serialised DOM writes < and > of text as references.
    EXPECT_NE(dom.find("\"&gt;&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(dom.find("&lt;img src=x onerror=\"document.title='RAN'\"&gt;"), std::string::npos);
}

// A report grows by less than 200 bytes a log beside its fixed part, so
// that a hundred thousand logs stay below 20 MB, and the browser reads it
// well within its time limit.
TEST(BrowserReport, LargeExportFromAggregates)
{
    Browser browser;
    REQUIRE_BROWSER(browser);
    fixtures::TempDir dir;
    const std::string path = dir.path("large.tar");
    const fixtures::RunResult made = fixtures::run(fixtures::toolPath("make-export"), {"-o", path, "-n", "1667"});
    ASSERT_EQ(made.status, 0) << made.err;
    const Audited a = auditToHtml(dir, "large", {path});
    const auto logs = a.report["summary"]["logs"].get<uintmax_t>();
    ASSERT_GE(logs, 5000u);
    EXPECT_LT(fs::file_size(a.page), 20'000'000u * logs / 100'000u + 50'000u);
    const std::string page = fileText(a.page);
    // Eleven tags a row; everything else, charts included, a few thousand.
    const auto tags = static_cast<long>(std::count(page.begin(), page.end(), '<'));
    EXPECT_LT(tags - 11 * a.report["summary"]["logs"].get<long>(), 5000) << "charts drawn from aggregates";
    EXPECT_NE(page.find("<details class=\"closed\">"), std::string::npos);
    const fixtures::RunResult rendered = browser.run(dir, {"--dump-dom", "file://" + a.page});
    EXPECT_EQ(rendered.status, 0) << rendered.stopped << rendered.err;
    EXPECT_NE(rendered.out.find("PASSED"), std::string::npos);
}

}  // namespace

namespace {

// Without a browser: the page goes to standard output alone, and names the
// export as it was given, relative, not where this machine keeps it.
TEST(HtmlReport, ToStandardOutputWithRelativeNames)
{
    fixtures::TempDir dir;
    fs::copy_file(REAL + "logMessages1.tar", dir.path("logMessages1.tar"));
    const std::string script = "cd '" + dir.path("") + "' && exec '" + fixtures::tseCheckPath() +
                               "' audit --no-progress --html - logMessages1.tar";
    const fixtures::RunResult run = fixtures::run("/bin/sh", {"-c", script});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.rfind("<!DOCTYPE html>", 0), 0u);
    EXPECT_EQ(run.out.substr(run.out.size() - 15), "</body></html>\n");
    EXPECT_EQ(run.out.find("PASSED WITH WARNINGS:"), std::string::npos) << "the text summary stays out";
    EXPECT_NE(run.out.find("<td>logMessages1.tar<td>27,648 bytes"), std::string::npos);
    EXPECT_EQ(run.out.find(dir.path("")), std::string::npos);
}

}  // namespace

// The bookkeeping report: planted defects are in the page and the printout
// as the JSON report has them, and a hostile client ID stays text.
TEST(BrowserReport, BookkeepingWithPlantedDefects)
{
    Browser browser;
    REQUIRE_BROWSER(browser);
    fixtures::TempDir dir;
    const std::string tools = fs::path(fixtures::tseCheckPath()).parent_path().string();
    const std::string tse = dir.path("tse.tar");
    const fixtures::RunResult exported =
        fixtures::run(fixtures::toolPath("make-export"), {"-o", tse, "-n", "20", "--curve", "secp256r1", "--client",
                                                          "<script>document.title='RAN'</script>"});
    ASSERT_EQ(exported.status, 0) << exported.err;
    struct Case {
        std::string defect, code;
    };
    for (const Case& c :
         std::vector<Case>{{"row-dropped", "transaction-unbooked"}, {"amount-edited", "signature-invalid"}}) {
        const std::string books = dir.path(c.defect);
        const fixtures::RunResult made =
            fixtures::run(tools + "/make-dsfinvk", {"--tse", tse, "--out", books, "--defect", c.defect});
        ASSERT_EQ(made.status, 0) << made.err;
        const std::string page = dir.path(c.defect + ".html"), data = dir.path(c.defect + ".json");
        const fixtures::RunResult checked =
            fixtures::run(fixtures::tseCheckPath(),
                          {"dsfinvk", "--no-progress", "--json", data, "--html", page, books, "--tse", tse});
        EXPECT_EQ(checked.status, 1) << checked.err;
        const json report = json::parse(fileText(data));
        ASSERT_EQ(codesOf(report).count(c.code), 1u) << c.defect;
        const json& s = report["summary"];
        const std::string counts = thousands(s["rows"]) + " rows in " + thousands(s["closings"]) + " closings, " +
                                   thousands(s["errors"]) + " errors, " + thousands(s["warnings"]) + " warnings";
        for (const std::string& text : {browser.dom(dir, page), browser.printedText(dir, page)}) {
            EXPECT_NE(text.find("FAILED"), std::string::npos) << c.defect;
            EXPECT_NE(text.find(counts), std::string::npos) << c.defect << ": " << counts;
            for (const std::string& code : codesOf(report)) EXPECT_NE(text.find(code), std::string::npos) << code;
        }
        const std::string dom = browser.dom(dir, page);
        EXPECT_EQ(dom.find("RAN</title>"), std::string::npos);
        EXPECT_EQ(dom.find("<script"), std::string::npos);
        EXPECT_NE(dom.find("&lt;script&gt;document.title='RAN'&lt;/script&gt;"), std::string::npos);
        browser.screenshot(dir, page, "report-bookkeeping-" + c.defect);
    }
}
