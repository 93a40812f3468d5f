// The core's base: the result type, the calendar, and the small text and
// byte helpers that every part shares.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "bytes.h"
#include "civil_time.h"
#include "file_reader.h"
#include "fixtures.h"
#include "pdf_pages.h"
#include "result.h"
#include "text.h"

namespace {

// A value taken from an error is a fault of the caller; it must say which
// error was ignored, not "bad variant access".
TEST(Result, TakingTheWrongSideThrowsAndNamesTheError)
{
    const tse::Result<tse::Bytes> missing = tse::readFileBounded("/nonexistent/file", 16);
    ASSERT_FALSE(missing);
    try {
        static_cast<void>(missing.value());
        FAIL() << "value() of an error returned";
    } catch (const tse::BadResultAccess& fault) {
        EXPECT_NE(std::string(fault.what()).find(missing.error().message), std::string::npos) << fault.what();
    }
    const tse::Result<std::vector<int>> held = std::vector<int>{1, 2};
    EXPECT_THROW(static_cast<void>(held.error()), tse::BadResultAccess);
    EXPECT_EQ(tse::Result<int>(tse::Error{"none"}).value_or(7), 7);
    EXPECT_EQ(std::move(held).value_or({}).size(), 2u);
}

// Result<void>: a PDF that is none fails with words; the pages a good one
// hands on come before its success.
TEST(Result, VoidCarriesOnlyTheError)
{
    int pages = 0;
    const tse::Result<void> refused =
        tse::renderPdfPages(tse::Bytes{'%', 'P', 'D', 'F'}, [&](int, int, const tse::GreyImage&) { ++pages; });
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().message, "the PDF is damaged or cut off");
    EXPECT_THROW(refused.value(), tse::BadResultAccess);
    EXPECT_EQ(pages, 0);
    const tse::Result<void> fine;
    EXPECT_TRUE(fine);
    EXPECT_NO_THROW(fine.value());
    EXPECT_THROW(static_cast<void>(fine.error()), tse::BadResultAccess);
}

TEST(Calendar, DaysAndDatesRoundTrip)
{
    struct Case {
        int64_t year;
        unsigned month, day;
        int64_t days;
    } cases[] = {{1970, 1, 1, 0},     {2000, 2, 29, 11016}, {2000, 3, 1, 11017}, {2023, 11, 14, 19675},
                 {2100, 3, 1, 47541}, {1969, 12, 31, -1},   {1900, 3, 1, -25508}};
    for (const Case& c : cases) {
        EXPECT_EQ(tse::daysFromCivil(c.year, c.month, c.day), c.days) << c.year << "-" << c.month << "-" << c.day;
        const tse::CivilTime back = tse::civilFromSeconds(c.days * 86400 + 86399);
        EXPECT_EQ(std::make_tuple(back.year, back.month, back.day, back.hour, back.minute, back.second),
                  std::make_tuple(c.year, c.month, c.day, 23u, 59u, 59u));
    }
    EXPECT_FALSE(tse::isValidCivil({2023, 2, 29, 0, 0, 0}));
    EXPECT_TRUE(tse::isValidCivil({2024, 2, 29, 23, 59, 59}));
    const std::optional<tse::IsoTime> local = tse::parseIsoTime("2021-08-02T13:28:58.5+02:00");
    ASSERT_TRUE(local);
    EXPECT_EQ(tse::isoSeconds(local->seconds), "2021-08-02T11:28:58Z");
    EXPECT_EQ(local->fraction, "5");
    EXPECT_FALSE(tse::parseIsoTime("2021-02-30T00:00"));
}

TEST(Text, NamesCaseDigitsAndBlanks)
{
    // Exports made on Windows separate with a backslash; a name without
    // either is its own base name.
    for (const auto& [path, base] : std::vector<std::pair<std::string, std::string>>{
             {"export/Unixt_1_Sig-1_Log-Aud.log", "Unixt_1_Sig-1_Log-Aud.log"},
             {"Kassenabschluss\\tse.csv", "tse.csv"},
             {"a/b\\c", "c"},
             {"index.xml", "index.xml"},
             {"dir/", ""}}) {
        EXPECT_EQ(tse::baseName(path), base) << path;
    }
    // ASCII letters only: UTF-8 bytes stay as they are, whatever the locale.
    EXPECT_EQ(tse::asciiLower("SHA256withECDSA \xC3\x84I"), "sha256withecdsa \xC3\x84i");
    EXPECT_EQ(tse::groupedDigits(0), "0");
    EXPECT_EQ(tse::groupedDigits(999), "999");
    EXPECT_EQ(tse::groupedDigits(-1000), "-1,000");
    EXPECT_EQ(tse::groupedDigits(std::numeric_limits<int64_t>::min()), "-9,223,372,036,854,775,808");
    EXPECT_TRUE(tse::isBlank('\r'));
    EXPECT_FALSE(tse::isBlank('\v'));
}

// A range beyond the view throws instead of reading what is not there,
// also where offset plus count would wrap around.
TEST(Bytes, SubViewsStayInside)
{
    const tse::Bytes data{1, 2, 3, 4};
    const tse::ByteView view(data);
    EXPECT_EQ(view.sub(1, 3).copy(), (tse::Bytes{2, 3, 4}));
    EXPECT_TRUE(view.sub(4, 0).empty());
    EXPECT_THROW(static_cast<void>(view.sub(5, 0)), std::out_of_range);
    EXPECT_THROW(static_cast<void>(view.sub(2, 3)), std::out_of_range);
    EXPECT_THROW(static_cast<void>(view.sub(1, SIZE_MAX)), std::out_of_range);
}

// The digest the HTML report shows for each input, read a piece at a time.
TEST(Bytes, FileDigestIsTheDigestOfTheContents)
{
    fixtures::TempDir dir;
    const std::string contents(200000, 'x');  // some pieces and a part of one
    const tse::Result<tse::Bytes> digest = tse::sha256OfFile(dir.write("input", contents));
    ASSERT_TRUE(digest) << digest.error().message;
    EXPECT_EQ(*digest, tse::sha256(contents));
    EXPECT_EQ(tse::sha256OfFile(dir.path("missing")).error().message, "cannot be read");
}

TEST(Bytes, Base64AndHexEdges)
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

TEST(Text, EscapingKeepsOneLine)
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

}  // namespace
