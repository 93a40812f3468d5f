// Hostile inputs end to end: each must end with a defined status and defined
// message lines, without a crash or a sanitizer report.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

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
        {{cert, "-l" + empty}, 1, {kTooShort + empty}},
        {{cert, "-l" + one}, 1, {kTooShort + one}},
        {{cert, "-l" + hundred}, 1, {kTooShort + hundred}},
        {{cert, "-l" + file(std::string(101, '0'))}, 252, {kFailed}},
        {{cert, "-l" + file(std::string(259, '\xFF'))}, 252, {kFailed}},
        {{cert, "-l" + dir.path("")}, 1, {"[ERROR] Could not read transaction log: " + dir.path("")}},
        {{"-c" + noCert, log}, 1, {kBadCert + noCert}},
        {{"-c" + half, log}, 1, {kBadCert + half}},
        {{"-c" + garbage, log}, 1, {kBadCert + garbage}},
        // The first certificate in the file counts, whatever comes before it.
        {{"-c" + file(fixtures::privateKeyPem(key.get()) + pem), log}, 0, {kSuccess}},
        {{qr({}, &QrFields::processData, std::string(100000, 'P'))},
         1,
         {"[ERROR] Error generating ASN.1 data. ERR: -4"}},
        {{"-q" + nonAscii}, 1, {"[ERROR] Got 1 DSFinVK QR Code Parameters (expected 12)", kNotParsed}},
        // Non-ASCII bytes signed as they stand (the version stays V0).
        {{qr({"FinishTransaction", nonAscii, nonAscii, "PT", 7, 538, 0, {}}, &QrFields::version, "V0")}, 0, {kSuccess}},
        {{"-q" + QrFields{ff, ff, ff, ff, ff, ff, ff, ff, ff, ff, ff, ff}.text()},
         1,
         {"[ERROR] Algorithm " + ff + " is not supported.", kNotParsed}},
        // 0x00 first announces the point at infinity, which takes one byte.
        {{qr({}, &QrFields::publicKey, fixtures::base64(Bytes(97, 0x00)))},
         252,
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
}

// Writes the contents into a FIFO once a reader has opened it, as a shell
// pipeline does, and gives up when no reader comes in time.
void feedFifo(const std::string& path, const Bytes& contents, std::chrono::seconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    int fd = -1;
    while ((fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 && errno == ENXIO &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (fd < 0) {
        return;
    }
    fcntl(fd, F_SETFL, 0);
    for (size_t done = 0; done < contents.size();) {
        const ssize_t written = write(fd, contents.data() + done, contents.size() - done);
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    close(fd);
}

// Devices that never end, files past the size limits and FIFOs each end with
// their status while the verifier holds at most the largest accepted log
// once (plus what the sanitizers add); the watchdog kills a run that grows
// or hangs. How fast they end is measured by scripts/bench, not here.
TEST(HostileInputs, EndlessLargeAndPipedFilesEndBoundedInMemory)
{
    std::signal(SIGPIPE, SIG_IGN);  // a writer whose reader has gone fails instead
    constexpr size_t logLimit = size_t{64} << 20, certificateLimit = size_t{1} << 20;
    constexpr fixtures::RunLimits limits{30, (logLimit >> 10) + 96 * 1024};
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    const std::string pem = fixtures::certificatePem(key.get());
    const Bytes signedLog = fixtures::signedExportedLog(key.get(), {});
    const std::string cert = dir.write("cert.pem", pem), log = dir.write("signed.log", signedLog);
    // Sparse files: the contents followed by zeros up to the size.
    auto sized = [&](const std::string& name, const std::string& contents, size_t size) {
        const std::string path = dir.write(name, contents);
        std::filesystem::resize_file(path, size);
        return path;
    };
    const std::string log64 = sized("64.log", "", logLimit), log64plus = sized("64+1.log", "", logLimit + 1);
    const std::string log65 = sized("65.log", "", size_t{65} << 20);
    const std::string cert1 = sized("1.pem", pem, certificateLimit);
    const std::string cert1plus = sized("1+1.pem", pem, certificateLimit + 1), cert2 = sized("2.pem", pem, 2 << 20);
    const std::string logFifo = dir.path("log.fifo"), certFifo = dir.path("cert.fifo");
    ASSERT_EQ(mkfifo(logFifo.c_str(), 0600) | mkfifo(certFifo.c_str(), 0600), 0);
    const std::string tooLarge = "[ERROR] Transaction log is too large: ";
    const Bytes pemBytes(pem.begin(), pem.end());

    const struct {
        std::string cert, log;
        int status;
        std::string line;
        std::vector<std::pair<std::string, const Bytes*>> feeds;  // FIFO and what its writer sends
    } cases[] = {
        {cert, "/dev/zero", 1, tooLarge + "/dev/zero", {}},
        {cert, log65, 1, tooLarge + log65, {}},
        {cert, log64plus, 1, tooLarge + log64plus, {}},
        {cert, log64, 252, kFailed, {}},  // read and verified like any log
        {"/dev/zero", log, 1, kBadCert + "/dev/zero", {}},
        {cert2, log, 1, kBadCert + cert2, {}},
        {cert1plus, log, 1, kBadCert + cert1plus, {}},
        {cert1, log, 0, kSuccess, {}},
        {cert, logFifo, 0, kSuccess, {{logFifo, &signedLog}}},
        {certFifo, logFifo, 0, kSuccess, {{logFifo, &signedLog}, {certFifo, &pemBytes}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cert + " " + c.log);
        std::vector<std::thread> writers;
        for (const auto& [fifo, contents] : c.feeds) {
            writers.emplace_back(feedFifo, fifo, *contents, std::chrono::seconds(limits.seconds));
        }
        const fixtures::RunResult result =
            fixtures::run(fixtures::verifierPath(), {"-c" + c.cert, "-l" + c.log}, {}, limits);
        for (std::thread& writer : writers) {
            writer.join();
        }
        EXPECT_EQ(result.stopped, "");
        EXPECT_EQ(result.status, c.status) << result.out;
        EXPECT_NE(("\n" + result.out).find("\n" + c.line + "\n"), std::string::npos) << result.out;
        EXPECT_LT(result.maxRssKiB, limits.rssKiB);
    }
}

}  // namespace
