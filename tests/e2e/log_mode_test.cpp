#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fixtures.h"

using fixtures::Bytes;

namespace {

const std::string kVersion = "Version: 1.2\n\n";
const std::string kAttempt = "[INFO] Attempting to validate exported log file.\n";
const std::string kSuccess = "[RESULT] Verifed EC Signature SUCCESS\n";
const std::string kFailed = "[RESULT] EC Signature Verification FAILED\n";

std::string usage(const std::string& program)
{
    return "Usage:\n"
           "      " + program + "  <required>\n"
           "\n"
           "[Required]\n"
           "  -cX: X=<TSE Certificate path in PEM format>\n"
           "  -lX: X=<Log File exported from TSE>\n"
           " or\n"
           "  -qX: X=<QrCode string in DSFinV_K format>\n"
           "\n"
           "e.g.: " + program +
           "  -cCertificate.pem -lUnixt_12345_Sig-538_Log-Tra_No-0_Finish_Client-dummy.log\t           \n";
}

std::string parameterFault()
{
    return "[ERROR] Parameter Error\n\n" + usage(fixtures::verifierPath());
}

std::string invalid(const std::string& argument)
{
    return "[ERROR] " + argument + " is not a valid parameter.\n";
}

struct RunCase {
    const char* name;
    std::vector<std::string> arguments;
    std::string output;  // everything after the version block
    int status;
};

void expectRuns(const std::vector<RunCase>& cases)
{
    for (const RunCase& c : cases) {
        const fixtures::RunResult result = fixtures::run(fixtures::verifierPath(), c.arguments);
        EXPECT_EQ(result.out, kVersion + c.output) << c.name;
        EXPECT_EQ(result.status, c.status) << c.name;
        EXPECT_EQ(result.err, "") << c.name;
    }
}

// Signed octets of exactly the wanted length, reached by growing the
// process data; the length octets of that element jump at 128, so the
// search cannot simply compute the padding.
Bytes signedOctetsOfSize(const EC_KEY* key, size_t size)
{
    fixtures::LogFields fields;
    fields.serialNumber = fixtures::sha256(fixtures::rawPublicKey(key));
    for (fields.processData.clear(); fields.processData.size() < size; fields.processData += 'x') {
        if (fixtures::signedOctets(fields).size() == size) {
            return fixtures::signedOctets(fields);
        }
    }
    ADD_FAILURE() << "no process data gives " << size << " signed octets";
    return {};
}

TEST(LogMode, ParameterFaultsPrintUsage)
{
    expectRuns({
        {"no arguments", {}, parameterFault(), 1},
        {"value without option", {"-cC.pem", "L.log"}, invalid("L.log") + parameterFault(), 1},
        {"first invalid argument stops the scan", {"L.log", "-xyz"}, invalid("L.log") + parameterFault(), 1},
        {"option without value", {"-c"}, invalid("-c") + parameterFault(), 1},
        {"empty argument", {""}, invalid("") + parameterFault(), 1},
        {"unknown letter alone", {"-xyz"}, invalid("-xyz") + parameterFault(), 1},
        {"log file alone", {"-lrun.log"}, parameterFault(), 1},
        {"no certificate", {"-lL.log", "-qABC"}, parameterFault(), 1},
        {"no log file", {"-cC.pem", "-qABC"}, parameterFault(), 1},
    });
}

TEST(LogMode, VerdictsAndFileFaults)
{
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    EcKeyPtr otherKey = fixtures::makeEcKey();
    const std::string certPem = fixtures::certificatePem(key.get());
    const std::string otherPem = fixtures::certificatePem(otherKey.get(), "Other TSE");
    const std::string cert = dir.write("cert.pem", certPem);
    const std::string otherCert = dir.write("other.pem", otherPem);

    const Bytes good = fixtures::signedExportedLog(key.get(), {});
    const std::string log = dir.write("good.log", good);
    Bytes flipped = good;
    flipped[20] ^= 0x01;
    const std::string flippedLog = dir.write("flipped.log", flipped);
    Bytes zeroR = good;
    std::fill(zeroR.end() - 96, zeroR.end() - 48, 0);
    const std::string zeroRLog = dir.write("zero-r.log", zeroR);

    EcKeyPtr p256 = fixtures::makeEcKey("prime256v1");
    const std::string p256Cert = dir.write("p256.pem", fixtures::certificatePem(p256.get()));
    const std::string p256Log = dir.write("p256.log", fixtures::signedExportedLog(p256.get(), {}));

    const std::string missing = dir.path("missing");
    const std::string der = dir.write("cert.der", fixtures::certificateDer(key.get()));
    const std::string pubKey = dir.write("key.pem", fixtures::publicKeyPem(key.get()));
    const std::string unparsable = "[ERROR] Unable to parse certificate in: ";

    expectRuns({
        {"valid", {"-c" + cert, "-l" + log}, kAttempt + kSuccess, 0},
        {"options in the other order", {"-l" + log, "-c" + cert}, kAttempt + kSuccess, 0},
        {"unknown letter beside valid options", {"-c" + cert, "-l" + log, "-xyz"},
         invalid("-xyz") + kAttempt + kSuccess, 0},
        {"QR code text is ignored", {"-c" + cert, "-l" + log, "-qABC"}, kAttempt + kSuccess, 0},
        {"last log file wins", {"-l" + flippedLog, "-l" + log, "-c" + cert}, kAttempt + kSuccess, 0},
        {"last certificate wins", {"-c" + cert, "-l" + log, "-c" + otherCert}, kAttempt + kFailed, 252},
        {"flipped byte in signed data", {"-c" + cert, "-l" + flippedLog}, kAttempt + kFailed, 252},
        {"r is zero", {"-c" + cert, "-l" + zeroRLog}, kAttempt + kFailed, 252},
        {"wrong certificate", {"-c" + otherCert, "-l" + log}, kAttempt + kFailed, 252},
        {"first of two certificates is used", {"-c" + dir.write("both.pem", certPem + otherPem), "-l" + log},
         kAttempt + kSuccess, 0},
        {"first of two certificates is used, reversed",
         {"-c" + dir.write("both-reversed.pem", otherPem + certPem), "-l" + log}, kAttempt + kFailed, 252},
        {"P-256 key with SHA-384", {"-c" + p256Cert, "-l" + p256Log}, kAttempt + kSuccess, 0},
        {"DER certificate", {"-c" + der, "-l" + log}, kAttempt + unparsable + der + "\n", 1},
        {"public key instead of certificate", {"-c" + pubKey, "-l" + log}, kAttempt + unparsable + pubKey + "\n", 1},
        {"RSA certificate", {"-c" + dir.write("rsa.pem", fixtures::rsaCertificatePem()), "-l" + log},
         kAttempt + "[ERROR] Failed extracting public key from certificate\n", 254},
        {"missing log file and certificate", {"-c" + missing + ".pem", "-l" + missing},
         "[ERROR] Could not find given transaction log: " + missing + "\n", 1},
        {"missing certificate", {"-c" + missing, "-l" + log}, "Could not find given certificate: " + missing + "\n", 1},
        // The value starts right after the letter, so this names a file
        // "ertificate.pem" in the working directory.
        {"-certificate.pem is option c", {"-l" + log, "-certificate.pem"},
         "Could not find given certificate: ertificate.pem\n", 1},
        {"log file is a directory", {"-c" + cert, "-l" + dir.path("")},
         kAttempt + "[ERROR] Could not read transaction log: " + dir.path("") + "\n", 1},
    });
}

TEST(LogMode, CutsByFileSize)
{
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    const std::string cert = dir.write("cert.pem", fixtures::certificatePem(key.get()));
    auto write = [&](const std::string& name, const Bytes& contents, size_t size) {
        EXPECT_EQ(contents.size(), size) << name;
        return dir.write(name, contents);
    };
    auto exported = [&](size_t signedSize) {
        const Bytes body = signedOctetsOfSize(key.get(), signedSize);
        return fixtures::exportedLog(body, fixtures::signRaw(key.get(), body));
    };
    // No DER message is 259 bytes long; a non-minimal two-octet length makes
    // one, and it must be cut with the four-byte header.
    const Bytes log258 = exported(157);
    Bytes odd259 = fixtures::fromHex("30 82 00");
    odd259.insert(odd259.end(), log258.begin() + 2, log258.end());
    const Bytes emptySigned = fixtures::exportedLog({}, fixtures::signRaw(key.get(), {}));
    const Bytes emptyWrong = fixtures::exportedLog({}, fixtures::signRaw(key.get(), fixtures::fromHex("00")));
    const std::string tooShort = write("100.log", Bytes(emptySigned.begin() + 1, emptySigned.end()), 100);

    expectRuns({
        {"258 bytes", {"-c" + cert, "-l" + write("258.log", log258, 258)}, kAttempt + kSuccess, 0},
        {"259 bytes", {"-c" + cert, "-l" + write("259.log", odd259, 259)}, kAttempt + kSuccess, 0},
        {"260 bytes", {"-c" + cert, "-l" + write("260.log", exported(158), 260)}, kAttempt + kSuccess, 0},
        {"101 bytes, nothing signed", {"-c" + cert, "-l" + write("101.log", emptySigned, 101)},
         kAttempt + kSuccess, 0},
        {"101 bytes, signature over other data", {"-c" + cert, "-l" + write("101-bad.log", emptyWrong, 101)},
         kAttempt + kFailed, 252},
        {"100 bytes", {"-c" + cert, "-l" + tooShort},
         kAttempt + "[ERROR] Transaction log is too short to hold a signed log message: " + tooShort + "\n", 1},
    });
}

// Exports recorded from real devices. The secp384r1 device signs with
// SHA-384 and 96-byte signatures, so its logs verify as they are, processData
// in indefinite-length form included. The cloud device signs with SHA-256 and
// 64-byte signatures on prime256v1: cutting 96 bytes by position takes part
// of the preceding elements as signature, which must fail cleanly.
TEST(LogMode, RealDeviceExports)
{
    std::string dataDir = __FILE__;
    dataDir = dataDir.substr(0, dataDir.rfind('/')) + "/../data/real-export/";
    const std::string p384Cert = dataDir + "dtrust-p384-leaf.pem";
    const std::string p256Cert = dataDir + "cloud-p256-leaf.pem";
    expectRuns({
        {"secp384r1, 206 bytes", {"-c" + p384Cert, "-l" + dataDir + "dtrust-p384-sig667-authenticateUser.log"},
         kAttempt + kSuccess, 0},
        {"secp384r1, 284 bytes", {"-c" + p384Cert, "-l" + dataDir + "dtrust-p384-sig672-finish.log"},
         kAttempt + kSuccess, 0},
        {"prime256v1, 165 bytes", {"-c" + p256Cert, "-l" + dataDir + "cloud-p256-sig4-registerClient.log"},
         kAttempt + kFailed, 252},
        {"prime256v1, 230 bytes", {"-c" + p256Cert, "-l" + dataDir + "cloud-p256-sig16-finish.log"},
         kAttempt + kFailed, 252},
    });
}

}  // namespace
