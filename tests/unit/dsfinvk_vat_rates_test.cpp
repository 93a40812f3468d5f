// The rate a VAT key stood for on a German civil day, at the edges where
// the law changed it, and which German day a moment falls on.
#include <gtest/gtest.h>

#include "dsfinvk_vat_rates.h"
#include "log_time.h"

namespace {

TEST(VatRates, EachKeyAtTheDaysItsRateChanged)
{
    struct Case {
        uint32_t key;
        int64_t year;
        unsigned month, day;
        std::optional<int64_t> rate;  // hundredths of a percent
    };
    const Case cases[] = {
        {1, 2020, 6, 30, 1900},
        {1, 2020, 7, 1, 1600},
        {1, 2020, 12, 31, 1600},
        {1, 2021, 1, 1, 1900},
        {2, 2020, 6, 30, 700},
        {2, 2020, 7, 1, 500},
        {2, 2021, 1, 1, 700},
        {3, 2021, 12, 31, 1070},
        {3, 2022, 1, 1, 950},
        {3, 2023, 1, 1, 900},
        {3, 2024, 12, 5, 900},
        {3, 2024, 12, 6, 840},
        {3, 2025, 1, 1, 780},
        {4, 2020, 8, 1, 550},
        {5, 2020, 8, 1, 0},
        {8, 2023, 1, 1, 0},
        {11, 2020, 8, 1, 1900},
        {21, 2021, 3, 1, 1600},
        {12, 2020, 8, 1, 700},
        {22, 2021, 3, 1, 500},
        {1000, 2021, 1, 1, std::nullopt},
        {9, 2021, 1, 1, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("key " + std::to_string(c.key) + " on " + std::to_string(c.year) + "-" + std::to_string(c.month) +
                     "-" + std::to_string(c.day));
        EXPECT_EQ(tse::legalVatRate(c.key, tse::daysFromCivil(c.year, c.month, c.day)), c.rate);
    }
}

TEST(VatRates, TheGermanDayOfAMoment)
{
    // Winter (UTC+1) and summer (UTC+2) around midnight.
    const int64_t newYear = tse::daysFromCivil(2021, 1, 1), july = tse::daysFromCivil(2020, 7, 1);
    EXPECT_EQ(tse::germanDay(newYear * 86400 - 3601), newYear - 1);  // 22:59:59Z
    EXPECT_EQ(tse::germanDay(newYear * 86400 - 1800), newYear);      // 23:30Z is 00:30 in Berlin
    EXPECT_EQ(tse::germanDay(july * 86400 - 7201), july - 1);        // 21:59:59Z
    EXPECT_EQ(tse::germanDay(july * 86400 - 7200), july);            // 22:00Z is midnight in Berlin
}

}  // namespace
