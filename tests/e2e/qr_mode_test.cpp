#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "fixtures.h"

using fixtures::base64;
using fixtures::Bytes;
using fixtures::LogFields;
using fixtures::QrFields;

namespace {

const std::string kStart = "Version: 1.2\n\n[INFO] Attempting to validate DSFinVK QrCode data.\n";
const std::string kNoOffset = "TZ Hour: 0\nTZ MIN: 0\n";  // what ".000Z" after the seconds reads as
const std::string kVerified = "[INFO] EC_KEY_CHECK: 1\n[RESULT] Verifed EC Signature SUCCESS\n";
const char* const kZones[] = {"TZ=UTC", "TZ=America/New_York"};

const EcKeyPtr kKey = fixtures::makeEcKey();

std::string serialLine(const Bytes& publicKey = fixtures::rawPublicKey(kKey.get()))
{
    std::string hex = fixtures::toHex(fixtures::sha256(publicKey));
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    return "\n[INFO] Derived Serial Number is: " + hex + "\n";
}

// What a run prints up to the end of the QR code report.
std::string parsed(const QrFields& qr, const Bytes& publicKey = fixtures::rawPublicKey(kKey.get()))
{
    const char* const labels[] = {
        "qr-code-version",  "kassen-seriennummer", "processType", "processData", "transaktions-nummer",
        "signatur-zaehler", "start-zeit",          "log-time",    "sig-alg",     "log-time-format",
        "signatur",         "public-key"};
    std::string text = kStart + serialLine(publicKey) + "\n[INFO] Received QRCodeDataDSFinVK Data: \n";
    std::string fields = qr.text() + ";";
    for (const char* label : labels) {
        text += std::string("\t<") + label + "> " + fields.substr(0, fields.find(';')) + "\n";
        fields.erase(0, fields.find(';') + 1);
    }
    return text + "\n";
}

// Everything a run prints for a code that parses and builds: the message
// holds the signed fields with the serial number of the given key.
std::string builtRun(const QrFields& qr, LogFields message, const std::string& offsetLines, const std::string& verdict,
                     const Bytes& publicKey = fixtures::rawPublicKey(kKey.get()))
{
    message.serialNumber = fixtures::sha256(publicKey);
    const Bytes content = fixtures::signedOctets(message);
    const auto size = static_cast<uint8_t>(content.size()), high = static_cast<uint8_t>(content.size() >> 8);
    const Bytes header = high == 0 ? Bytes{0x30, 0x81, size} : Bytes{0x30, 0x82, high, size};
    return parsed(qr, publicKey) + offsetLines +
           "[INFO] Given log time in unix format: " + std::to_string(message.logTime) +
           "\n[INFO] Derived ASN.1 Data: " + fixtures::toHex(header) + fixtures::toHex(content) + "\n" + verdict;
}

QrFields signedQr(const LogFields& fields = {})
{
    return fixtures::signedQrFields(kKey.get(), fields);
}

QrFields with(std::string QrFields::*field, const std::string& value, QrFields qr = signedQr())
{
    qr.*field = value;
    return qr;
}

void expectRun(const std::string& text, int status, const std::string& out, const char* zone = kZones[0])
{
    const fixtures::RunResult result = fixtures::run(fixtures::verifierPath(), {"-q" + text}, {zone});
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, out);
    const bool offCurve = out.find("EC_KEY_CHECK: 0") != std::string::npos;  // libcrypto then explains on stderr
    EXPECT_EQ(result.err.empty(), !offCurve) << result.err;
}

TEST(QrMode, ValidCodesVerifyInEveryAcceptedSpelling)
{
    LogFields plain, of255, of256;  // contents of 255 and 256 octets: header 30 81 FF, then 30 82 01 00
    while (fixtures::signedOctets(of255).size() < 255 - 32) {  // 32: the serial number, left out here
        of255.processData += 'x';
    }
    of256.processData = of255.processData + "x";
    const QrFields qr = signedQr(), keyLine = with(&QrFields::publicKey, qr.publicKey + "\n", qr),
                   qr255 = signedQr(of255), qr256 = signedQr(of256);
    std::string quoted = "\"";  // each field
    for (char c : qr.text()) {
        quoted += c == ';' ? std::string("\";\"") : std::string(1, c);
    }
    quoted += "\"";
    const std::tuple<std::string, QrFields, LogFields> cases[] = {
        {qr.text(), qr, plain},           {quoted, qr, plain},          {";" + qr.text() + ";;", qr, plain},
        {keyLine.text(), keyLine, plain}, {qr255.text(), qr255, of255}, {qr256.text(), qr256, of256}};
    for (const auto& [text, fields, message] : cases) {
        SCOPED_TRACE(text.substr(0, 60));
        expectRun(text, 0, builtRun(fields, message, kNoOffset, kVerified));
    }
}

