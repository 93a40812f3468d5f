#ifndef TSE_CORE_CIVIL_TIME_H
#define TSE_CORE_CIVIL_TIME_H

// The proleptic Gregorian calendar in UTC and ISO 8601 text: what logs,
// receipts, reports and the bookkeeping all count their times in.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tse {

// Days since 1970-01-01 of a date, and a moment in seconds since then as a
// date and time of day, and back.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day);
struct CivilTime {
    int64_t year;
    unsigned month, day, hour, minute, second;
};
CivilTime civilFromSeconds(int64_t seconds);
int64_t secondsFromCivil(const CivilTime& time);
// A date that exists (no 30 February) at a time of day that does.
bool isValidCivil(const CivilTime& time);

// "2021-08-02T11:28:58Z"-style text without fraction.
std::string isoSeconds(int64_t seconds);

// ISO 8601 as receipts and users write it: YYYY-MM-DDThh:mm[:ss[.f...]]
// followed by Z, +hh:mm, -hh:mm, +hhmm or nothing (then UTC is assumed and
// `hadZone` is false). The seconds are returned in UTC.
struct IsoTime {
    int64_t seconds = 0;
    std::string fraction;
    bool hadZone = false;
    int offsetMinutes = 0;
};
std::optional<IsoTime> parseIsoTime(std::string_view text);

// Reads `count` decimal digits at `pos` of a time text into `value`; false
// when the text is shorter or any of them is not a digit.
bool readDigits(std::string_view text, size_t pos, size_t count, unsigned& value);

}  // namespace tse

#endif
