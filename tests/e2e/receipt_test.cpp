#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "file_reader.h"
#include "fixtures.h"
#include "log_message.h"
#include "signature_cases.h"
#include "signer.h"

using fixtures::run;
using fixtures::tseCheckPath;

namespace {

namespace fs = std::filesystem;

std::string upper(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string serialOf(const std::string& logPath)
{
    const tse::Result<tse::LogMessage> parse =
        tse::parseLogMessage(tse::readFileBounded(logPath, 1 << 20).value_or(tse::Bytes{}));
    return parse ? tse::toHex(parse->serialNumber) : "";
}

struct RealReceipt {
    std::string log;
    std::string text;
};

// The QR code texts of every real Finish log that a receipt can stand for
// (or of the first `limit` of them): two cloud TSEs on P-256 (unixTime and
// utcTime) and D-Trust's secp384r1 with indefinite-length processData.
std::vector<RealReceipt> realReceipts(const fixtures::TempDir& dir, size_t limit = SIZE_MAX)
{
    std::vector<std::pair<std::string, std::string>> logs;  // log, certificate
    for (const char* name : {"2021-09-30_63641_TSE", "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015",
                             "6e6c6a42-5c8d-4a9c-9572-26c10619d020"}) {
        const std::string exportDir = fixtures::unpackRealExport(dir, name);
        std::map<std::string, std::string> certificates;  // by the serial in the file name
        std::vector<std::string> finishLogs;
        for (const auto& entry : fs::directory_iterator(exportDir)) {
            const std::string file = entry.path().filename().string();
            if (file.find("_X509") != std::string::npos) certificates[upper(file.substr(0, 64))] = entry.path();
            if (file.find("_Finish_") != std::string::npos) finishLogs.push_back(entry.path().string());
        }
        for (const std::string& log : finishLogs) logs.emplace_back(log, certificates[serialOf(log)]);
    }
    std::vector<RealReceipt> out;
    for (const auto& [log, certificate] : logs) {
        if (out.size() == limit) break;
        const auto qr = run(tseCheckPath(), {"to-qr", "--cert", certificate, log});
        EXPECT_EQ(qr.status, 0) << log << ": " << qr.err;
        out.push_back({log, qr.out.substr(0, qr.out.find('\n'))});
    }
    return out;
}

// One character changed where a receipt is still well-formed: in the
// client ID, the process data or the signature.
std::string withOneCharacterChanged(std::string text, size_t which)
{
    const size_t field = std::vector<size_t>{1, 3, 10}[which % 3];
    size_t position = 0;
    for (size_t i = 0; i < field; ++i) position = text.find(';', position) + 1;
    char& c = text[position + 1];
    c = c == 'A' ? 'B' : 'A';
    return text;
}

TEST(Receipt, EveryRealFinishLogGivesAReceiptThatVerifiesAndFailsWhenChanged)
{
    fixtures::TempDir unpacked;
    const std::vector<RealReceipt> receipts = realReceipts(unpacked);
    ASSERT_EQ(receipts.size(), 122u);
    fixtures::TempDir dir;
    std::string list = "\xEF\xBB\xBF\r\n";  // a byte order mark and a blank line, as editors write them
    std::string changed;
    for (size_t i = 0; i < receipts.size(); ++i) {
        list += receipts[i].text + "\r\n";
        changed += withOneCharacterChanged(receipts[i].text, i) + "\n";
    }
    auto result = run(tseCheckPath(), {"receipt", "--json", "--from", dir.write("real.txt", list)});
    EXPECT_EQ(result.status, 0) << result.err;
    const nlohmann::json valid = nlohmann::json::parse(result.out);
    ASSERT_EQ(valid.size(), receipts.size());
    for (size_t i = 0; i < receipts.size(); ++i) {
        EXPECT_EQ(valid[i]["verdict"], "valid") << receipts[i].log << ": " << valid[i]["reason"];
        EXPECT_EQ(valid[i]["source"], dir.path("real.txt") + ":" + std::to_string(i + 2));
    }
    const nlohmann::json& dtrust = valid.back();
    EXPECT_EQ(dtrust["curve"], "secp384r1");
    EXPECT_NE(dtrust["form"].get<std::string>().find("processData indefinite length"), std::string::npos);
    EXPECT_EQ(dtrust["clientId"], "137741-0007 Hioneu");
    EXPECT_EQ(dtrust["serialNumber"], "BF47CEE340BA72A9353753D6D857B66978E2CCB9F84E5FC101CB8268CBECB003");

    result = run(tseCheckPath(), {"receipt", "--json", "--from", dir.write("changed.txt", changed)});
    EXPECT_EQ(result.status, 1) << result.err;
    for (const nlohmann::json& r : nlohmann::json::parse(result.out)) {
        EXPECT_EQ(r["verdict"], "invalid") << r["text"];
    }
}

TEST(Receipt, ToQrStillRefusesALogWithAdditionalExternalData)
{
    fixtures::TempDir unpacked;
    const std::string dir = fixtures::unpackRealExport(unpacked, "logMessages1") + "/";
    const auto result =
        run(tseCheckPath(),
            {"to-qr", "--cert", dir + "DD096487E07B8A77BC03C25BF7067D728D68366EBAEAD656F728F2F14F98F23E_X509.crt",
             dir + "Unixt_1634636126_Sig-17_Log-Tra_No-1_Finish_Client-client-1.log"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("additionalExternalData"), std::string::npos) << result.err;
}

// Sources, verdicts and exit statuses of a mixed batch, as text rows, JSON
// and from standard input; --explain names the signed value.
TEST(Receipt, ReportsEachReceiptWithItsSourceAndTheWorstStatus)
{
    fixtures::TempDir unpacked;
    const std::vector<RealReceipt> receipts = realReceipts(unpacked, 1);
    const std::string good = receipts.front().text;
    std::string late = good;
    const size_t logTime = [&] {
        size_t p = 0;
        for (int i = 0; i < 7; ++i) p = good.find(';', p) + 1;
        return p;
    }();
    late.replace(logTime + 14, 2, late.substr(logTime + 14, 2) == "59" ? "58" : "59");  // the minute changed

    const struct {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> verdicts;
    } cases[] = {
        {{good}, 0, {"valid"}},
        {{good, late}, 1, {"valid", "invalid"}},
        {{good, late, "V0;K1"}, 2, {"valid", "invalid", "malformed"}},
        {{good, "--from", "/nonexistent/list.txt"}, 2, {"valid"}},
        {{late, "--from", "/nonexistent/list.txt"}, 2, {"invalid"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args{"receipt", "--json"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const auto result = run(tseCheckPath(), args);
        EXPECT_EQ(result.status, c.status) << result.err;
        const nlohmann::json document = nlohmann::json::parse(result.out);
        ASSERT_EQ(document.size(), c.verdicts.size());
        for (size_t i = 0; i < c.verdicts.size(); ++i) {
            EXPECT_EQ(document[i]["verdict"], c.verdicts[i]);
            EXPECT_EQ(document[i]["source"], "argument " + std::to_string(i + 1));
        }
    }
    EXPECT_NE(run(tseCheckPath(), {"receipt", good, "--from", "/nonexistent/list.txt"})
                  .err.find("[ERROR] Receipt list /nonexistent/list.txt does not exist"),
              std::string::npos);

    const auto piped = run("/bin/sh", {"-c", "printf '%s\\n\\n%s\\n' \"$0\" \"$1\" | \"$2\" receipt --explain --from -",
                                       good, late, tseCheckPath()});
    EXPECT_EQ(piped.status, 1) << piped.err;
    EXPECT_EQ(piped.out.rfind("VALID    stdin:1", 0), 0u) << piped.out;
    EXPECT_NE(piped.out.find("INVALID  stdin:3"), std::string::npos) << piped.out;
    EXPECT_NE(piped.out.find("the receipt was signed with log time"), std::string::npos) << piped.out;

    const auto json = run(tseCheckPath(), {"receipt", "--json", "--explain", late});
    const nlohmann::json explanation = nlohmann::json::parse(json.out)[0]["explanation"];
    EXPECT_EQ(explanation["found"], true);
    EXPECT_EQ(explanation["field"], "logTime");
}

// A compressed key whose x lies on both 256-bit curves is read first on
// brainpoolP256r1, and 160 receipts of it turn on tables for that reading.
// Signed on secp256r1, each receipt holds only under the other reading,
// which those tables must never serve. Every line and JSON object names
// the curve and serial number of the key that held.
TEST(Receipt, ABatchUnderACompressedKeyHoldsOnTheCurveThatSigned)
{
    tse::TransactionData transaction;
    transaction.clientId = "K1";
    transaction.processType = "Kassenbeleg-V1";
    transaction.processData = {'B', 'e', 'l', 'e', 'g'};
    fixtures::TempDir dir;
    for (const tse::Curve curve : {tse::Curve::Secp256r1, tse::Curve::BrainpoolP256r1}) {
        const tse::Signer signer = tse::signerWithTwinX(curve);
        const tse::Bytes& point = signer.publicKey().point();
        tse::Bytes compressed(point.begin(), point.begin() + 33);
        compressed[0] = static_cast<uint8_t>(0x02 | (point.back() & 1));
        std::string list;
        for (uint64_t n = 1; n <= 160; ++n) {
            transaction.transactionNumber = n;
            const std::string text =
                tse::signedReceiptText(signer, tse::Hash::Sha256, transaction, n, 1627903700, 1627903738);
            list += text.substr(0, text.rfind(';') + 1) + tse::toBase64(compressed) + "\n";
        }
        const std::string file = dir.write(std::string(tse::curveInfo(curve).displayName) + ".txt", list);
        const std::string name(tse::curveInfo(curve).displayName);
        const auto json = run(tseCheckPath(), {"receipt", "--json", "--from", file});
        EXPECT_EQ(json.status, 0) << name << ": " << json.err;
        const nlohmann::json results = nlohmann::json::parse(json.out, nullptr, false);
        ASSERT_TRUE(results.is_array() && results.size() == 160u) << name << ": " << json.out.substr(0, 300);
        for (const nlohmann::json& r : results) {
            EXPECT_EQ(r["verdict"], "valid") << name << " " << r["source"] << ": " << r["reason"];
            EXPECT_EQ(r["curve"], name) << r["source"];
            EXPECT_EQ(r["serialNumber"], tse::toHex(signer.publicKey().serialNumber())) << r["source"];
        }
        const auto text = run(tseCheckPath(), {"receipt", "--from", file});
        EXPECT_EQ(text.status, 0) << name;
        size_t lines = 0;
        for (size_t at = 0; (at = text.out.find("ecdsa-plain-SHA256 " + name + " ", at)) != std::string::npos; ++at)
            ++lines;
        EXPECT_EQ(lines, 160u) << name << ": " << text.out.substr(0, 300);
    }
}

}  // namespace
