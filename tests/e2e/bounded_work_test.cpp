// Work that could grow without end is bounded: explanations of invalid
// receipts share a work bound, which the kernel's limit on processor time
// holds the real executable to. (Fewer threads than asked for: in
// resource_bounds_test.)
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fixtures.h"
#include "receipt_explain.h"
#include "signer.h"

namespace {

using nlohmann::json;

const std::string REAL = fixtures::realExportsFolder();

std::vector<std::string> fieldsOf(const std::string& text)
{
    std::vector<std::string> fields;
    std::stringstream in(text);
    for (std::string field; std::getline(in, field, ';');) fields.push_back(field);
    return fields;
}

std::string joined(const std::vector<std::string>& fields)
{
    std::string text;
    for (const std::string& field : fields) text += (text.empty() ? "" : ";") + field;
    return text;
}

// A batch of 100 invalid P-256 receipts shares one work bound: the receipt
// that no change explains is cut short at its even share of it, while the
// receipts that a cheap change or a near log time explains, before and
// after it, are still explained, the time in words. The other 97 are cheap
// to explain, so the batch costs a few seconds, not the whole bound; the
// unit test ReceiptExplain.ABatchSharesItsBoundEvenly cuts several receipts.
TEST(BoundedWork, ExplainingABatchOfInvalidReceipts)
{
    const tse::Signer signer(tse::Curve::Secp256r1);
    tse::TransactionData transaction;
    transaction.clientId = "K1";
    const std::string data = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
    transaction.processData = tse::Bytes(data.begin(), data.end());
    transaction.processType = "Kassenbeleg-V1";
    constexpr int64_t LOG_TIME = 1627903738;
    const auto receipt = [&](uint64_t n, int64_t logTime) {
        transaction.transactionNumber = n;
        return fieldsOf(tse::signedReceiptText(signer, tse::Hash::Sha256, transaction, n, LOG_TIME - 20, logTime));
    };
    // Signed 300 s before the time the receipt shows.
    std::vector<std::string> early = receipt(1, LOG_TIME);
    early[7] = receipt(1, LOG_TIME + 300)[7];
    std::vector<std::string> unexplained = receipt(2, LOG_TIME);
    unexplained[3] = "Beleg^9.57_0.00_0.00_0.00_0.00^9.57:Bar";  // an amount changed: nothing explains it
    std::string batch = joined(early) + "\n" + joined(unexplained) + "\n";
    for (uint64_t n = 3; n <= 100; ++n) {
        std::vector<std::string> lower = receipt(n, LOG_TIME);
        lower[1] = "k1";  // the client ID in other case
        batch += joined(lower) + "\n";
    }
    fixtures::TempDir dir;
    const std::string list = dir.write("receipts.txt", batch);

    const fixtures::RunResult run =
        fixtures::run(fixtures::tseCheckPath(), {"receipt", "--explain", "--json", "--jobs", "2", "--from", list}, {},
                      fixtures::RunLimits{600, 0, 120, 0});
    ASSERT_EQ(run.stopped, "");
    ASSERT_EQ(run.status, 1) << run.err;  // not killed for its processor time
    const json results = json::parse(run.out, nullptr, false);
    ASSERT_TRUE(results.is_array() && results.size() == 100u) << run.out.substr(0, 500);
    EXPECT_EQ(results[0]["explanation"]["field"], "logTime");
    EXPECT_NE(results[0]["explanation"]["sentence"].get<std::string>().find("signed 300 s earlier than shown"),
              std::string::npos)
        << results[0]["explanation"]["sentence"];
    // What the batch bound leaves, shared among the 99 receipts still to explain.
    const json& cut = results[1]["explanation"];
    const uint64_t share = (tse::MAX_EXPLAIN_BATCH_CHECKS - results[0]["explanation"]["checks"].get<uint64_t>()) / 99;
    EXPECT_FALSE(cut["found"].get<bool>());
    EXPECT_TRUE(cut["cutShort"].get<bool>());
    EXPECT_NE(cut["sentence"].get<std::string>().find("cut short"), std::string::npos);
    EXPECT_LE(cut["checks"].get<uint64_t>(), share);
    EXPECT_GE(cut["checks"].get<uint64_t>(), share / 2);
    uint64_t checks = 0;
    for (size_t i = 0; i < results.size(); ++i) {
        const json& e = results[i]["explanation"];
        if (i >= 2) {
            EXPECT_TRUE(e["found"].get<bool>()) << i << ": " << e["sentence"];
            EXPECT_EQ(e["field"], "clientId") << i;
        }
        checks += e["checks"].get<uint64_t>();
    }
    EXPECT_LE(checks, tse::MAX_EXPLAIN_BATCH_CHECKS);
}

}  // namespace
