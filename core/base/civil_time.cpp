#include "civil_time.h"

#include <cstdio>

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

}  // namespace

bool isValidCivil(const CivilTime& t)
{
    return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= daysInMonth(t.year, t.month) && t.hour < 24 &&
           t.minute < 60 && t.second < 60;
}

bool readDigits(std::string_view text, size_t pos, size_t count, unsigned& value)
{
    if (pos > text.size() || count > text.size() - pos) return false;
    value = 0;
    for (size_t i = pos; i < pos + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + static_cast<unsigned>(text[i] - '0');
    }
    return true;
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
    return CivilTime{year,
                     month,
                     day,
                     static_cast<unsigned>(rest / 3600),
                     static_cast<unsigned>(rest / 60 % 60),
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

std::optional<IsoTime> parseIsoTime(std::string_view text)
{
    CivilTime t{};
    unsigned year = 0;
    if (text.size() < 16 || !readDigits(text, 0, 4, year) || text[4] != '-' || !readDigits(text, 5, 2, t.month) ||
        text[7] != '-' || !readDigits(text, 8, 2, t.day) || (text[10] != 'T' && text[10] != 't' && text[10] != ' ') ||
        !readDigits(text, 11, 2, t.hour) || text[13] != ':' || !readDigits(text, 14, 2, t.minute)) {
        return std::nullopt;
    }
    size_t pos = 16;
    IsoTime out;
    if (pos < text.size() && text[pos] == ':') {
        if (!readDigits(text, pos + 1, 2, t.second)) return std::nullopt;
        pos += 3;
        if (pos < text.size() && (text[pos] == '.' || text[pos] == ',')) {
            ++pos;
            while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') out.fraction += text[pos++];
            if (out.fraction.empty()) return std::nullopt;
        }
    }
    t.year = year;
    if (!isValidCivil(t)) return std::nullopt;
    const std::string_view zone = text.substr(pos);
    if (zone == "Z" || zone == "z") {
        out.hadZone = true;
    } else if (!zone.empty()) {
        unsigned hours = 0, minutes = 0;
        const bool colon = zone.size() == 6 && zone[3] == ':';
        if ((zone[0] != '+' && zone[0] != '-') || (zone.size() != 5 && !colon) || !readDigits(zone, 1, 2, hours) ||
            !readDigits(zone, colon ? 4 : 3, 2, minutes) || hours > 23 || minutes > 59) {
            return std::nullopt;
        }
        out.hadZone = true;
        out.offsetMinutes = (zone[0] == '-' ? -1 : 1) * static_cast<int>(hours * 60 + minutes);
    }
    out.seconds = secondsFromCivil(t) - static_cast<int64_t>(out.offsetMinutes) * 60;
    return out;
}

}  // namespace tse
