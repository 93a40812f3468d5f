// The verifier's writer of log messages from receipt texts: the header built
// around the elements, and numbers in their shortest form.
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "QrCodeToASN.h"
#include "fixtures.h"

using fixtures::Bytes;
using fixtures::fromHex;

namespace {

struct CapturedOutput {  // collects what the code under test prints while it lives
    std::ostringstream text;
    std::streambuf* const previous = std::cout.rdbuf(text.rdbuf());
    ~CapturedOutput() { std::cout.rdbuf(previous); }
};

// The example message: client ID K1, process type PT, process data ABC,
// transaction 7, counter 538 and log time 1592921410.
QrCodeToASN exampleBuilder(const std::string& transaction = "7", const std::string& counter = "538")
{
    const std::string key = fixtures::base64(fixtures::rawPublicKey(fixtures::makeEcKey().get()));
    return QrCodeToASN("V0;K1;PT;ABC;" + transaction + ";" + counter + ";2020-06-23T14:00:00Z;2020-06-23T14:10:10Z;" +
                       "ecdsa-plain-SHA384;unixTime;" + fixtures::base64(Bytes(96, 0x5A)) + ";" + key);
}

TEST(Builder, HeaderIsBuiltAroundTheElementsAndPrinted)
{
    const std::string serial = fixtures::toHex(Bytes(32, 0xAA));  // in place of the derived one
    CapturedOutput output;
    QrCodeToASN builder = exampleBuilder();
    builder.asn1.serialNumber = fromHex("04 20 " + serial);
    builder.asn1.header = builder.asn1.asn1Data = {};
    output.text.str("");
    builder.doASN_header();
    const std::string hex = "30 81 6B 02 01 02 06 09 04 00 7F 00 07 03 07 01 01 80 11 46 69 6E 69 73 68 54 72 61 6E "
                            "73 61 63 74 69 6F 6E 81 02 4B 31 82 03 41 42 43 83 02 50 54 85 01 07 04 20 " +
                            serial + "30 0C 06 0A 04 00 7F 00 07 01 01 04 01 04 02 02 02 1A 02 04 5E F2 0D 42 ";
    EXPECT_EQ(output.text.str(), "[INFO] Derived ASN.1 Data: " + hex + "\n");
    EXPECT_EQ(builder.getASN1Data(), fromHex(hex));
    EXPECT_EQ(builder.getASN1Data().size(), 110u);

    const std::pair<size_t, const char*> lengthForms[] = {
        {0, "30 81 00"}, {127, "30 81 7F"}, {255, "30 81 FF"}, {256, "30 82 01 00"}, {65535, "30 82 FF FF"}};
    for (const auto& [size, header] : lengthForms) {
        builder.asn1 = {};
        builder.asn1.certifiedData.assign(size, 0x33);
        builder.doASN_header();
        EXPECT_EQ(builder.asn1.header, fromHex(header)) << size;
        EXPECT_EQ(builder.asn1.asn1Data.size(), builder.asn1.header.size() + size) << size;
    }
    builder.asn1 = {};
    builder.asn1.certifiedData.assign(65536, 0x33);
    try {
        builder.doASN_header();
        ADD_FAILURE() << "a content of 65536 octets was accepted";
    } catch (int code) {
        EXPECT_EQ(code, -4);
    }
}

TEST(Builder, NumbersTakeTheShortestTwosComplementForm)
{
    const std::pair<const char*, const char*> cases[] = {{"0", "01 00"},
                                                         {"127", "01 7F"},
                                                         {"128", "02 00 80"},
                                                         {"32767", "02 7F FF"},
                                                         {"32768", "03 00 80 00"},
                                                         {"65535", "03 00 FF FF"},
                                                         {"16777216", "04 01 00 00 00"},
                                                         {"2147483648", "05 00 80 00 00 00"},
                                                         {"4294967295", "05 00 FF FF FF FF"},
                                                         {"4294967296", "05 01 00 00 00 00"},
                                                         {"18446744073709551615", "09 00 FF FF FF FF FF FF FF FF"},
                                                         {" 42", "01 2A"}};
    CapturedOutput quiet;
    for (const auto& [text, encoded] : cases) {
        const QrCodeToASN builder = exampleBuilder(text, text);
        EXPECT_EQ(builder.transactionNumber, fromHex(std::string("85 ") + encoded)) << text;
        EXPECT_EQ(builder.asn1.signatureCounter, fromHex(std::string("02 ") + encoded)) << text;
    }
}

}  // namespace
