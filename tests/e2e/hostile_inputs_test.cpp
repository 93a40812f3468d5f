// Hostile inputs end to end: each one must end with a defined status and a
// defined message, without a crash or a sanitizer report.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <chrono>
#include <string>
#include <vector>

#include <openssl/pem.h>

#include "fixtures.h"

using fixtures::Bytes;

namespace {

struct HostileCase {
    std::string name;
    std::vector<std::string> arguments;
    int status;
    std::vector<std::string> lines;  // each must appear as a whole line
};

void expectHostile(const std::vector<HostileCase>& cases,
                   const std::string& program = fixtures::verifierPath())
{
    for (const HostileCase& c : cases) {
        const fixtures::RunResult result = fixtures::run(program, c.arguments);
        EXPECT_EQ(result.status, c.status) << c.name << "\n" << result.out << result.err;
        const std::string lines = "\n" + result.out + "\n" + result.err;
        for (const std::string& line : c.lines) {
            EXPECT_NE(lines.find("\n" + line + "\n"), std::string::npos)
                << c.name << ": missing line " << line << "\n" << result.out << result.err;
        }
        EXPECT_EQ(result.err.find("Sanitizer"), std::string::npos) << c.name << result.err;
        EXPECT_EQ(result.err.find("runtime error"), std::string::npos) << c.name << result.err;
    }
}

std::string privateKeyPem(const EC_KEY* key)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_ECPrivateKey(bio.get(), const_cast<EC_KEY*>(key), nullptr, nullptr, 0, nullptr, nullptr);
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<size_t>(size));
}

const std::string kTooShort = "[ERROR] Transaction log is too short to hold a signed log message: ";
const std::string kFailed = "[RESULT] EC Signature Verification FAILED";
const std::string kQrFailed = "[RESULT]  EC Signature Verification FAILED";
const std::string kSuccess = "[RESULT] Verifed EC Signature SUCCESS";
const std::string kUnparsable = "[ERROR] Unable to parse certificate in: ";

TEST(HostileInputs, LogFilesAndCertificates)
{
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    const std::string pem = fixtures::certificatePem(key.get());
    const std::string cert = dir.write("cert.pem", pem);
    const std::string log = dir.write("signed.log", fixtures::signedExportedLog(key.get(), {}));
    auto logOf = [&](const std::string& name, size_t size, uint8_t fill) {
        return dir.write(name, Bytes(size, fill));
    };
    const std::string empty = logOf("empty.log", 0, 0), one = logOf("1.log", 1, 0x30);
    const std::string hundred = logOf("100.log", 100, 0x30), smallest = logOf("101.log", 101, 0x30);
    const std::string odd = logOf("259.log", 259, 0xFF);
    const std::string emptyCert = dir.write("empty.pem", "");
    const std::string truncated = dir.write("truncated.pem", pem.substr(0, pem.size() / 2));
    std::string garbled = pem;
    for (size_t i = 40; i < 120; i += 3) {
        garbled[i] = '!';
    }
    const std::string garbage = dir.write("garbage.pem", garbled);
    const std::string keyOnly = dir.write("key.pem", privateKeyPem(key.get()));
    const std::string bundle = dir.write("bundle.pem", privateKeyPem(key.get()) + pem);
    const std::string attempt = "[INFO] Attempting to validate exported log file.";

    expectHostile({
        {"empty log", {"-c" + cert, "-l" + empty}, 1, {attempt, kTooShort + empty}},
        {"log of 1 byte", {"-c" + cert, "-l" + one}, 1, {kTooShort + one}},
        {"log of 100 bytes", {"-c" + cert, "-l" + hundred}, 1, {kTooShort + hundred}},
        {"log of 101 bytes", {"-c" + cert, "-l" + smallest}, 252, {kFailed}},
        {"log of 259 bytes", {"-c" + cert, "-l" + odd}, 252, {kFailed}},
        {"log is a directory", {"-c" + cert, "-l" + dir.path("")}, 1,
         {"[ERROR] Could not read transaction log: " + dir.path("")}},
        {"empty certificate", {"-c" + emptyCert, "-l" + log}, 1, {kUnparsable + emptyCert}},
        {"certificate cut mid-PEM", {"-c" + truncated, "-l" + log}, 1, {kUnparsable + truncated}},
        {"certificate with garbage base64", {"-c" + garbage, "-l" + log}, 1, {kUnparsable + garbage}},
        {"private key instead of certificate", {"-c" + keyOnly, "-l" + log}, 1, {kUnparsable + keyOnly}},
        // The first certificate in the file counts, whatever comes before it.
        {"private key before the certificate", {"-c" + bundle, "-l" + log}, 0, {kSuccess}},
    });
}

