#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "QrCodeToASN.h"
#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;
using fixtures::LogFields;
using fixtures::run;
using fixtures::tseCheckPath;

namespace {

using Args = std::vector<std::string>;

std::string signatureOf(const Bytes& message)
{
    return fixtures::base64(Bytes(message.end() - 96, message.end()));
}

std::string upperHex(const Bytes& data)
{
    std::string hex = fixtures::toHex(data);
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    return hex;
}

// One TSE: its key, its certificate and a directory for the files.
struct Tse {
    EcKeyPtr key = fixtures::makeEcKey();
    fixtures::TempDir dir;
    std::string cert = dir.write("tse.pem", fixtures::certificatePem(key.get()));

    Bytes body(LogFields fields) const
    {
        fields.serialNumber = fixtures::sha256(fixtures::rawPublicKey(key.get()));
        return fixtures::signedOctets(fields);
    }
    std::string log(const std::string& name, const Bytes& signedPart) const
    {
        return dir.write(name, fixtures::exportedLog(signedPart, fixtures::signRaw(key.get(), signedPart)));
    }
    std::string log(const std::string& name, const LogFields& fields = {}) const
    {
        return log(name, body(fields));
    }
};

TEST(TseCheck, ReadPrintsOneFieldPerLine)
{
    Tse tse;
    const Bytes message = fixtures::signedExportedLog(tse.key.get(), {});
    const auto result = run(tseCheckPath(), {"read", tse.dir.write("a.log", message)});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "operationType: FinishTransaction\n"
                          "clientId: K1\n"
                          "processData: Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar\n"
                          "processType: Kassenbeleg-V1\n"
                          "transactionNumber: 7\n"
                          "signatureCounter: 538\n"
                          "logTime: 2020-06-23T14:20:10.000Z\n"
                          "serialNumber: " + upperHex(fixtures::sha256(fixtures::rawPublicKey(tse.key.get()))) + "\n"
                          "signature: " + signatureOf(message) + "\n");
}

TEST(TseCheck, ToQrPrintsTheReceiptQrCode)
{
    Tse tse;
    const Bytes message = fixtures::signedExportedLog(tse.key.get(), {});
    const std::string log = tse.dir.write("a.log", message);
    const std::string tail = "ecdsa-plain-SHA384;unixTime;" + signatureOf(message) +
                             ";" + fixtures::base64(fixtures::rawPublicKey(tse.key.get())) + "\n";
    const std::string head = "V0;K1;Kassenbeleg-V1;Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar;7;538;";

    auto result = run(tseCheckPath(), {"to-qr", "--cert", tse.cert, log});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, head + "2020-06-23T14:20:10.000Z;2020-06-23T14:20:10.000Z;" + tail);

    result = run(tseCheckPath(), {"to-qr", log, "--start-time", "2020-06-23T14:19:00.000Z", "--cert", tse.cert});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, head + "2020-06-23T14:19:00.000Z;2020-06-23T14:20:10.000Z;" + tail);
}

TEST(TseCheck, HelpOnEveryLevel)
{
    for (const Args& args : {Args{"--help"}, {"read", "--help"}, {"to-qr", "-h"}}) {
        const auto result = run(tseCheckPath(), args);
        EXPECT_EQ(result.status, 0) << args[0];
        EXPECT_NE(result.out.find("Usage: tse-check"), std::string::npos) << result.out;
    }
}

struct RefusalCase {
    const char* name;
    std::function<Args(const Tse&)> args;
    int status;
    const char* reason;  // part of the [ERROR] line on standard error
};

LogFields withField(std::string LogFields::*member, const std::string& value)
{
    LogFields fields;
    fields.*member = value;
    return fields;
}

