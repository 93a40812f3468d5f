// What only a build without sanitizers can measure, labelled `plain`: the
// memory a check takes, the threads it gets by, and the server's peak with
// fifty uploads at once. The sanitizers' shadow memory and reserved address
// space would measure themselves; the code paths run under them in the
// other tests.
#include <gtest/gtest.h>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "dsfinvk_zip.h"
#include "fixtures.h"
#include "serve_client.h"
#include "signer.h"

namespace {

using fixtures::Member;
using fixtures::memberNamed;
using fixtures::realTables;
using fixtures::writeZip;
using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();

// A sanitized build that runs these anyway (ctest without a label) is told
// why they do not apply there, instead of failing on its own overhead.
class ResourceBounds : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(ADDRESS_SANITIZER) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "measured only in a build without sanitizers";
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
        GTEST_SKIP() << "measured only in a build without sanitizers";
#endif
#endif
    }
};

// -j 1024 in an address space that holds a few hundred thread stacks: the
// audit and the receipt check run on the threads they get, and report.
TEST_F(ResourceBounds, FewerThreadsThanAskedFor)
{
    const fixtures::RunLimits limits{120, 0, 0, 1024};
    const fixtures::RunResult audit = fixtures::run(
        fixtures::tseCheckPath(), {"audit", "--jobs", "1024", "--json", "-", REAL + "logMessages1.tar"}, {}, limits);
    EXPECT_EQ(audit.stopped, "");
    EXPECT_EQ(audit.status, 0) << audit.err;
    const json report = json::parse(audit.out, nullptr, false);
    ASSERT_FALSE(report.is_discarded()) << audit.err;
    EXPECT_EQ(report["summary"]["valid"], 17);

    const tse::Signer signer(tse::Curve::Secp256r1);
    tse::TransactionData transaction;
    transaction.clientId = "K1";
    transaction.processType = "Kassenbeleg-V1";
    transaction.processData = {'B', 'e', 'l', 'e', 'g'};
    std::string texts;
    for (uint64_t n = 1; n <= 50; ++n) {
        texts += tse::signedReceiptText(signer, tse::Hash::Sha256, transaction, n, 1627903700, 1627903738) + "\n";
    }
    fixtures::TempDir dir;
    const fixtures::RunResult receipts = fixtures::run(
        fixtures::tseCheckPath(), {"receipt", "--jobs", "1024", "--from", dir.write("r.txt", texts)}, {}, limits);
    EXPECT_EQ(receipts.stopped, "");
    EXPECT_EQ(receipts.status, 0) << receipts.out << receipts.err;
}

// A ZIP that inflates to 32 MiB of TSE failure rows: the check takes
// memory in proportion to the rows (at most twice their bytes and 100 MiB),
// measured, not guessed.
TEST_F(ResourceBounds, ManyBookkeepingRowsInASmallZip)
{
    fixtures::TempDir dir;
    std::vector<Member> members = realTables(dir, "");
    std::string& rows = memberNamed(members, "transactions_tse.csv").data;
    rows = rows.substr(0, rows.find("\r\n") + 2);
    constexpr size_t TABLE = 32u << 20;
    for (size_t n = 0; rows.size() < TABLE; ++n) {
        rows += "Kasse 1;2021-07-28T13:17:12Z;1;F" + std::to_string(n) + ";1;;;;;;;TSE ausgefallen;\r\n";
    }
    writeZip(dir.path("many.zip"), members);
    EXPECT_LT(fs::file_size(dir.path("many.zip")), 2u << 20);
    // The text report: a JSON document of half a million findings would
    // measure the test's disk, not the check.
    const fixtures::RunResult r =
        fixtures::run(fixtures::tseCheckPath(), {"dsfinvk", dir.path("many.zip")}, {}, {300, 0});
    EXPECT_EQ(r.status, 1) << r.err;  // the failure rows name no receipt
    const long boundKiB = static_cast<long>((2 * (TABLE >> 20) + 100) << 10);
    EXPECT_LT(r.maxRssKiB, boundKiB) << "peak " << (r.maxRssKiB >> 10) << " MiB";
    const size_t rowsChecked = std::stoul(r.out.substr(r.out.find(": ") + 2));
    EXPECT_GT(rowsChecked, 500000u) << r.out.substr(0, 200);
}

// Fifty uploads at once: two run, eight wait, the rest are told to come
// back, and the server holds less than 200 MiB at its peak.
TEST_F(ResourceBounds, ServerPeakWithFiftyUploads)
{
    fixtures::Served served({"--jobs", "2"});
    ASSERT_TRUE(served.server.started()) << served.server.log();
    const httplib::MultipartFormDataItems upload{fixtures::fileItem("export", REAL + "logMessages1.tar")};
    std::vector<std::thread> clients;
    for (int i = 0; i < 50; ++i) {
        clients.emplace_back([&] { served.client().Post("/api/audit", served.bearer(), upload); });
    }
    for (std::thread& t : clients) t.join();
    EXPECT_LT(served.server.peakKiB(), 200 * 1024);
    EXPECT_EQ(served.server.stop(), 0) << served.server.log();
}

}  // namespace