TEST(HostileInputs, LargeLogFileIsAnsweredQuicklyInBoundedMemory)
{
    constexpr size_t size = 64u << 20;
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    const std::string cert = dir.write("cert.pem", fixtures::certificatePem(key.get()));
    const std::string log = dir.write("big.log", Bytes(size, 0x5A));

    const auto start = std::chrono::steady_clock::now();
    expectHostile({{"64 MiB log", {"-c" + cert, "-l" + log}, 252, {kFailed}}});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    // The largest child so far; every other child of this process is small.
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    EXPECT_LT(static_cast<size_t>(usage.ru_maxrss) * 1024, 3 * size);
}

TEST(HostileInputs, QrCodeTexts)
{
    EcKeyPtr key = fixtures::makeEcKey();
    auto signedWith = [&](fixtures::LogFields fields) {
        return fixtures::signedQrFields(key.get(), fields);
    };
    const fixtures::QrFields good = signedWith({});
    const std::string nonAscii = "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x80\xFE\xFF";

    fixtures::LogFields withNonAscii;
    withNonAscii.clientId = nonAscii;
    withNonAscii.processData = nonAscii + nonAscii;
    fixtures::QrFields huge = good;
    huge.processData.assign(100000, 'P');
    fixtures::QrFields allFF;
    for (std::string* field : {&allFF.version, &allFF.clientId, &allFF.processType, &allFF.processData,
                               &allFF.transactionNumber, &allFF.signatureCounter, &allFF.startTime,
                               &allFF.logTime, &allFF.signatureAlgorithm, &allFF.logTimeFormat,
                               &allFF.signature, &allFF.publicKey}) {
        field->assign(8, '\xFF');
    }
    fixtures::QrFields zeroKey = good;
    zeroKey.publicKey = fixtures::base64(Bytes(97, 0x00));
    fixtures::QrFields ffSignature = good;
    ffSignature.signature = fixtures::base64(Bytes(96, 0xFF));
    fixtures::LogFields latest;
    latest.logTime = 253402300799;  // 9999-12-31T23:59:59Z
    fixtures::QrFields last = signedWith(latest);
    last.logTime = "9999-12-31T23:59:59Z";
    fixtures::LogFields earliest;
    earliest.logTime = -62167219200;  // 0000-01-01T00:00:00Z
    fixtures::QrFields first = signedWith(earliest);
    first.logTime = "0000-01-01T00:00:00Z";

    const std::string oneField = "[ERROR] Got 1 DSFinVK QR Code Parameters (expected 12)";
    const std::string notParsed = "[ERROR] Error parsing QR Code data";
    expectHostile({
        {"100 000 characters", {"-q" + std::string(100000, 'A')}, 1, {oneField, notParsed}},
        {"100 000 characters of process data", {"-q" + huge.text()}, 1,
         {"[ERROR] Error generating ASN.1 data. ERR: -4"}},
        {"only non-ASCII bytes", {"-q" + nonAscii}, 1, {oneField, notParsed}},
        {"non-ASCII bytes in signed fields", {"-q" + signedWith(withNonAscii).text()}, 0, {kSuccess}},
        {"every field 0xFF bytes", {"-q" + allFF.text()}, 1,
         {"[ERROR] Algorithm " + allFF.signatureAlgorithm + " is not supported.", notParsed}},
        // 0x00 first announces the point at infinity, which takes one byte.
        {"public key of 97 zero bytes", {"-q" + zeroKey.text()}, 252,
         {"[ERROR] Error decoding public key", "[INFO] EC_KEY_CHECK: 0", kQrFailed}},
        {"signature of all 0xFF", {"-q" + ffSignature.text()}, 252, {"[INFO] EC_KEY_CHECK: 1", kQrFailed}},
        // The message keeps the low 32 bits of the seconds, as a signer would.
        {"log time 9999-12-31T23:59:59Z", {"-q" + last.text()}, 0,
         {"[INFO] Given log time in unix format: 253402300799", kSuccess}},
        {"log time 0000-01-01T00:00:00Z", {"-q" + first.text()}, 0,
         {"[INFO] Given log time in unix format: -62167219200", kSuccess}},
    });
}

TEST(HostileInputs, ReaderOfTseCheck)
{
    fixtures::TempDir dir;
    const std::string empty = dir.write("empty.log", "");
    const std::string claim = dir.write("claim.log", Bytes{0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF});
    const std::string big = dir.write("big.log", Bytes(64u << 20, 0x30));
    const std::string parseError = "[ERROR] Error parsing ASN.1 data. ERR: ";
    expectHostile({
        {"empty log", {"read", empty}, 2, {parseError + "ExpectedHeader"}},
        {"length beyond the buffer", {"read", claim}, 2, {parseError + "WrongLogVersion"}},
        {"log is a directory", {"read", dir.path("")}, 2, {"[ERROR] Log file " + dir.path("") + " is a directory"}},
        {"64 MiB log", {"read", big}, 2, {"[ERROR] Log file " + big + " is larger than 1048576 bytes"}},
    }, fixtures::tseCheckPath());
}

}  // namespace
