// The ASN.1 part reads untrusted octets: BER headers and their lengths,
// nesting, unsigned numbers and object identifiers. Each case is a few
// hand-written octets, so what is read is known without the code.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "ber.h"
#include "bytes.h"
#include "der.h"
#include "oid.h"

namespace {

tse::Bytes hex(const std::string& text)
{
    return tse::fromHex(text).value();
}

// Reads one element from exactly the octets given (an exact-size copy, so a
// read past the end shows under AddressSanitizer); "" when it reads whole.
std::string readError(const tse::Bytes& octets, tse::BerElement* out = nullptr)
{
    try {
        tse::BerReader reader(octets);
        const tse::BerElement element = reader.read();
        if (out) *out = element;
        return reader.atEnd() ? "" : "octets left over";
    } catch (const tse::ParseError& error) {
        return std::string(error.what()) + " @" + std::to_string(error.offset());
    }
}

TEST(Ber, LengthsAndTheirLimits)
{
    const struct {
        std::string header;
        size_t content;     // zero octets of content follow the header
        std::string error;  // part of the reason and its offset; "" when it reads
    } cases[] = {
        {"04 00", 0, ""},
        {"04 7F", 127, ""},
        {"04 81 80", 128, ""},
        {"04 82 01 00", 256, ""},
        {"04 88 00 00 00 00 00 00 00 03", 3, ""},  // eight length octets
        {"24 80 04 01 41 00 00", 0, ""},           // indefinite, closed
        {"24 80 24 80 04 00 00 00 00 00", 0, ""},  // nested indefinite
        {"04 89 00 00 00 00 00 00 00 00 01", 1, "a length of 9 octets is longer than 8 @1"},
        {"04 FF", 0, "the length octet 0xFF is reserved @1"},
        {"04 80 00 00", 0, "primitive element 0x04 has an indefinite length @0"},
        {"24 80 04 01 41", 0, "has no end-of-contents octets @5"},
        {"04 05 41", 0, "announces 5 content octets, but only 1 remains @0"},
        {"04 88 FF FF FF FF FF FF FF FF", 4, "announces 18446744073709551615 content octets"},
        {"04 82 01", 0, "the data ends inside a length @2"},
        {"04", 0, "the data ends inside an element header @1"},
        {"", 0, "the data ends where an element should begin @0"},
        {"1F 01 00", 0, "multi-octet tag number"},
        {"30 80 24 80 04 01 41 00", 0, "the data ends inside an element header @8"},
    };
    for (const auto& c : cases) {
        tse::Bytes octets = hex(c.header);
        octets.resize(octets.size() + c.content);
        tse::BerElement element;
        const std::string error = readError(octets, &element);
        if (c.error.empty()) {
            EXPECT_EQ(error, "") << c.header;
            EXPECT_EQ(element.whole.size(), octets.size()) << c.header;
        } else {
            EXPECT_NE(error.find(c.error), std::string::npos) << c.header << ": " << error;
        }
    }
}

TEST(Ber, NestingIsBounded)
{
    for (const size_t depth : {size_t{3}, size_t{17}, size_t{18}, size_t{40}, size_t{5000}}) {
        tse::Bytes octets;
        for (size_t i = 0; i < depth; ++i) octets.insert(octets.end(), {0x30, 0x80});
        for (size_t i = 0; i < depth; ++i) octets.insert(octets.end(), {0x00, 0x00});
        const std::string error = readError(octets);
        EXPECT_EQ(error.find("nested more than 16 deep") != std::string::npos, depth > 17) << depth << error;
    }
    // Definite nesting is only met when chunks are joined or counted.
    tse::Bytes chunks = hex("04 00");
    for (int i = 0; i < 100; ++i) chunks = tse::derElement(0x24, chunks);
    tse::BerElement element;
    ASSERT_EQ(readError(chunks, &element), "");
    EXPECT_THROW(tse::stringOctets(element), tse::ParseError);
    EXPECT_THROW(tse::stringChunkCount(element), tse::ParseError);
}

TEST(Ber, UnsignedNumbersAreNeverCut)
{
    const struct {
        std::string element;
        uint64_t value;
        std::string error;
    } cases[] = {
        {"02 01 00", 0, ""},
        {"02 02 00 80", 128, ""},
        {"02 09 00 FF FF FF FF FF FF FF FF", UINT64_MAX, ""},
        {"02 0A 00 00 FF FF FF FF FF FF FF FF", UINT64_MAX, ""},  // extra zeros do not widen it
        {"02 09 01 00 00 00 00 00 00 00 00", 0, "wider than 64 bits"},
        {"02 01 80", 0, "negative"},
        {"02 00", 0, "without content"},
    };
    for (const auto& c : cases) {
        tse::BerElement element;
        const tse::Bytes octets = hex(c.element);
        ASSERT_EQ(readError(octets, &element), "");
        try {
            EXPECT_EQ(tse::unsignedValue(element, "n"), c.value) << c.element;
            EXPECT_EQ(c.error, "") << c.element;
        } catch (const tse::ParseError& error) {
            EXPECT_NE(std::string(error.what()).find(c.error), std::string::npos) << c.element << error.what();
            EXPECT_NE(c.error, "") << c.element;
        }
    }
}

// Dotted text from DER content, against hand-encoded octets: the first
// octets hold two arcs, large arcs take several octets, and padding or a
// cut-off arc is refused.
TEST(Oid, DecodesArcsAndRefusesBadEncodings)
{
    struct Case {
        std::string hex;
        std::optional<std::string> text;
    };
    for (const Case& c : std::vector<Case>{{"04007f0007030701", "0.4.0.127.0.7.3.7.1"},
                                           {"2a864886f70d", "1.2.840.113549"},
                                           {"8837", "2.999"},
                                           {"883703", "2.999.3"},
                                           {"00", "0.0"},
                                           {"2aff", std::nullopt},
                                           {"2a8001", std::nullopt},
                                           {"", std::nullopt}}) {
        SCOPED_TRACE(c.hex);
        const tse::Bytes octets = hex(c.hex);
        EXPECT_EQ(tse::oidToText(octets), c.text);
        if (c.text) {
            EXPECT_EQ(tse::oidFromText(*c.text), octets);
        }
    }
}

}  // namespace