TEST(QrMode, CodesThatCannotBeVerifiedEndWithStatus1)
{
    const QrFields good = signedQr();
    auto edit = [](const std::string& from, const std::string& to, std::string text) {
        return text.replace(text.find(from), from.size(), to);
    };
    auto error = [](const std::string& line) { return "[ERROR] " + line + "\n"; };
    auto reported = [](const QrFields& qr, const std::string& tail = "") {  // failures after the report
        return std::make_pair(qr.text(), parsed(qr).substr(kStart.size()) + tail);
    };
    const std::string refused = error("Error parsing QR Code data"), serial = serialLine();
    const std::string time = "23.06.2020 14:20:10", sha256 = edit("384", "256", good.text());
    const std::pair<std::string, std::string> cases[] = {
        {edit(";K1;", ";", sha256), error("Got 11 DSFinVK QR Code Parameters (expected 12)") + refused},
        {";;;", error("Got 0 DSFinVK QR Code Parameters (expected 12)") + refused},
        {good.text() + ";thirteen;fourteen", error("Too many parameters - unknown data: thirteen") + refused},
        {edit("V0", "V1", edit("unixTime", "utcTime", sha256)),
         error("Algorithm ecdsa-plain-SHA256 is not supported.") + refused},
        {edit("unixTime", "unixTime ", good.text()), error("logTimeFormat unixTime  is not supported.") + refused},
        {edit("V0", "V0\"", good.text()), error("qrCodeVersion V0\" is not supported.") + refused},
        // Quotes are stripped only from a text that begins with one.
        {good.text() + "\"", error("Public Key base64 decode failed.")},
        {with(&QrFields::publicKey, "!" + good.publicKey).text(), error("Public Key base64 decode failed.")},
        {with(&QrFields::publicKey, base64(Bytes(96, 4))).text(), error("Public Key has 96 bytes, expected 97.")},
        {with(&QrFields::signature, "*").text(), serial + error("Signature base64 decode failed.")},
        {with(&QrFields::signature, base64(Bytes(90))).text(), serial + error("Signature has 90 bytes, expected 96.")},
        reported(with(&QrFields::transactionNumber, "abc")),
        reported(with(&QrFields::signatureCounter, "-")),
        reported(with(&QrFields::transactionNumber, "18446744073709551616")),
    };
    std::vector<std::pair<std::string, std::string>> all(std::begin(cases), std::end(cases));
    for (const std::string& badTime : {time, std::string("2020-06-23"), std::string("2020-06-23T14:20")}) {
        all.push_back(reported(with(&QrFields::logTime, badTime), error("Failed to parse time string " + badTime) +
                                                                      error("Error generating ASN.1 data. ERR: -3")));
    }
    for (const auto& c : all) {
        for (const char* zone : kZones) {
            SCOPED_TRACE(c.first + zone);
            expectRun(c.first, 1, kStart + c.second, zone);
        }
    }
}

TEST(QrMode, SignatureThatDoesNotHoldEndsWithStatus252)
{
    LogFields tampered;
    QrFields qr = signedQr(tampered);
    qr.processData = tampered.processData = "Beleg^9.57_0.00_0.00_0.00_0.00^9.57:Bar";
    const std::string failed = "[RESULT]  EC Signature Verification FAILED\n";
    expectRun(qr.text(), 252, builtRun(qr, tampered, kNoOffset, "[INFO] EC_KEY_CHECK: 1\n" + failed));
    Bytes offCurve = fixtures::rawPublicKey(kKey.get());
    offCurve.back() ^= 0x01;
    qr = with(&QrFields::publicKey, base64(offCurve));
    const std::string verdict = "[ERROR] Error decoding public key\n[INFO] EC_KEY_CHECK: 0\n" + failed;
    expectRun(qr.text(), 252, builtRun(qr, {}, kNoOffset, verdict, offCurve));
}

TEST(QrMode, NumbersAndLogTimesVerifyUnderAnyHostZone)
{
    const std::tuple<const char*, uint64_t, const char*, int64_t, const char*> cases[] = {
        {"0", 0, "2020-06-23T14:20:10.000Z", 1592922010, "TZ Hour: 0\nTZ MIN: 0\n"},
        {"127", 127, "2020-06-23T14:20:10Z", 1592922010, ""},
        {"128", 128, "2020-06-23T14:20:10+02:00", 1592914810, "TZ Hour: 2\nTZ MIN: 0\n"},
        {"32767", 32767, "2020-06-23T14:20:10-05:30", 1592941810, "TZ Hour: -5\nTZ MIN: 30\n"},
        {"32768", 32768, "2020-06-23T00:30:00+01:00", 1592868600, "TZ Hour: 1\nTZ MIN: 0\n"},
        {"2147483648", 2147483648, "2020-06-23T14:20:10Z+01:00", 1592918410, "TZ Hour: 1\nTZ MIN: 0\n"},
        {"4294967295", 4294967295, "2020-06-23T14:20:10+00:30", 1592922010, "TZ Hour: 0\nTZ MIN: 30\n"},
        {"0538", 538, "2020-06-23T14:20:10-00:30", 1592922010, "TZ Hour: 0\nTZ MIN: 30\n"},
        {"12abc", 12, "2020-06-30T23:30:00-01:00", 1593563400, "TZ Hour: -1\nTZ MIN: 0\n"},
        {"1", 1, "2020-06-23T14:20:10Z-01:30", 1592927410, "TZ Hour: -1\nTZ MIN: 30\n"},
    };
    for (const auto& [number, value, logTime, seconds, offsetLines] : cases) {
        LogFields fields;  // the number is both the transaction number and the signature counter
        fields.transactionNumber = fields.signatureCounter = value;
        fields.logTime = seconds;
        QrFields qr = with(&QrFields::logTime, logTime, signedQr(fields));
        qr.transactionNumber = qr.signatureCounter = number;
        for (const char* zone : kZones) {
            SCOPED_TRACE(std::string(number) + " " + logTime + " " + zone);
            expectRun(qr.text(), 0, builtRun(qr, fields, offsetLines, kVerified), zone);
        }
    }
}

}  // namespace
