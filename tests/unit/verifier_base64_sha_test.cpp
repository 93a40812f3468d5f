// The verifier's base64 decoding and the SHA-256 it prints, at the lengths where
// padding and digests go wrong.
#include <gtest/gtest.h>

#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;

namespace {

// The decoded length counts the padding; the result says whether it equals
// 3 * characters / 4, so one trailing newline passes and two do not.
TEST(Base64, DecodedLengthAgainstExpectedLength)
{
    const struct {
        std::string text;
        bool ok;
        int length;
        Bytes decoded;
    } cases[] = {
        {fixtures::base64(Bytes(97, 0)), true, 99, Bytes(99, 0)},  // 132 characters ending in ==
        {"QUJD", true, 3, {'A', 'B', 'C'}},
        {"QUJD\n", true, 3, {'A', 'B', 'C'}},
        {"QUI=", true, 3, {'A', 'B', 0}},
        {"QUJD\n\n", false, 3, {'A', 'B', 'C'}},
        {"", true, 0, {}},
        {"QUJDR", false, -1, {}},
    };
    for (const auto& c : cases) {
        unsigned char* raw = nullptr;
        int length = 42;
        const bool ok = b64_decode64(c.text.data(), static_cast<int>(c.text.size()), &raw, length);
        const DecodedPtr buffer(raw);
        EXPECT_EQ(ok, c.ok) << c.text;
        EXPECT_EQ(length, c.length) << c.text;
        ASSERT_NE(buffer, nullptr) << c.text;
        EXPECT_EQ(Bytes(buffer.get(), buffer.get() + (length > 0 ? length : 0)), c.decoded) << c.text;
        EXPECT_EQ(buffer.get()[3 * c.text.size() / 4], 0) << c.text;  // the byte past the expected length
    }
}

TEST(Sha256, LowercaseHexDigestReplacesTheOutput)
{
    std::string out = "previous content";
    EXPECT_EQ(doSHA256(reinterpret_cast<const unsigned char*>("abc"), 3, out), 1);
    EXPECT_EQ(out, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
