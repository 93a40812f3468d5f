// The verifier's DER length octets, written and read in every form.
#include <gtest/gtest.h>

#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;
using fixtures::fromHex;

namespace {

// Minimal forms are encoded and decoded; the non-minimal and indefinite forms
// (minimal false) are only decoded.
TEST(LengthCodec, EncodesMinimallyAndDecodesEveryForm)
{
    const struct {
        uint64_t size;
        std::string octets;
        bool minimal;
    } cases[] = {
        {0, "00", true},
        {127, "7F", true},
        {128, "81 80", true},
        {255, "81 FF", true},
        {256, "82 01 00", true},
        {300, "82 01 2C", true},
        {65535, "82 FF FF", true},
        {65536, "83 01 00 00", true},
        {0x0100000000ULL, "85 01 00 00 00 00", true},
        {UINT64_MAX, "88 FF FF FF FF FF FF FF FF", true},
        {5, "81 05", false},
        {128, "82 00 80", false},
        {0, "80", false},
    };
    for (const auto& c : cases) {
        Bytes encoded{0xAA};  // the encoder appends after what is there
        sizeToASNLength(c.size, encoded);
        if (c.minimal) {
            EXPECT_EQ(encoded, fromHex("AA " + c.octets)) << c.size;
        }
        Bytes buffer = fromHex(c.octets + " EE");  // EE: the first content octet
        auto position = buffer.begin();
        uint64_t size = 99;
        ASNLengthToSize(position, size);
        EXPECT_EQ(size, c.size) << c.octets;
        EXPECT_EQ(*position, 0xEE) << c.octets;
    }
}

}  // namespace
