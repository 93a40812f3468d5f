// make-dsfinvk: amounts as the bookkeeping writes them - VAT rates by date,
// net from gross, decimals with a comma - all in integers of the smallest
// unit, never in floating point.
#include <cstdlib>
#include <string>

#include "dsfinvk_check.h"
#include "log_time.h"
#include "make_dsfinvk_book.h"

namespace makedsfinvk {

namespace {

constexpr int64_t DAY = 86400;
constexpr int64_t WHOLE = 10000;  // 100 % in hundredths of a percent

struct DatedRate {
    int key;
    int64_t year;
    unsigned month, day;
    int64_t rate;  // hundredths of a percent, from that day on
};

// The rate each DSFinV-K key stands for, by the day it took effect: keys 1
// and 2 are the general and reduced rate in force (16 % and 5 % in the
// second half of 2020), key 3 the average rate for farmers in force, key 4
// that for forestry; 5 to 7 carry no VAT.
const DatedRate RATES[] = {
    {1, 1900, 1, 1, 1900}, {1, 2020, 7, 1, 1600}, {1, 2021, 1, 1, 1900}, {2, 1900, 1, 1, 700}, {2, 2020, 7, 1, 500},
    {2, 2021, 1, 1, 700},  {3, 1900, 1, 1, 1070}, {3, 2022, 1, 1, 950},  {3, 2023, 1, 1, 900}, {3, 2024, 12, 6, 840},
    {3, 2025, 1, 1, 780},  {4, 1900, 1, 1, 550},  {5, 1900, 1, 1, 0},    {6, 1900, 1, 1, 0},   {7, 1900, 1, 1, 0},
};

// n / d rounded half away from zero, d > 0.
int64_t roundDiv(int64_t n, int64_t d)
{
    return n >= 0 ? (2 * n + d) / (2 * d) : -((-2 * n + d) / (2 * d));
}

}  // namespace

int64_t germanDay(int64_t utc)
{
    // Summer time holds when the wall clock two hours ahead maps back to this moment.
    const int64_t local = tse::germanLocalToUtc(utc + 7200) == utc ? utc + 7200 : utc + 3600;
    return local >= 0 ? local / DAY : -((-local + DAY - 1) / DAY);
}

std::string dateText(int64_t day)
{
    return tse::isoSeconds(day * DAY).substr(0, 10);
}

std::optional<int64_t> legalRate(int key, int64_t day)
{
    std::optional<int64_t> rate;
    for (const DatedRate& r : RATES) {
        if (r.key == key && tse::daysFromCivil(r.year, r.month, r.day) <= day) rate = r.rate;
    }
    return rate;
}

int64_t rateOf(const Closing& closing, int key)
{
    const auto planted = closing.rates.find(key);
    if (planted != closing.rates.end()) return planted->second;
    return legalRate(key, closing.day).value_or(0);
}

int64_t netOf(int64_t gross, int64_t rate, int64_t unit)
{
    return roundDiv(gross * WHOLE, (WHOLE + rate) * unit) * unit;
}

int64_t roundUnits(int64_t units, int64_t divisor)
{
    return roundDiv(units, divisor);
}

std::string vatDescription(int key)
{
    switch (key) {
    case 1: return "Regelsteuersatz";
    case 2: return "Ermäßigter Steuersatz";
    case 3: return "Durchschnittsatz § 24 Abs. 1 Nr. 3 UStG";
    case 4: return "Durchschnittsatz § 24 Abs. 1 Nr. 1 UStG";
    case 5: return "Nicht steuerbar";
    case 6: return "Umsatzsteuerfrei";
    case 7: return "Umsatzsteuer nicht ermittelbar";
    case DIFFERENCE_KEY: return "Nicht im Umsatzsteuerteil der processData";
    default: return "Schlüssel " + std::to_string(key);
    }
}

std::string decimalText(int64_t units, int decimals)
{
    const bool negative = units < 0;
    std::string digits = std::to_string(negative ? -units : units);
    if (digits.size() <= static_cast<size_t>(decimals))
        digits.insert(0, static_cast<size_t>(decimals) + 1 - digits.size(), '0');
    const size_t point = digits.size() - static_cast<size_t>(decimals);
    return (negative ? "-" : "") + digits.substr(0, point) + (decimals ? "," + digits.substr(point) : "");
}

}  // namespace makedsfinvk
