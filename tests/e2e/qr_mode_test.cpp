#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "fixtures.h"

using fixtures::Bytes;
using fixtures::LogFields;
using fixtures::QrFields;

namespace {

const std::string kStart = "Version: 1.2\n\n[INFO] Attempting to validate DSFinVK QrCode data.\n";
const std::string kNoOffset = "TZ Hour: 0\nTZ MIN: 0\n";  // what ".000Z" after the seconds reads as
const std::string kVerified = "[INFO] EC_KEY_CHECK: 1\n[RESULT] Verifed EC Signature SUCCESS\n";
const std::string kFailed = "[INFO] EC_KEY_CHECK: 1\n[RESULT]  EC Signature Verification FAILED\n";
const std::string kParseFailed = "[ERROR] Error parsing QR Code data\n";

const EC_KEY* key()
{
    static const EcKeyPtr tse = fixtures::makeEcKey();
    return tse.get();
}

Bytes tseKey()
{
    return fixtures::rawPublicKey(key());
}

std::string serialLine(const Bytes& publicKey)
{
    std::string hex = fixtures::toHex(fixtures::sha256(publicKey));
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    return "\n[INFO] Derived Serial Number is: " + hex + "\n";
}

std::string report(const QrFields& qr)
{
    const std::pair<const char*, const std::string*> rows[] = {
        {"qr-code-version", &qr.version}, {"kassen-seriennummer", &qr.clientId},
        {"processType", &qr.processType}, {"processData", &qr.processData},
        {"transaktions-nummer", &qr.transactionNumber}, {"signatur-zaehler", &qr.signatureCounter},
        {"start-zeit", &qr.startTime}, {"log-time", &qr.logTime}, {"sig-alg", &qr.signatureAlgorithm},
        {"log-time-format", &qr.logTimeFormat}, {"signatur", &qr.signature}, {"public-key", &qr.publicKey}};
    std::string text = "\n[INFO] Received QRCodeDataDSFinVK Data: \n";
    for (const auto& row : rows) {
        text += std::string("\t<") + row.first + "> " + *row.second + "\n";
    }
    return text + "\n";
}

std::string parsed(const QrFields& qr, const Bytes& publicKey = tseKey())
{
    return kStart + serialLine(publicKey) + report(qr);
}

Bytes withHeader(const Bytes& content)
{
    const auto size = content.size();
    Bytes message = size < 256 ? Bytes{0x30, 0x81, static_cast<uint8_t>(size)}
                               : Bytes{0x30, 0x82, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
    message.insert(message.end(), content.begin(), content.end());
    return message;
}

std::string unixLine(int64_t seconds)
{
    return "[INFO] Given log time in unix format: " + std::to_string(seconds) + "\n";
}

// Everything a run prints for a code that parses and builds: the message
// holds the signed fields with the serial number of the given key.
std::string builtRun(const QrFields& qr, LogFields message, const std::string& offsetLines,
                     const std::string& verdict, const Bytes& publicKey = tseKey())
{
    message.serialNumber = fixtures::sha256(publicKey);
    return parsed(qr, publicKey) + offsetLines + unixLine(message.logTime) + "[INFO] Derived ASN.1 Data: " +
           fixtures::toHex(withHeader(fixtures::signedOctets(message))) + "\n" + verdict;
}

QrFields signedQr(const LogFields& fields)
{
    return fixtures::signedQrFields(key(), fields);
}

fixtures::RunResult verify(const std::string& text, const std::vector<std::string>& environment = {})
{
    return fixtures::run(fixtures::verifierPath(), {"-q" + text}, environment);
}

void expectRun(const std::string& text, int status, const std::string& out,
               const std::vector<std::string>& environment = {})
{
    const fixtures::RunResult result = verify(text, environment);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, "");
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

TEST(QrMode, ValidCodeVerifiesInEveryAcceptedSpelling)
{
    const QrFields qr = signedQr({});
    const std::string expected = builtRun(qr, {}, kNoOffset, kVerified);
    for (const std::string& text : {qr.text(), "\"" + qr.text() + "\"",
                                    "\"" + replaceAll(qr.text(), ";", "\";\"") + "\"", ";" + qr.text() + ";;"}) {
        SCOPED_TRACE(text);
        expectRun(text, 0, expected);
    }
}

TEST(QrMode, RejectedTextsEndAfterTheParserLine)
{
    const QrFields good = signedQr({});
    auto with = [&](const std::function<void(QrFields&)>& change) {
        QrFields qr = good;
        change(qr);
        return qr.text();
    };
    const std::pair<std::string, std::string> cases[] = {
        {with([](QrFields& q) { q.startTime.clear(); }), "[ERROR] Got 11 DSFinVK QR Code Parameters (expected 12)"},
        {with([](QrFields& q) { q.startTime.clear();
            q.signatureAlgorithm = "rsa"; }),
         "[ERROR] Got 11 DSFinVK QR Code Parameters (expected 12)"},
        {";;;", "[ERROR] Got 0 DSFinVK QR Code Parameters (expected 12)"},
        {good.text() + ";thirteen", "[ERROR] Too many parameters - unknown data: thirteen"},
        {good.text() + ";thirteen;fourteen", "[ERROR] Too many parameters - unknown data: thirteen"},
        {with([](QrFields& q) { q.signatureAlgorithm = "ecdsa-plain-SHA256"; }),
         "[ERROR] Algorithm ecdsa-plain-SHA256 is not supported."},
        {with([](QrFields& q) { q.logTimeFormat = "utcTime"; }), "[ERROR] logTimeFormat utcTime is not supported."},
        {with([](QrFields& q) { q.version = "V1"; }), "[ERROR] qrCodeVersion V1 is not supported."},
        {with([](QrFields& q) { q.version = "V1";
            q.logTimeFormat = "utcTime";
            q.signatureAlgorithm = "x"; }),
         "[ERROR] Algorithm x is not supported."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        expectRun(c.first, 1, kStart + c.second + "\n" + kParseFailed);
    }
}

TEST(QrMode, UndecodableKeyOrSignatureStopsBeforeTheReport)
{
    const QrFields good = signedQr({});
    QrFields badKey = good, shortKey = good, badSignature = good, shortSignature = good;
    badKey.publicKey[10] = '!';
    const Bytes publicKey = tseKey();
    shortKey.publicKey = fixtures::base64(Bytes(publicKey.begin(), publicKey.begin() + 96));
    badSignature.signature[0] = '*';
    shortSignature.signature = fixtures::base64(Bytes(90, 0x11));
    const std::string serial = serialLine(tseKey());
    const std::pair<QrFields, std::string> cases[] = {
        {badKey, "[ERROR] Public Key base64 decode failed.\n"},
        {shortKey, "[ERROR] Public Key has 96 bytes, expected 97.\n"},
        {badSignature, serial + "[ERROR] Signature base64 decode failed.\n"},
        {shortSignature, serial + "[ERROR] Signature has 90 bytes, expected 96.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        expectRun(c.first.text(), 1, kStart + c.second);
    }
}

TEST(QrMode, TamperedProcessDataFailsVerification)
{
    LogFields fields;
    QrFields qr = signedQr(fields);
    qr.processData = fields.processData = "Beleg^9.57_0.00_0.00_0.00_0.00^9.57:Bar";
    expectRun(qr.text(), 252, builtRun(qr, fields, kNoOffset, kFailed));
}

TEST(QrMode, PublicKeyOffTheCurveIsReportedAndFails)
{
    Bytes offCurve = tseKey();
    offCurve.back() ^= 0x01;
    QrFields qr = signedQr({});
    qr.publicKey = fixtures::base64(offCurve);
    const fixtures::RunResult result = verify(qr.text());
    EXPECT_EQ(result.status, 252);
    EXPECT_EQ(result.out, builtRun(qr, {}, kNoOffset,
                                   "[ERROR] Error decoding public key\n[INFO] EC_KEY_CHECK: 0\n"
                                   "[RESULT]  EC Signature Verification FAILED\n",
                                   offCurve));
    EXPECT_NE(result.err, "");
}

TEST(QrMode, NumbersAcrossEncodingSizesVerify)
{
    for (uint64_t value : {0ULL, 127ULL, 128ULL, 32767ULL, 32768ULL, 2147483648ULL, 4294967295ULL}) {
        SCOPED_TRACE(value);
        LogFields fields;
        fields.transactionNumber = fields.signatureCounter = value;
        const QrFields qr = signedQr(fields);
        expectRun(qr.text(), 0, builtRun(qr, fields, kNoOffset, kVerified));
    }
}

TEST(QrMode, NumberTextsCountUpToTheFirstNonDigit)
{
    const std::pair<const char*, uint64_t> cases[] = {{"0538", 538}, {"12abc", 12}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        LogFields fields;
        fields.transactionNumber = fields.signatureCounter = c.second;
        QrFields qr = signedQr(fields);
        qr.transactionNumber = qr.signatureCounter = c.first;
        expectRun(qr.text(), 0, builtRun(qr, fields, kNoOffset, kVerified));
    }
}

TEST(QrMode, NumberWithoutDigitsEndsAfterTheReport)
{
    QrFields badNumber = signedQr({}), badCounter = badNumber;
    badNumber.transactionNumber = "abc";
    badCounter.signatureCounter = "-";
    for (const QrFields& qr : {badNumber, badCounter}) {
        SCOPED_TRACE(qr.text());
        expectRun(qr.text(), 1, parsed(qr));
    }
}

struct LogTimeCase {
    const char* text;
    int64_t seconds;
    const char* offsetLines;
};

const LogTimeCase kLogTimes[] = {
    {"2020-06-23T14:20:10.000Z", 1592922010, "TZ Hour: 0\nTZ MIN: 0\n"},
    {"2020-06-23T14:20:10Z", 1592922010, ""},
    {"2020-06-23T14:20:10+02:00", 1592914810, "TZ Hour: 2\nTZ MIN: 0\n"},
    {"2020-06-23T14:20:10-05:30", 1592941810, "TZ Hour: -5\nTZ MIN: 30\n"},
    {"2020-06-23T00:30:00+01:00", 1592868600, "TZ Hour: 1\nTZ MIN: 0\n"},
    {"2020-06-23T14:20:10Z+01:00", 1592918410, "TZ Hour: 1\nTZ MIN: 0\n"},
    {"2020-06-23T14:20:10+00:30", 1592922010, "TZ Hour: 0\nTZ MIN: 30\n"},
    {"2020-06-23T14:20:10-00:30", 1592922010, "TZ Hour: 0\nTZ MIN: 30\n"},
    {"2020-06-30T23:30:00-01:00", 1593563400, "TZ Hour: -1\nTZ MIN: 0\n"},
};

TEST(QrMode, LogTimesReadTheSameUnderAnyHostZone)
{
    for (const LogTimeCase& c : kLogTimes) {
        LogFields fields;
        fields.logTime = c.seconds;
        QrFields qr = signedQr(fields);
        qr.logTime = c.text;
        const std::string expected = builtRun(qr, fields, c.offsetLines, kVerified);
        for (const char* zone : {"TZ=UTC", "TZ=America/New_York"}) {
            SCOPED_TRACE(std::string(c.text) + " " + zone);
            expectRun(qr.text(), 0, expected, {zone});
        }
    }
}

TEST(QrMode, UnreadableLogTimeStopsBeforeTheMessage)
{
    QrFields qr = signedQr({});
    qr.logTime = "23.06.2020 14:20:10";
    for (const char* zone : {"TZ=UTC", "TZ=America/New_York"}) {
        SCOPED_TRACE(zone);
        expectRun(qr.text(), 1,
                  parsed(qr) + "[ERROR] Failed to parse time string 23.06.2020 14:20:10\n"
                               "[ERROR] Error generating ASN.1 data. ERR: -3\n",
                  {zone});
    }
}

// Fields whose signed octets come to exactly the given content size.
LogFields fieldsOfContentSize(size_t content)
{
    LogFields fields;
    fields.serialNumber = Bytes(32);
    fields.processData.clear();
    const size_t base = fixtures::signedOctets(fields).size();
    for (size_t length = content - base - 2; length <= content - base; ++length) {
        fields.processData.assign(length, 'x');
        if (fixtures::signedOctets(fields).size() == content) {
            break;
        }
    }
    fields.serialNumber.clear();
    return fields;
}

TEST(QrMode, OuterHeaderTakesTwoLengthOctetsFrom256)
{
    const std::pair<size_t, const char*> cases[] = {
        {255, "30 81 FF "}, {256, "30 82 01 00 "}, {65535, "30 82 FF FF "}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const LogFields fields = fieldsOfContentSize(c.first);
        const QrFields qr = signedQr(fields);
        const fixtures::RunResult result = verify(qr.text());
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, builtRun(qr, fields, kNoOffset, kVerified));
        EXPECT_NE(result.out.find(std::string("[INFO] Derived ASN.1 Data: ") + c.second + "02 01 02 06 09 "),
                  std::string::npos);
    }
}

TEST(QrMode, ContentBeyondTwoLengthOctetsIsRefused)
{
    const LogFields fields = fieldsOfContentSize(65536);
    const QrFields qr = signedQr(fields);
    expectRun(qr.text(), 1,
              parsed(qr) + kNoOffset + unixLine(fields.logTime) + "[ERROR] Error generating ASN.1 data. ERR: -4\n");
}

}  // namespace
