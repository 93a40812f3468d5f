// The core's base: the result type, the calendar, and the small text and
// byte helpers that every part shares.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
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

}  // namespace
