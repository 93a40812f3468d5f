#include <gtest/gtest.h>

#include <algorithm>

#include "QrCodeToASN.h"
#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;
using fixtures::LogFields;
using fixtures::run;
using fixtures::tseCheckPath;

namespace {

using Args = std::vector<std::string>;

// One TSE: its key, its certificate and a directory for the files.
struct Tse {
    EcKeyPtr key = fixtures::makeEcKey();
    fixtures::TempDir dir;
    std::string cert = dir.write("tse.pem", fixtures::certificatePem(key.get()));

    Bytes message(const LogFields& fields = {}) const { return fixtures::signedExportedLog(key.get(), fields); }
};

TEST(TseCheck, ReadToQrAndHelp)
{
    Tse tse;
    const Bytes message = tse.message();
    const std::string log = tse.dir.write("a.log", message);
    fixtures::QrFields qr;  // the fields of the default log message
    qr.signature = fixtures::base64(Bytes(message.end() - 96, message.end()));
    qr.publicKey = fixtures::base64(fixtures::rawPublicKey(tse.key.get()));
    std::string serial = fixtures::toHex(fixtures::sha256(fixtures::rawPublicKey(tse.key.get())));
    serial.erase(std::remove(serial.begin(), serial.end(), ' '), serial.end());

    auto result = run(tseCheckPath(), {"read", log});
    EXPECT_EQ(result.status, 0) << result.err;
    // The nine lines tse-check always printed come first; more elements follow.
    EXPECT_EQ(result.out.substr(0, result.out.find("logType:")), "operationType: FinishTransaction\nclientId: K1\nprocessData: " + qr.processData +
                              "\nprocessType: Kassenbeleg-V1\ntransactionNumber: 7\nsignatureCounter: 538\n"
                              "logTime: 2020-06-23T14:20:10.000Z\nserialNumber: " + serial +
                              "\nsignature: " + qr.signature + "\n");
    result = run(tseCheckPath(), {"to-qr", log, "--start-time", qr.startTime, "--cert", tse.cert});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, qr.text() + "\n");
    qr.startTime = qr.logTime;  // by default
    EXPECT_EQ(run(tseCheckPath(), {"to-qr", "--cert", tse.cert, log}).out, qr.text() + "\n");
    result = run(tseCheckPath(), {"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("tse-check ", 0), 0u) << result.out;
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '.'), 2) << result.out;
    EXPECT_EQ(result.out.find_first_not_of("0123456789.", 10), result.out.size() - 1) << result.out;
    result = run(tseCheckPath(), {"to-qr", "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("Usage: tse-check to-qr"), std::string::npos) << result.out;
}

TEST(TseCheck, RefusesWithStatusAndReason)
{
    Tse t;
    auto toQr = [&](const std::string& name, const Bytes& log, const std::string& cert = "") {
        return Args{"to-qr", "--cert", cert.empty() ? t.cert : cert, t.dir.write(name, log)};
    };
    const Bytes message = t.message();
    Bytes forged = message;
    forged.back() ^= 1;
    const std::string foreign = fixtures::certificatePem(fixtures::makeEcKey().get());
    const std::string p256 = fixtures::certificatePem(fixtures::makeEcKey("prime256v1").get());
    const std::string log = t.dir.write("a.log", message), missing = t.dir.path("missing");
    const std::string directory = t.dir.path("");
    const struct {
        Args args;
        int status;
        const char* reason;  // part of the [ERROR] line on standard error
    } cases[] = {
        {{"read", t.cert}, 2, "cannot be read as a log message: expected the log message's SEQUENCE"},
        // Usage errors name the word that was not understood.
        {{"frobnicate", log}, 2, "frobnicate"},
        {{"--frobnicate", "read", log}, 2, "--frobnicate"},
        {{"read", "--frobnicate", log}, 2, "--frobnicate"},
        {{"to-qr", "--certificate", t.cert, log}, 2, "--certificate"},
        // Files: the limit of a log is 16 MiB, read as far as the content allows.
        {{"read", t.dir.write("16MiB.log", Bytes(16u << 20, 0x30))}, 2, "cannot be read as a log message"},
        {{"read", t.dir.write("big.log", Bytes((16u << 20) + 1, 0x30))}, 2, "is larger than 16777216 bytes"},
        {{"read", missing}, 2, missing.c_str()},
        {{"read", directory}, 2, directory.c_str()},
        {{"to-qr", "--cert", missing, log}, 2, missing.c_str()},
        {toQr("forged.log", forged), 1, "does not verify with certificate"},
        {toQr("a.log", message, t.dir.write("foreign.pem", foreign)), 2, "does not belong to the TSE"},
        {toQr("a.log", message, t.dir.write("p256.pem", p256)), 2, "does not belong to the TSE"},
        {toQr("semicolon.log", t.message({"FinishTransaction", "K1", "a;b", "PT", 7, 538, 0, {}})), 2,
         "processData holds \";\""},
        {toQr("empty.log", t.message({"FinishTransaction", "K1", "p", "", 7, 538, 0, {}})), 2, "processType"},
        {toQr("zero.log", t.message({"FinishTransaction", std::string("K\0" "1", 3), "p", "PT", 7, 538, 0, {}})), 2,
         "clientId"},
        {toQr("update.log", t.message({"UpdateTransaction", "K1", "p", "PT", 7, 538, 0, {}})), 2,
         "UpdateTransaction"},
    };
    for (const auto& c : cases) {
        const auto result = run(tseCheckPath(), c.args);
        SCOPED_TRACE(::testing::PrintToString(c.args));
        EXPECT_EQ(result.status, c.status) << c.reason;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind("[ERROR] ", 0), 0u) << result.err;
        EXPECT_NE(result.err.find(c.reason), std::string::npos) << result.err;
    }
}

// The verifier accepts the QR code, and rebuilds from it exactly the octets
// that the log message signs (so reading either gives the same fields).
TEST(TseCheck, QrCodeVerifiesAndRebuildsTheSignedOctets)
{
    const LogFields cases[] = {
        {"FinishTransaction", "K1", "p", "PT", 0, 0, 0, {}},
        {"FinishTransaction", "K1", std::string(127, 'p'), "PT", 4294967295u, 2147483648u, 2147483647, {}},
        // Content beyond 256 octets; numbers that take a leading zero octet.
        {"FinishTransaction", std::string(200, 'c'), std::string(1000, 'p'), "\xC3\xA4 \"quoted\"", 128, 32768, 1700000000, {}},
    };
    auto body = [](const Bytes& m, size_t tail) { return Bytes(m.begin() + (m[1] == 0x81 ? 3 : 4), m.end() - tail); };
    for (const LogFields& fields : cases) {
        Tse tse;
        const Bytes message = tse.message(fields);
        const auto qr = run(tseCheckPath(), {"to-qr", "--cert", tse.cert, tse.dir.write("a.log", message)});
        ASSERT_EQ(qr.status, 0) << qr.err;
        const std::string qrCode = qr.out.substr(0, qr.out.size() - 1);
        EXPECT_EQ(run(fixtures::verifierPath(), {"-q" + qrCode}).status, 0) << qrCode;
        setConsoleOutput(false);
        EXPECT_EQ(body(QrCodeToASN(qrCode).getASN1Data(), 0), body(message, 98));
        setConsoleOutput(true);
    }
}

}  // namespace
