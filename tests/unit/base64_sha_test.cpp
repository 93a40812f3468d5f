#include <gtest/gtest.h>

#include <string>

#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;

namespace {

Bytes publicKeyLike()
{
    Bytes key(97);
    for (size_t i = 0; i < key.size(); ++i) {
        key[i] = static_cast<uint8_t>(i * 37 + 4);
    }
    return key;
}

TEST(Base64, DecodedLengthCountsPaddingAndBufferEndsInZero)
{
    const Bytes key = publicKeyLike();
    Bytes keyPadded = key;
    keyPadded.insert(keyPadded.end(), {0, 0});
    const struct {
        const char* name;
        std::string text;
        bool ok;
        int length;
        Bytes decoded;  // the first `length` bytes of the buffer
    } cases[] = {
        {"132 characters ending in ==", fixtures::base64(key), true, 99, keyPadded},
        {"4 characters", "QUJD", true, 3, {'A', 'B', 'C'}},
        {"one =", "QUI=", true, 3, {'A', 'B', 0}},
        {"trailing newline", "QUJD\n", true, 3, {'A', 'B', 'C'}},
        {"empty", "", true, 0, {}},
        {"5 characters", "QUJDR", false, -1, {}},
        {"character outside the alphabet", "QU!D", false, -1, {}},
        {"two trailing newlines", "QUJD\n\n", false, 3, {'A', 'B', 'C'}},
    };
    ASSERT_EQ(cases[0].text.size(), 132u);
    for (const auto& c : cases) {
        unsigned char* raw = nullptr;
        int length = 42;
        const bool ok = b64_decode64(c.text.data(), static_cast<int>(c.text.size()), &raw, length);
        const DecodedPtr buffer(raw);
        EXPECT_EQ(ok, c.ok) << c.name;
        EXPECT_EQ(length, c.length) << c.name;
        ASSERT_NE(buffer, nullptr) << c.name;
        if (length >= 0) {
            EXPECT_EQ(Bytes(buffer.get(), buffer.get() + length), c.decoded) << c.name;
        }
        // One byte past the expected length is allocated and always zero.
        EXPECT_EQ(buffer.get()[3 * c.text.size() / 4], 0) << c.name;
    }
}

TEST(Sha256, HexDigestReplacesTheOutput)
{
    const struct {
        std::string data;
        const char* digest;
    } cases[] = {
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    };
    for (const auto& c : cases) {
        std::string out = "previous content that must go";
        EXPECT_EQ(doSHA256(reinterpret_cast<const unsigned char*>(c.data.data()), static_cast<int>(c.data.size()), out),
                  1);
        EXPECT_EQ(out, c.digest) << c.data;
    }
}

}  // namespace
