// The core's readers of untrusted octets and texts: BER headers, numbers,
// base64 and hex, times, and the escaping that keeps a value on one line.
#include <gtest/gtest.h>

#include <string>

#include "ber.h"
#include "bytes.h"
#include "der.h"
#include "log_message.h"
#include "log_time.h"
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

TEST(CoreBer, LengthsAndTheirLimits)
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

TEST(CoreBer, NestingIsBounded)
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

TEST(CoreBer, UnsignedNumbersAreNeverCut)
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

TEST(CoreBytes, Base64AndHexEdges)
{
    const struct {
        std::string text;
        std::optional<std::string> octets;
    } base64[] = {
        {"", ""},
        {"QQ==", "A"},
        {"QUI=", "AB"},
        {"QUJD", "ABC"},
        {"QQ", "A"},
        {"QUJD\r\nREVG", "ABCDEF"},
        {"Q", std::nullopt},
        {"QQ=", std::nullopt},
        {"QQ===", std::nullopt},
        {"QQ==QQ==", std::nullopt},
        {"QU*D", std::nullopt},
        {"QUJD-_", std::nullopt},
    };
    for (const auto& c : base64) {
        const auto decoded = tse::fromBase64(c.text);
        EXPECT_EQ(decoded.has_value(), c.octets.has_value()) << c.text;
        if (decoded && c.octets) {
            EXPECT_EQ(tse::ByteView(*decoded).text(), *c.octets) << c.text;
        }
    }
    for (size_t n = 0; n < 7; ++n) {
        const tse::Bytes octets(n, 0xFB);
        EXPECT_EQ(tse::fromBase64(tse::toBase64(octets)), octets);
    }
    EXPECT_EQ(tse::fromHex("0a:FF 10"), (tse::Bytes{0x0A, 0xFF, 0x10}));
    EXPECT_EQ(tse::toHex(tse::Bytes{0x0A, 0xFF}), "0AFF");
    for (const char* bad : {"0 a", "abc", "zz", "0x0A", ":0"}) {
        EXPECT_FALSE(tse::fromHex(bad)) << bad;
    }
}

TEST(CoreTime, ParsesAndWritesEveryForm)
{
    const struct {
        char form;  // 'U' UTCTime, 'G' GeneralizedTime, 'I' ISO 8601
        std::string text;
        std::string iso;  // "" when the text must be refused
    } cases[] = {
        {'U', "491231235959Z", "2049-12-31T23:59:59.000Z"},
        {'U', "500101000000Z", "1950-01-01T00:00:00.000Z"},
        {'U', "0002290000Z", "2000-02-29T00:00:00.000Z"},
        {'U', "0102290000Z", ""},
        {'U', "2108021128Z5", ""},
        {'U', "21080211285Z", ""},
        {'G', "20000229000000Z", "2000-02-29T00:00:00.000Z"},
        {'G', "21000229000000Z", ""},
        {'G', "20210802112858.5Z", "2021-08-02T11:28:58.500Z"},
        {'G', "20210802112858.123456Z", "2021-08-02T11:28:58.123456Z"},
        {'G', "20210802112858.Z", ""},
        {'G', "20210802112858.1aZ", ""},
        {'G', "20211301000000Z", ""},
        {'G', "20210802112860Z", ""},
        {'I', "2021-08-02T11:28:58.000Z", "2021-08-02T11:28:58.000Z"},
        {'I', "2021-08-02T13:28:58+02:00", "2021-08-02T11:28:58.000Z"},
        {'I', "2021-08-02T06:28:58-0500", "2021-08-02T11:28:58.000Z"},
        {'I', "2021-08-02 11:28", "2021-08-02T11:28:00.000Z"},
        {'I', "2021-08-02T11:28:58+2:00", ""},
        {'I', "2021-02-29T00:00:00Z", ""},
        {'I', "2021-08-02T11:28:58.Z", ""},
        {'I', "02.08.2021 11:28", ""},
    };
    for (const auto& c : cases) {
        std::optional<tse::LogTime> time;
        if (c.form == 'I') {
            if (const auto parsed = tse::parseIsoTime(c.text))
                time = tse::LogTime{{}, parsed->seconds, parsed->fraction, {}};
        } else {
            const tse::Result<tse::LogTime> parsed =
                c.form == 'U' ? tse::parseUtcTime(c.text) : tse::parseGeneralizedTime(c.text);
            if (parsed) time = *parsed;
        }
        EXPECT_EQ(time ? time->iso() : "", c.iso) << c.text;
    }
    EXPECT_EQ(tse::isoSeconds(-1), "1969-12-31T23:59:59Z");
    EXPECT_EQ(tse::utcTimeText(951782400, false), "0002290000Z");
    EXPECT_EQ(tse::generalizedTimeText(4107542399, "25"), "21000228235959.25Z");
    // A reason quotes the text printably, however hostile the bytes.
    const std::string reason = tse::parseUtcTime(std::string("21\n\x1B[2J") + std::string(100, 'x')).error().message;
    EXPECT_EQ(reason.find_first_of("\n\x1B"), std::string::npos) << reason;
    EXPECT_LT(reason.size(), 120u) << reason;
}

TEST(CoreText, EscapingKeepsOneLine)
{
    const struct {
        std::string value;
        std::string shown;
    } cases[] = {
        {"Beleg^8.57", "Beleg^8.57"},
        {"a\nb\tc\rd", "a\\nb\\tc\\rd"},
        {"back\\slash", "back\\\\slash"},
        {std::string("nul\0\x01\x7F", 6), "nul\\x00\\x01\\x7F"},
        {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},  // UTF-8 stays
        {"\xC3", "\\xC3"},                                                                 // cut short
        {"\xC2\x85\xC2\x9B", "\\xC2\\x85\\xC2\\x9B"},                                      // C1 controls: NEL, CSI
        {"\xE2\x80\xA8", "\\xE2\\x80\\xA8"},                                               // line separator
        {"\xE2\x80\xA9", "\\xE2\\x80\\xA9"},                                               // paragraph separator
        {"\xE2\x80\xA7\xE2\x80\xAA",
         "\xE2\x80\xA7\\xE2\\x80\\xAA"},  // a printable neighbour stays, an embedding does not
        // What turns an amount around on screen: RIGHT-TO-LEFT OVERRIDE,
        // RIGHT-TO-LEFT ISOLATE, ARABIC LETTER MARK; a zero-width space and
        // a byte order mark inside the text. Arabic letters themselves stay.
        {"9.\xE2\x80\xAE"
         "00",
         "9.\\xE2\\x80\\xAE"
         "00"},
        {"\xE2\x81\xA7x\xD8\x9C", "\\xE2\\x81\\xA7x\\xD8\\x9C"},
        {"a\xE2\x80\x8B\xEF\xBB\xBF", "a\\xE2\\x80\\x8B\\xEF\\xBB\\xBF"},
        {"\xD8\xB3\xE2\x80\x8C", "\xD8\xB3\\xE2\\x80\\x8C"},
        {"\xC0\xAF\xE0\x80\xAF", "\\xC0\\xAF\\xE0\\x80\\xAF"},  // overlong
        {"\xED\xA0\x80", "\\xED\\xA0\\x80"},                    // surrogate
        {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},           // past U+10FFFF
    };
    for (const auto& c : cases) {
        EXPECT_EQ(tse::escapeText(c.value), c.shown);
    }
}

// Dotted text from DER content, against hand-encoded octets: the first
// octets hold two arcs, large arcs take several octets, and padding or a
// cut-off arc is refused.
TEST(CoreOid, DecodesArcsAndRefusesBadEncodings)
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