Args toQr(const Tse& tse, const std::string& log, Args more = {})
{
    Args args{"to-qr", "--cert", tse.cert, log};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

const RefusalCase kRefusals[] = {
    {"no subcommand", [](const Tse&) { return Args{}; }, 2, "[ERROR] A subcommand is required"},
    {"read a missing file", [](const Tse& t) { return Args{"read", t.dir.path("none")}; }, 2,
     "does not exist"},
    {"read a directory", [](const Tse& t) { return Args{"read", t.dir.path("")}; }, 2,
     "is a directory"},
    {"read what is not a log message",
     [](const Tse& t) { return Args{"read", t.cert}; }, 2,
     "[ERROR] Error parsing ASN.1 data. ERR: ExpectedHeader\n"},
    {"to-qr without --cert", [](const Tse& t) { return Args{"to-qr", t.log("a.log")}; }, 2,
     "[ERROR] --cert is required"},
    {"signature does not verify",
     [](const Tse& t) {
         const Bytes signedPart = t.body({});
         return toQr(t, t.dir.write("a.log", fixtures::exportedLog(t.body(withField(&LogFields::clientId, "K2")),
                                                                    fixtures::signRaw(t.key.get(), signedPart))));
     },
     1, "does not verify with certificate"},
    {"certificate of another TSE",
     [](const Tse& t) {
         EcKeyPtr other = fixtures::makeEcKey();
         return toQr(t, t.dir.write("a.log", fixtures::signedExportedLog(other.get(), {})));
     },
     2, "does not belong to the TSE"},
    {"certificate on another curve",
     [](const Tse& t) {
         EcKeyPtr other = fixtures::makeEcKey("prime256v1");
         return Args{"to-qr", "--cert", t.dir.write("p256.pem", fixtures::certificatePem(other.get())),
                                         t.log("a.log")};
     },
     2, "lies on prime256v1, not on brainpoolP384r1"},
    {"RSA certificate",
     [](const Tse& t) {
         return Args{"to-qr", "--cert", t.dir.write("rsa.pem", fixtures::rsaCertificatePem()),
                                         t.log("a.log")};
     },
     2, "is not an EC key"},
    {"certificate that is no PEM",
     [](const Tse& t) { return Args{"to-qr", "--cert", t.log("b.log"), t.log("a.log")}; }, 2,
     "holds no PEM certificate"},
    {"missing certificate",
     [](const Tse& t) { return Args{"to-qr", "--cert", t.dir.path("none"), t.log("a.log")}; }, 2,
     "does not exist"},
    {"empty client ID", [](const Tse& t) { return toQr(t, t.log("a.log", withField(&LogFields::clientId, ""))); }, 2,
     "clientId is empty"},
    {"process data holding the separator",
     [](const Tse& t) { return toQr(t, t.log("a.log", withField(&LogFields::processData, "a;b"))); }, 2,
     "processData holds \";\""},
    {"client ID beginning with a double quote",
     [](const Tse& t) { return toQr(t, t.log("a.log", withField(&LogFields::clientId, "\"K1"))); }, 2,
     "clientId begins with a double quote"},
    {"empty start time", [](const Tse& t) { return toQr(t, t.log("a.log"), {"--start-time", ""}); }, 2,
     "startTime is empty"},
    {"start transaction",
     [](const Tse& t) { return toQr(t, t.log("a.log", withField(&LogFields::operationType, "StartTransaction"))); },
     2, "operationType is \"StartTransaction\""},
    {"log time in fewer than four octets",
     [](const Tse& t) {
         Bytes signedPart = t.body({});
         signedPart.resize(signedPart.size() - 6);
         signedPart.insert(signedPart.end(), {0x02, 0x01, 0x00});
         return toQr(t, t.log("a.log", signedPart));
     },
     2, "a QR code made from it would not verify"},
};

TEST(TseCheck, RefusesWithStatusAndReason)
{
    for (const RefusalCase& c : kRefusals) {
        SCOPED_TRACE(c.name);
        Tse tse;
        const auto result = run(tseCheckPath(), c.args(tse));
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind("[ERROR] ", 0), 0u) << result.err;
        EXPECT_NE(result.err.find(c.reason), std::string::npos) << result.err;
    }
}

// The log message that a verifier rebuilds from a QR code, completed with
// the QR code's signature into an exported log.
Bytes rebuiltLog(const std::string& qrCode)
{
    setConsoleOutput(false);
    const QrCodeToASN builder(qrCode);
    setConsoleOutput(true);
    clearErrorMsg(ERROR_ALL);
    const Bytes message = builder.getASN1Data();
    const size_t headerSize = message[1] == 0x81 ? 3 : 4;
    return fixtures::exportedLog(Bytes(message.begin() + headerSize, message.end()), builder.getSignature());
}

TEST(TseCheck, QrCodeVerifiesAndRebuildsTheSameFields)
{
    auto fields = [](size_t processDataSize, uint64_t transaction, uint64_t counter, int64_t logTime) {
        LogFields f;
        f.processData = std::string(processDataSize, 'p');
        f.transactionNumber = transaction;
        f.signatureCounter = counter;
        f.logTime = logTime;
        return f;
    };
    LogFields wide = fields(1000, 128, 32768, -1);
    wide.clientId = std::string(200, 'c');
    wide.processType = "Beleg \xC3\xA4 \"quoted\"";
    const LogFields cases[] = {fields(1, 0, 0, 0), {}, fields(127, 4294967295u, 2147483648u, 2147483647),
                               fields(128, 65535, 16777216, 1592921410), wide};
    size_t largestContent = 0;
    for (const LogFields& f : cases) {
        Tse tse;
        const Bytes message = fixtures::signedExportedLog(tse.key.get(), f);
        largestContent = std::max(largestContent, message.size() - (message[1] == 0x81 ? 3 : 4));
        const std::string log = tse.dir.write("a.log", message);
        SCOPED_TRACE("log message of " + std::to_string(message.size()) + " octets");

        const auto qr = run(tseCheckPath(), {"to-qr", "--cert", tse.cert, log});
        ASSERT_EQ(qr.status, 0) << qr.err;
        const std::string qrCode = qr.out.substr(0, qr.out.size() - 1);
        const auto verified = run(fixtures::verifierPath(), {"-q" + qrCode});
        EXPECT_EQ(verified.status, 0) << verified.out;
        EXPECT_NE(verified.out.find("[RESULT] Verifed EC Signature SUCCESS\n"), std::string::npos);

        const auto original = run(tseCheckPath(), {"read", log});
        const auto rebuilt = run(tseCheckPath(), {"read", tse.dir.write("rebuilt.log", rebuiltLog(qrCode))});
        EXPECT_EQ(original.status, 0);
        EXPECT_EQ(rebuilt.out, original.out);
    }
    EXPECT_GE(largestContent, 256u);
}

}  // namespace
