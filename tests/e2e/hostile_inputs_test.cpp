// Hostile inputs end to end: each must end with a defined status and defined
// message lines, without a crash or a sanitizer report.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <chrono>

#include "fixtures.h"

using fixtures::Bytes;
using fixtures::LogFields;
using fixtures::QrFields;

namespace {

struct HostileCase {
    std::vector<std::string> arguments;
    int status;
    std::vector<std::string> lines;  // each must appear as a whole line
};

const std::string kFailed = "[RESULT] EC Signature Verification FAILED";
const std::string kQrFailed = "[RESULT]  EC Signature Verification FAILED";
const std::string kSuccess = "[RESULT] Verifed EC Signature SUCCESS";
const std::string kTooShort = "[ERROR] Transaction log is too short to hold a signed log message: ";
const std::string kBadCert = "[ERROR] Unable to parse certificate in: ";
const std::string kUnixTime = "[INFO] Given log time in unix format: ";
const std::string kNotParsed = "[ERROR] Error parsing QR Code data";

TEST(HostileInputs, EndWithAStatusAndTheirMessage)
{
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    const std::string pem = fixtures::certificatePem(key.get());
    const std::string cert = "-c" + dir.write("cert.pem", pem);
    const std::string log = "-l" + dir.write("signed.log", fixtures::signedExportedLog(key.get(), {}));
    int files = 0;
    auto file = [&](const std::string& contents) { return dir.write(std::to_string(++files), contents); };
    const std::string empty = file(""), one = file("0"), hundred = file(std::string(100, '0')), noCert = file("");
    const std::string half = file(pem.substr(0, pem.size() / 2));
    const std::string garbage = file(pem.substr(0, 40) + std::string(80, '!') + pem.substr(120));
    // A QR code signed over the fields, then with one of its own replaced.
    auto qr = [&](const LogFields& fields, std::string QrFields::*field, const std::string& value) {
        QrFields signedFields = fixtures::signedQrFields(key.get(), fields);
        signedFields.*field = value;
        return "-q" + signedFields.text();
    };
    auto at = [](int64_t seconds) { return LogFields{"FinishTransaction", "K1", "p", "PT", 7, 538, seconds, {}}; };
    const std::string nonAscii = "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\x80\xFE\xFF", ff(8, '\xFF');

    const HostileCase cases[] = {
        {{cert, "-l" + empty}, 1, {kTooShort + empty}}, {{cert, "-l" + one}, 1, {kTooShort + one}},
        {{cert, "-l" + hundred}, 1, {kTooShort + hundred}},
        {{cert, "-l" + file(std::string(101, '0'))}, 252, {kFailed}},
        {{cert, "-l" + file(std::string(259, '\xFF'))}, 252, {kFailed}},
        {{cert, "-l" + dir.path("")}, 1, {"[ERROR] Could not read transaction log: " + dir.path("")}},
        {{"-c" + noCert, log}, 1, {kBadCert + noCert}}, {{"-c" + half, log}, 1, {kBadCert + half}},
        {{"-c" + garbage, log}, 1, {kBadCert + garbage}},
        // The first certificate in the file counts, whatever comes before it.
        {{"-c" + file(fixtures::privateKeyPem(key.get()) + pem), log}, 0, {kSuccess}},
        {{qr({}, &QrFields::processData, std::string(100000, 'P'))}, 1,
         {"[ERROR] Error generating ASN.1 data. ERR: -4"}},
        {{"-q" + nonAscii}, 1, {"[ERROR] Got 1 DSFinVK QR Code Parameters (expected 12)", kNotParsed}},
        // Non-ASCII bytes signed as they stand (the version stays V0).
        {{qr({"FinishTransaction", nonAscii, nonAscii, "PT", 7, 538, 0, {}}, &QrFields::version, "V0")}, 0, {kSuccess}},
        {{"-q" + QrFields{ff, ff, ff, ff, ff, ff, ff, ff, ff, ff, ff, ff}.text()}, 1,
         {"[ERROR] Algorithm " + ff + " is not supported.", kNotParsed}},
        // 0x00 first announces the point at infinity, which takes one byte.
        {{qr({}, &QrFields::publicKey, fixtures::base64(Bytes(97, 0x00)))}, 252,
         {"[ERROR] Error decoding public key", "[INFO] EC_KEY_CHECK: 0", kQrFailed}},
        {{qr({}, &QrFields::signature, fixtures::base64(Bytes(96, 0xFF)))}, 252, {"[INFO] EC_KEY_CHECK: 1", kQrFailed}},
        // The message keeps the low 32 bits of the seconds, as a signer would.
        {{qr(at(253402300799), &QrFields::logTime, "9999-12-31T23:59:59Z")}, 0, {kUnixTime + "253402300799", kSuccess}},
        {{qr(at(-62167219200), &QrFields::logTime, "0000-01-01T00:00:00Z")}, 0, {kUnixTime + "-62167219200", kSuccess}},
    };
    for (const HostileCase& c : cases) {
        const fixtures::RunResult result = fixtures::run(fixtures::verifierPath(), c.arguments);
        SCOPED_TRACE(c.arguments.back().substr(0, 100) + "\n" + result.out + result.err);
        EXPECT_EQ(result.status, c.status);
        const std::string lines = "\n" + result.out + "\n" + result.err;
        for (const std::string& line : c.lines) {
            EXPECT_NE(lines.find("\n" + line + "\n"), std::string::npos) << line;
        }
    }

    // 64 MiB are answered at once, held about once in memory (the largest
    // child so far; every other one is small).
    constexpr size_t size = 64u << 20;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fixtures::run(fixtures::verifierPath(), {cert, "-l" + file(std::string(size, 'Z'))}).status, 252);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    EXPECT_LT(static_cast<size_t>(usage.ru_maxrss) * 1024, 3 * size);
}

}  // namespace
