#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <stdexcept>

#include "QrCodeDataDSFinVK.h"
#include "QrCodeToASN.h"
#include "fixtures.h"

using fixtures::Bytes;
using fixtures::fromHex;
using fixtures::QrFields;

namespace {

// Collects what the code under test prints while it lives.
class CapturedOutput {
public:
    CapturedOutput() : previous_(std::cout.rdbuf(text_.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(previous_); }
    std::string str() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

const Bytes& publicKey()
{
    static const Bytes key = fixtures::rawPublicKey(fixtures::makeEcKey().get());
    return key;
}

Bytes concat(Bytes head, const Bytes& tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The example message: client ID K1, process data ABC, process type PT,
// transaction 7, counter 538, log time 1592921410.
QrFields exampleQr()
{
    QrFields qr;
    qr.clientId = "K1";
    qr.processData = "ABC";
    qr.processType = "PT";
    qr.logTime = "2020-06-23T14:10:10Z";
    qr.signature = fixtures::base64(Bytes(96, 0x5A));
    qr.publicKey = fixtures::base64(publicKey());
    return qr;
}

const char* const kCertifiedData =
    "80 11 46 69 6E 69 73 68 54 72 61 6E 73 61 63 74 69 6F 6E 81 02 4B 31 82 03 41 42 43 83 02 50 54 85 01 07";
const char* const kAlgorithm = "30 0C 06 0A 04 00 7F 00 07 01 01 04 01 04";

std::string exampleHex(const std::string& serialHex)
{
    return "30 81 6B 02 01 02 06 09 04 00 7F 00 07 03 07 01 01 " + std::string(kCertifiedData) + " 04 20 " +
           serialHex + kAlgorithm + " 02 02 02 1A 02 04 5E F2 0D 42 ";
}

TEST(Builder, EncodesEachElementOfTheExampleMessage)
{
    CapturedOutput quiet;
    const QrCodeToASN builder(exampleQr().text());
    const std::pair<const Bytes*, const char*> elements[] = {
        {&builder.asn1.version, "02 01 02"},
        {&builder.asn1.certifiedDataType, "06 09 04 00 7F 00 07 03 07 01 01"},
        {&builder.asn1.certifiedData, kCertifiedData},
        {&builder.asn1.signatureAlgorithm, kAlgorithm},
        {&builder.asn1.signatureCounter, "02 02 02 1A"},
        {&builder.asn1.logTime, "02 04 5E F2 0D 42"},
    };
    for (const auto& element : elements) {
        EXPECT_EQ(*element.first, fromHex(element.second)) << element.second;
    }
    const std::string serialHex = fixtures::toHex(fixtures::sha256(publicKey()));
    EXPECT_EQ(builder.asn1.serialNumber, fromHex("04 20 " + serialHex));
    EXPECT_EQ(builder.getASN1Data(), fromHex(exampleHex(serialHex)));
    EXPECT_EQ(builder.getSignature(), Bytes(96, 0x5A));
    EXPECT_EQ(builder.getPublicKey(), publicKey());
    EXPECT_EQ(builder.getPublicKey(), publicKey());
}

TEST(Builder, AssemblesTheExampleMessageAndPrintsItInHex)
{
    std::string serialHex;
    for (int i = 0; i < 32; ++i) {
        serialHex += "AA ";
    }
    CapturedOutput output;
    QrCodeToASN builder(exampleQr().text());
    builder.asn1.serialNumber = fromHex("04 20 " + serialHex);
    builder.asn1.header.clear();
    builder.asn1.asn1Data.clear();
    const size_t printedBefore = output.str().size();
    builder.doASN_header();

    const Bytes expected = fromHex(exampleHex(serialHex));
    ASSERT_EQ(expected.size(), 110u);
    EXPECT_EQ(builder.asn1.header, fromHex("30 81 6B"));
    EXPECT_EQ(builder.getASN1Data(), expected);
    EXPECT_EQ(output.str().substr(printedBefore), "[INFO] Derived ASN.1 Data: " + exampleHex(serialHex) + "\n");
}

TEST(Builder, HeaderLengthFormFollowsTheContentSize)
{
    const std::pair<size_t, const char*> cases[] = {{0, "30 81 00"},       {127, "30 81 7F"},
                                                    {255, "30 81 FF"},     {256, "30 82 01 00"},
                                                    {65535, "30 82 FF FF"}};
    CapturedOutput quiet;
    QrCodeToASN builder(exampleQr().text());
    for (const auto& c : cases) {
        builder.asn1 = {};
        builder.asn1.certifiedData.assign(c.first, 0x33);
        builder.doASN_header();
        EXPECT_EQ(builder.asn1.header, fromHex(c.second)) << c.first;
        EXPECT_EQ(builder.asn1.asn1Data, concat(fromHex(c.second), builder.asn1.certifiedData)) << c.first;
    }
    builder.asn1 = {};
    builder.asn1.certifiedData.assign(65536, 0x33);
    int thrown = 0;
    try {
        builder.doASN_header();
    } catch (int code) {
        thrown = code;
    }
    EXPECT_EQ(thrown, -4);
    EXPECT_TRUE(builder.asn1.asn1Data.empty());
}

TEST(Builder, NumbersTakeTheShortestTwosComplementForm)
{
    const std::pair<const char*, const char*> cases[] = {
        {"0", "00"},
        {"127", "7F"},
        {"128", "00 80"},
        {"538", "02 1A"},
        {"32767", "7F FF"},
        {"32768", "00 80 00"},
        {"40000", "00 9C 40"},
        {"65535", "00 FF FF"},
        {"16777216", "01 00 00 00"},
        {"2147483648", "00 80 00 00 00"},
        {"4294967295", "00 FF FF FF FF"},
        {"4294967296", "01 00 00 00 00"},
        {"18446744073709551615", "00 FF FF FF FF FF FF FF FF"},
        {"0538", "02 1A"},
        {"12abc", "0C"},
        {" 42", "2A"},
    };
    CapturedOutput quiet;
    for (const auto& c : cases) {
        QrFields qr = exampleQr();
        qr.transactionNumber = qr.signatureCounter = c.first;
        const QrCodeToASN builder(qr.text());
        const Bytes content = fromHex(c.second);
        const Bytes length{static_cast<uint8_t>(content.size())};
        EXPECT_EQ(builder.transactionNumber, concat(concat({0x85}, length), content)) << c.first;
        EXPECT_EQ(builder.asn1.signatureCounter, concat(concat({0x02}, length), content)) << c.first;
    }
}

TEST(Builder, NumberTextsThatDoNotConvertPassTheStandardFailureThrough)
{
    auto failure = [](void (*change)(QrFields&)) -> std::string {
        CapturedOutput quiet;
        QrFields qr = exampleQr();
        change(qr);
        try {
            QrCodeToASN builder(qr.text());
        } catch (const std::invalid_argument&) {
            return "invalid";
        } catch (const std::out_of_range&) {
            return "range";
        }
        return "none";
    };
    EXPECT_EQ(failure([](QrFields& q) { q.transactionNumber = "abc"; }), "invalid");
    EXPECT_EQ(failure([](QrFields& q) { q.signatureCounter = "x1"; }), "invalid");
    EXPECT_EQ(failure([](QrFields& q) { q.transactionNumber = "18446744073709551616"; }), "range");
    EXPECT_EQ(failure([](QrFields& q) { q.signatureCounter = "99999999999999999999"; }), "range");
}

TEST(Builder, TextElementsUseDerLengths)
{
    const std::pair<size_t, const char*> cases[] = {
        {1, "81 01"}, {127, "81 7F"}, {128, "81 81 80"}, {200, "81 81 C8"}, {300, "81 82 01 2C"}};
    CapturedOutput quiet;
    for (const auto& c : cases) {
        QrFields qr = exampleQr();
        qr.clientId.assign(c.first, 'k');
        const QrCodeToASN builder(qr.text());
        EXPECT_EQ(builder.clientId, concat(fromHex(c.second), Bytes(c.first, 'k'))) << c.first;
    }
}

TEST(Parser, RejectsTextWithExactlyOneLine)
{
    const std::string good = exampleQr().text();
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    const std::pair<std::string, std::string> cases[] = {
        {"", "[ERROR] Got 0 DSFinVK QR Code Parameters (expected 12)"},
        {replaced(";K1;", ";;"), "[ERROR] Got 11 DSFinVK QR Code Parameters (expected 12)"},
        {good + ";13;14", "[ERROR] Too many parameters - unknown data: 13"},
        {replaced("V0;", "v0;"), "[ERROR] qrCodeVersion v0 is not supported."},
        {replaced("V0;", "V0\";"), "[ERROR] qrCodeVersion V0\" is not supported."},
        {replaced(";unixTime;", ";UNIXTIME;"), "[ERROR] logTimeFormat UNIXTIME is not supported."},
        {replaced(";unixTime;", ";unixTime ;"), "[ERROR] logTimeFormat unixTime  is not supported."},
        {replaced("SHA384;", "SHA384\n;"), "[ERROR] Algorithm ecdsa-plain-SHA384\n is not supported."},
    };
    for (const auto& c : cases) {
        CapturedOutput output;
        QRCodeDataDSFinVK record;
        EXPECT_FALSE(record.parseQrString(c.first)) << c.first;
        EXPECT_EQ(output.str(), c.second + "\n") << c.first;
        EXPECT_TRUE(record.serialNumber.empty() && record.signatureValue.empty() && record.operationType.empty());
    }
}

struct DerivationCase {
    const char* name;
    std::function<void(QrFields&)> change;
    int thrown;  // 0: the text is accepted
    bool serialDerived;
    size_t signatureBytes;
    const char* clientId;
};

TEST(Parser, DerivesSerialAndSignatureOrThrows)
{
    const DerivationCase cases[] = {
        {"plain", [](QrFields&) {}, 0, true, 96, "K1"},
        {"inner quote kept", [](QrFields& q) { q.clientId = "K\"1"; }, 0, true, 96, "K\"1"},
        {"key ends in a line end", [](QrFields& q) { q.publicKey += "\n"; }, 0, true, 96, "K1"},
        {"95 signature bytes count their padding",
         [](QrFields& q) { q.signature = fixtures::base64(Bytes(95, 1)); }, 0, true, 96, "K1"},
        {"longer signature kept whole", [](QrFields& q) { q.signature = fixtures::base64(Bytes(99, 1)); }, 0, true,
         99, "K1"},
        {"key not base64", [](QrFields& q) { q.publicKey[5] = '#'; }, -1, false, 0, "K1"},
        {"key of 96 bytes", [](QrFields& q) { q.publicKey = fixtures::base64(Bytes(96, 4)); }, -1, false, 0, "K1"},
        {"signature not base64", [](QrFields& q) { q.signature[7] = '%'; }, -1, true, 0, "K1"},
        {"signature of 90 bytes", [](QrFields& q) { q.signature = fixtures::base64(Bytes(90, 1)); }, -1, true, 0,
         "K1"},
    };
    for (const DerivationCase& c : cases) {
        SCOPED_TRACE(c.name);
        QrFields qr = exampleQr();
        qr.processType = "SonstigerVorgang";
        c.change(qr);
        CapturedOutput quiet;
        QRCodeDataDSFinVK record;
        int thrown = 0;
        try {
            EXPECT_TRUE(record.parseQrString(qr.text()));
        } catch (int code) {
            thrown = code;
        }
        EXPECT_EQ(thrown, c.thrown);
        EXPECT_EQ(record.serialNumber, c.serialDerived ? fixtures::sha256(publicKey()) : Bytes{});
        EXPECT_EQ(record.signatureValue.size(), c.signatureBytes);
        EXPECT_EQ(record.operationType, c.thrown == 0 ? "FinishTransaction" : "");
        EXPECT_EQ(record.clientId, c.clientId);
    }
}

}  // namespace
