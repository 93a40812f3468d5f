#include <gtest/gtest.h>

#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;
using fixtures::fromHex;

namespace {

struct LengthCase {
    uint64_t size;
    const char* octets;
};

const LengthCase kLengths[] = {
    {0, "00"},
    {17, "11"},
    {127, "7F"},
    {128, "81 80"},
    {196, "81 C4"},
    {255, "81 FF"},
    {256, "82 01 00"},
    {300, "82 01 2C"},
    {65535, "82 FF FF"},
    {65536, "83 01 00 00"},
    {0x0100000000ULL, "85 01 00 00 00 00"},
    {UINT64_MAX, "88 FF FF FF FF FF FF FF FF"},
};

TEST(LengthCodec, EncodesMinimalFormsAndDecodesThemBack)
{
    for (const LengthCase& c : kLengths) {
        Bytes encoded;
        sizeToASNLength(c.size, encoded);
        EXPECT_EQ(encoded, fromHex(c.octets)) << c.size;

        Bytes buffer = fromHex(c.octets);
        buffer.push_back(0xEE);  // first content octet
        auto position = buffer.begin();
        uint64_t size = 1;
        ASNLengthToSize(position, size);
        EXPECT_EQ(size, c.size) << c.octets;
        EXPECT_EQ(*position, 0xEE) << c.octets;
    }
}

TEST(LengthCodec, EncodingAppendsAfterExistingOctets)
{
    Bytes buffer{0x80};
    sizeToASNLength(17, buffer);
    EXPECT_EQ(buffer, fromHex("80 11"));
}

TEST(LengthCodec, DecoderAcceptsNonMinimalAndIndefiniteForms)
{
    const struct {
        const char* octets;
        uint64_t size;
        long advance;
    } cases[] = {{"81 05", 5, 2}, {"82 00 80", 128, 3}, {"80", 0, 1}};
    for (const auto& c : cases) {
        Bytes buffer = fromHex(c.octets);
        auto position = buffer.begin();
        uint64_t size = 99;
        ASNLengthToSize(position, size);
        EXPECT_EQ(size, c.size) << c.octets;
        EXPECT_EQ(position - buffer.begin(), c.advance) << c.octets;
    }
}

}  // namespace
