// tse-check serve over HTTP on a free loopback port: the same JSON as the
// command line for real exports, receipts and pictures, and markup in names
// and texts. The server's guards, its jobs and its load are in
// serve_concurrency_test.cpp, which ThreadSanitizer runs; these decode
// pictures, whose libraries it cannot follow.
#include <gtest/gtest.h>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>

#include "fixtures.h"
#include "receipt_pictures.h"
#include "serve_client.h"

namespace {

using fixtures::commandJson;
using fixtures::fileItem;
using fixtures::runJob;
using fixtures::Served;
using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();
const std::string SAMPLES = fixtures::samplesFolder();

TEST(ServeJobs, SameJsonAsTheCommandLine)
{
    Served served;
    ASSERT_TRUE(served.server.started()) << served.server.log();
    const std::string tar = REAL + "logMessages1.tar";
    const json audit = runJob(served, "/api/audit", {fileItem("export", tar)});
    ASSERT_EQ(audit.value("state", ""), "done") << audit.dump();
    EXPECT_EQ(audit["exitStatus"], 0);
    EXPECT_EQ(audit["result"], commandJson({"audit", "--json", "-", "--no-progress", tar}, {REAL})) << audit.dump();

    // The bookkeeping of a real cloud TSE's sales with that TSE's export,
    // through the API and through the export form's combined job.
    const std::string zip = SAMPLES + "demo-dsfinvk.zip", cloud = REAL + "2021-09-30_63641_TSE.tar";
    const json expected =
        commandJson({"dsfinvk", "--json", "-", "--no-progress", zip, "--tse", cloud}, {SAMPLES, REAL});
    const json dsfinvk = runJob(served, "/api/dsfinvk", {fileItem("dsfinvk", zip), fileItem("tse", cloud)});
    ASSERT_EQ(dsfinvk.value("state", ""), "done") << dsfinvk.dump();
    EXPECT_EQ(dsfinvk["result"], expected);
    const json both = runJob(served, "/api/audit", {fileItem("export", cloud), fileItem("dsfinvk", zip)});
    EXPECT_EQ(both["bookkeeping"], expected);
    EXPECT_EQ(both["result"], commandJson({"audit", "--json", "-", "--no-progress", cloud}, {REAL}));

    // Texts, one of them broken, and a photo of a receipt.
    const fixtures::TempDir dir;
    const std::string text = pictures::signedReceiptText(tse::Curve::Secp256r1, tse::Hash::Sha256, 7);
    const std::string photo =
        dir.write("IMG_0412.jpg",
                  pictures::jpeg(pictures::blurred(pictures::rotated(pictures::receipt({text}, 4), 17), 1.0), 80));
    // Shown two hours later than signed: --explain finds the time zone.
    std::string broken = text;
    broken.replace(broken.find("T11:28:58"), 9, "T13:28:58");
    const json receipts =
        runJob(served, "/api/receipt",
               {{"text", text, "", ""}, {"text", broken, "", ""}, {"explain", "1", "", ""}, fileItem("image", photo)});
    ASSERT_EQ(receipts.value("state", ""), "done") << receipts.dump();
    EXPECT_EQ(receipts["exitStatus"], 1);
    // How many candidates the explanation tried before it found the change
    // depends on how its threads were scheduled; everything else must agree.
    const auto withoutChecks = [](json results) {
        for (json& r : results) {
            if (r.contains("explanation") && r["explanation"].is_object()) r["explanation"].erase("checks");
        }
        return results;
    };
    EXPECT_EQ(
        withoutChecks(receipts["result"]),
        withoutChecks(commandJson({"receipt", "--json", "--explain", text, broken, "--image", photo}, {dir.path("")})));
}

TEST(ServeHostile, MarkupInNamesAndTextsIsShownAsText)
{
    Served served;
    ASSERT_TRUE(served.server.started()) << served.server.log();
    const std::string markup = "<img src=x onerror=alert(1)>";
    std::string text = pictures::signedReceiptText(tse::Curve::Secp256r1, tse::Hash::Sha256, 9);
    text.replace(text.find("DEMO-KASSE-01"), 13, "<script>alert(1)</script>");
    const json status =
        runJob(served, "/api/receipt",
               {{"text", text, "", ""}, fileItem("image", SAMPLES + "demo-receipt.png", "\"><script>x</script>.png")});
    ASSERT_EQ(status.value("state", ""), "done") << status.dump();
    EXPECT_EQ(status["files"][0]["name"], "\"><script>x</script>.png");
    httplib::Client client = served.client();
    const std::string page = client.Get("/jobs/" + status["id"].get<std::string>())->body;
    EXPECT_EQ(page.find("<script>"), std::string::npos) << page;
    EXPECT_NE(page.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos) << page;
    EXPECT_NE(page.find("&quot;&gt;&lt;script&gt;x&lt;/script&gt;.png"), std::string::npos) << page;
    // A file name is never a path: the upload is kept under a safe name.
    const json traversal =
        runJob(served, "/api/audit", {fileItem("export", REAL + "logMessages1.tar", "../../../../x.tar")});
    EXPECT_EQ(traversal["state"], "done") << traversal.dump();
    EXPECT_FALSE(fs::exists(fs::path(served.tmp) / "x.tar"));
    EXPECT_FALSE(fs::exists(fs::path(served.dir.path("x.tar"))));
}

// Gzip of a TAR whose one member is 1 GiB of zeros: a few MB on the wire.

}  // namespace
