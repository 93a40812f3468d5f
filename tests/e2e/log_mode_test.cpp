#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "file_reader.h"
#include "fixtures.h"

using fixtures::Bytes;

namespace {

const std::string kAttempt = "[INFO] Attempting to validate exported log file.\n";
const std::string kOk = kAttempt + "[RESULT] Verifed EC Signature SUCCESS\n";
const std::string kFailed = kAttempt + "[RESULT] EC Signature Verification FAILED\n";
const std::string kProgram = fixtures::verifierPath();
// The usage example ends with a tab and eleven blanks.
const std::string kFault =
    "[ERROR] Parameter Error\n\nUsage:\n      " + kProgram +
    "  <required>\n\n[Required]\n"
    "  -cX: X=<TSE Certificate path in PEM format>\n  -lX: X=<Log File exported from TSE>\n or\n"
    "  -qX: X=<QrCode string in DSFinV_K format>\n\ne.g.: " +
    kProgram + "  -cCertificate.pem -lUnixt_12345_Sig-538_Log-Tra_No-0_Finish_Client-dummy.log\t           \n";

std::string invalid(const std::string& argument)
{
    return "[ERROR] " + argument + " is not a valid parameter.\n";
}

// The output is everything after the version block.
struct RunCase {
    std::vector<std::string> arguments;
    std::string output;
    int status;
};

void expectRuns(const std::vector<RunCase>& cases)
{
    for (const RunCase& c : cases) {
        const fixtures::RunResult result = fixtures::run(kProgram, c.arguments);
        EXPECT_EQ(result.out, "Version: 1.2\n\n" + c.output) << ::testing::PrintToString(c.arguments);
        EXPECT_EQ(result.status, c.status) << ::testing::PrintToString(c.arguments);
        EXPECT_EQ(result.err, "") << ::testing::PrintToString(c.arguments);
    }
}

TEST(LogMode, ParameterFaultsPrintUsage)
{
    expectRuns({{{}, kFault, 1},
                {{"-cC.pem", "L.log", "-xyz"}, invalid("L.log") + kFault, 1},
                {{"-c"}, invalid("-c") + kFault, 1},
                {{""}, invalid("") + kFault, 1},
                {{"-xyz"}, invalid("-xyz") + kFault, 1},
                {{"-lrun.log"}, kFault, 1},
                {{"-lL.log", "-qABC"}, kFault, 1},
                {{"-cC.pem", "-qABC"}, kFault, 1}});
}

TEST(LogMode, VerdictsFileFaultsAndHeaderCut)
{
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey(), p256 = fixtures::makeEcKey("prime256v1");
    const std::string pem = fixtures::certificatePem(key.get()), otherPem = fixtures::certificatePem(p256.get());
    const std::string cert = "-c" + dir.write("cert.pem", pem), other = "-c" + dir.write("other.pem", otherPem);
    auto log = [&](const std::string& name, const Bytes& contents) { return "-l" + dir.write(name, contents); };
    const Bytes signedLog = fixtures::signedExportedLog(key.get(), {});
    Bytes flippedLog = signedLog, zeroRLog = signedLog;
    flippedLog[20] ^= 0x01;
    std::fill(zeroRLog.end() - 96, zeroRLog.end() - 48, 0);
    const std::string good = log("good.log", signedLog), flipped = log("flipped.log", flippedLog);
    // Signed parts of the wanted size, reached by growing the process data.
    auto exported = [&](size_t size, const Bytes& signedOver) {
        fixtures::LogFields fields;
        while (fixtures::signedOctets(fields).size() < size) fields.processData += 'x';
        const Bytes body = size ? fixtures::signedOctets(fields) : Bytes{};
        return fixtures::exportedLog(body, fixtures::signRaw(key.get(), signedOver.empty() ? body : signedOver));
    };
    const Bytes log258 = exported(157, {}), log260 = exported(158, {}), log101 = exported(0, {});
    // No DER message is 259 bytes long; a non-minimal two-octet length makes one.
    Bytes log259 = fixtures::fromHex("30 82 00");
    log259.insert(log259.end(), log258.begin() + 2, log258.end());
    ASSERT_EQ(std::vector<size_t>({log258.size(), log259.size(), log260.size(), log101.size()}),
              std::vector<size_t>({258, 259, 260, 101}));
    const std::string missing = dir.path("missing"), der = dir.write("cert.der", fixtures::certificateDer(key.get()));
    const std::string pubkey = dir.write("key.pem", fixtures::publicKeyPem(key.get()));
    const std::string short100 = dir.write("100.log", Bytes(log101.begin() + 1, log101.end()));
    const std::string tooShort = "[ERROR] Transaction log is too short to hold a signed log message: ";

    expectRuns({
        {{cert, good}, kOk, 0},
        {{good, cert}, kOk, 0},
        {{cert, good, "-xyz", "-qABC"}, invalid("-xyz") + kOk, 0},
        {{cert, flipped}, kFailed, 252},
        {{cert, log("zero-r.log", zeroRLog)}, kFailed, 252},
        {{flipped, good, cert}, kOk, 0},
        {{cert, good, other}, kFailed, 252},                             // the last one wins
        {{"-c" + dir.write("both.pem", pem + otherPem), good}, kOk, 0},  // the first certificate in a file counts
        {{"-c" + dir.write("swapped.pem", otherPem + pem), good}, kFailed, 252},
        {{other, log("p256.log", fixtures::signedExportedLog(p256.get(), {}))}, kOk, 0},  // any curve, SHA-384
        {{"-c" + der, good}, kAttempt + "[ERROR] Unable to parse certificate in: " + der + "\n", 1},
        {{"-c" + pubkey, good}, kAttempt + "[ERROR] Unable to parse certificate in: " + pubkey + "\n", 1},
        {{"-c" + dir.write("rsa.pem", fixtures::rsaCertificatePem()), good},
         kAttempt + "[ERROR] Failed extracting public key from certificate\n",
         254},
        {{"-c" + missing, "-l" + missing}, "[ERROR] Could not find given transaction log: " + missing + "\n", 1},
        {{"-c" + missing, good}, "Could not find given certificate: " + missing + "\n", 1},
        {{good, "-certificate.pem"}, "Could not find given certificate: ertificate.pem\n", 1},
        {{cert, log("258.log", log258)}, kOk, 0},
        {{cert, log("259.log", log259)}, kOk, 0},
        {{cert, log("260.log", log260)}, kOk, 0},
        {{cert, log("101.log", log101)}, kOk, 0},
        {{cert, log("101-bad.log", exported(0, {0}))}, kFailed, 252},
        {{cert, "-l" + short100}, kAttempt + tooShort + short100 + "\n", 1},
    });
}

// Real exports: the secp384r1 device signs with SHA-384 and 96-byte
// signatures, indefinite-length processData included. The prime256v1 device
// signs 64 bytes with SHA-256: cut by position, it must fail cleanly.
TEST(LogMode, RealDeviceExports)
{
    fixtures::TempDir dir;
    const std::string dtrust = fixtures::unpackRealExport(dir, "6e6c6a42-5c8d-4a9c-9572-26c10619d020") + "/";
    const std::string cloud = fixtures::unpackRealExport(dir, "2021-09-30_63641_TSE") + "/";
    // The verifier reads PEM only; the cloud device exports DER.
    const auto der = tse::readFileBounded(
        cloud + "e11e1a155b6166b2f1844e8f063ae44837869bfa5689dfb7bae8524444d54e52_X509.der", 1 << 20);
    const std::string base64 = tse::toBase64(der.value_or(tse::Bytes{}));
    std::string pem = "-----BEGIN CERTIFICATE-----\n";
    for (size_t i = 0; i < base64.size(); i += 64) pem += base64.substr(i, 64) + "\n";
    const std::string cloudPem = dir.write("cloud.pem", pem + "-----END CERTIFICATE-----\n");
    const std::string p384 =
        "-c" + dtrust + "BF47CEE340BA72A9353753D6D857B66978E2CCB9F84E5FC101CB8268CBECB003_X509.crt";
    const std::string p256 = "-c" + cloudPem;
    expectRuns(
        {{{p384, "-l" + dtrust + "Unixt_1630665359_Sig-667_Log-Sys_authenticateUser.log"}, kOk, 0},
         {{p384, "-l" + dtrust + "Unixt_1630666144_Sig-672_Log-Tra_No-227_Finish_Client-137741-0007 Hioneu.log"},
          kOk,
          0},
         {{p256, "-l" + cloud + "Unixt_1627475722_Sig-4_Log-Sys_registerClient.log"}, kFailed, 252},
         {{p256, "-l" + cloud + "Unixt_1627475939_Sig-16_Log-Tra_No-1_Finish_Client-1063641.log"}, kFailed, 252}});
}

}  // namespace
