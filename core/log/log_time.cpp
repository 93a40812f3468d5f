#include "log_time.h"

#include <cstdio>

#include "text.h"

namespace tse {
namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;

bool isLeap(int64_t year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned daysInMonth(int64_t year, unsigned month)
{
    static constexpr unsigned DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : DAYS[month - 1];
}

bool validCivil(const CivilTime& t)
{
    return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= daysInMonth(t.year, t.month) && t.hour < 24 &&
           t.minute < 60 && t.second < 60;
}

// Reads `count` decimal digits at `pos`; false when any is not a digit.
bool digits(std::string_view text, size_t pos, size_t count, unsigned& value)
{
    if (pos + count > text.size()) return false;
    value = 0;
    for (size_t i = pos; i < pos + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + static_cast<unsigned>(text[i] - '0');
    }
    return true;
}

Result<LogTime> failed(const std::string& reason)
{
    return Error{reason, std::nullopt};
}

}  // namespace

std::string_view timeFormatName(TimeFormat format)
{
    switch (format) {
    case TimeFormat::UnixTime: return "unixTime";
    case TimeFormat::UtcTime: return "utcTime";
    case TimeFormat::GeneralizedTime: return "generalizedTime";
    }
    return "unknown";
}

int64_t daysFromCivil(int64_t year, unsigned month, unsigned day)
{
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

CivilTime civilFromSeconds(int64_t seconds)
{
    int64_t days = seconds / SECONDS_PER_DAY;
    int64_t rest = seconds % SECONDS_PER_DAY;
    if (rest < 0) {
        rest += SECONDS_PER_DAY;
        --days;
    }
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t dayOfEra = days - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t mp = (5 * dayOfYear + 2) / 153;
    const unsigned day = static_cast<unsigned>(dayOfYear - (153 * mp + 2) / 5 + 1);
    const unsigned month = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
    const int64_t year = yearOfEra + era * 400 + (month <= 2);
    return CivilTime{year, month, day, static_cast<unsigned>(rest / 3600), static_cast<unsigned>(rest / 60 % 60),
                     static_cast<unsigned>(rest % 60)};
}

int64_t secondsFromCivil(const CivilTime& t)
{
    return daysFromCivil(t.year, t.month, t.day) * SECONDS_PER_DAY + t.hour * 3600 + t.minute * 60 + t.second;
}

std::string isoSeconds(int64_t seconds)
{
    const CivilTime t = civilFromSeconds(seconds);
    char text[48];
    std::snprintf(text, sizeof(text), "%04lld-%02u-%02uT%02u:%02u:%02uZ", static_cast<long long>(t.year), t.month,
                  t.day, t.hour, t.minute, t.second);
    return text;
}

std::string LogTime::iso() const
{
    std::string out = isoSeconds(seconds);
    std::string digitsAfterPoint = fraction;
    while (digitsAfterPoint.size() < 3) digitsAfterPoint += '0';
    out.insert(out.size() - 1, "." + digitsAfterPoint);
    return out;
}

Result<LogTime> parseUtcTime(std::string_view text)
{
    CivilTime t{};
    unsigned year = 0;
    const bool withSeconds = text.size() == 13;
    if ((text.size() != 11 && !withSeconds) || text.back() != 'Z' || !digits(text, 0, 2, year) ||
        !digits(text, 2, 2, t.month) || !digits(text, 4, 2, t.day) || !digits(text, 6, 2, t.hour) ||
        !digits(text, 8, 2, t.minute) || (withSeconds && !digits(text, 10, 2, t.second))) {
        return failed("UTCTime " + quoted(text) + " is not of the form YYMMDDhhmm[ss]Z");
    }
    t.year = year < 50 ? 2000 + year : 1900 + year;
    if (!validCivil(t)) {
        return failed("UTCTime " + quoted(text) + " is not a valid date and time");
    }
    return LogTime{TimeFormat::UtcTime, secondsFromCivil(t), {}, std::string(text)};
}

Result<LogTime> parseGeneralizedTime(std::string_view text)
{
    CivilTime t{};
    unsigned year = 0;
    const std::string what = "GeneralizedTime " + quoted(text);
    if (text.size() < 15 || text.back() != 'Z' || !digits(text, 0, 4, year) || !digits(text, 4, 2, t.month) ||
        !digits(text, 6, 2, t.day) || !digits(text, 8, 2, t.hour) || !digits(text, 10, 2, t.minute) ||
        !digits(text, 12, 2, t.second)) {
        return failed(what + " is not of the form YYYYMMDDhhmmss[.f]Z");
    }
    std::string fraction;
    if (text.size() > 15) {
        if (text[14] != '.' || text.size() < 17) {
            return failed(what + " is not of the form YYYYMMDDhhmmss[.f]Z");
        }
        fraction = std::string(text.substr(15, text.size() - 16));
        unsigned ignored = 0;
        for (size_t i = 0; i < fraction.size(); ++i) {
            if (!digits(fraction, i, 1, ignored)) return failed(what + " has a fraction that is not a number");
        }
    }
    t.year = year;
    if (!validCivil(t)) {
        return failed(what + " is not a valid date and time");
    }
    return LogTime{TimeFormat::GeneralizedTime, secondsFromCivil(t), fraction, std::string(text)};
}

std::string utcTimeText(int64_t seconds, bool withSeconds)
{
    const CivilTime t = civilFromSeconds(seconds);
    char text[32];
    std::snprintf(text, sizeof(text), "%02u%02u%02u%02u%02u", static_cast<unsigned>(t.year % 100), t.month, t.day,
                  t.hour, t.minute);
    std::string out = text;
    if (withSeconds) {
        std::snprintf(text, sizeof(text), "%02u", t.second);
        out += text;
    }
    return out + "Z";
}

std::string generalizedTimeText(int64_t seconds, std::string_view fraction)
{
    const CivilTime t = civilFromSeconds(seconds);
    char text[48];
    std::snprintf(text, sizeof(text), "%04lld%02u%02u%02u%02u%02u", static_cast<long long>(t.year), t.month, t.day,
                  t.hour, t.minute, t.second);
    std::string out = text;
    if (!fraction.empty()) {
        out += "." + std::string(fraction);
    }
    return out + "Z";
}

std::optional<IsoTime> parseIsoTime(std::string_view text)
{
    CivilTime t{};
    unsigned year = 0;
    if (text.size() < 16 || !digits(text, 0, 4, year) || text[4] != '-' || !digits(text, 5, 2, t.month) ||
        text[7] != '-' || !digits(text, 8, 2, t.day) || (text[10] != 'T' && text[10] != 't' && text[10] != ' ') ||
        !digits(text, 11, 2, t.hour) || text[13] != ':' || !digits(text, 14, 2, t.minute)) {
        return std::nullopt;
    }
    size_t pos = 16;
    IsoTime out;
    if (pos < text.size() && text[pos] == ':') {
        if (!digits(text, pos + 1, 2, t.second)) return std::nullopt;
        pos += 3;
        if (pos < text.size() && (text[pos] == '.' || text[pos] == ',')) {
            ++pos;
            while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') out.fraction += text[pos++];
            if (out.fraction.empty()) return std::nullopt;
        }
    }
    t.year = year;
    if (!validCivil(t)) return std::nullopt;
    const std::string_view zone = text.substr(pos);
    if (zone == "Z" || zone == "z") {
        out.hadZone = true;
    } else if (!zone.empty()) {
        unsigned hours = 0, minutes = 0;
        const bool colon = zone.size() == 6 && zone[3] == ':';
        if ((zone[0] != '+' && zone[0] != '-') || (zone.size() != 5 && !colon) || !digits(zone, 1, 2, hours) ||
            !digits(zone, colon ? 4 : 3, 2, minutes) || hours > 23 || minutes > 59) {
            return std::nullopt;
        }
        out.hadZone = true;
        out.offsetMinutes = (zone[0] == '-' ? -1 : 1) * static_cast<int>(hours * 60 + minutes);
    }
    out.seconds = secondsFromCivil(t) - static_cast<int64_t>(out.offsetMinutes) * 60;
    return out;
}

}  // namespace tse
