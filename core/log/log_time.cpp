#include "log_time.h"

#include <cstdio>

#include "text.h"

namespace tse {
namespace {

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
    if ((text.size() != 11 && !withSeconds) || text.back() != 'Z' || !readDigits(text, 0, 2, year) ||
        !readDigits(text, 2, 2, t.month) || !readDigits(text, 4, 2, t.day) || !readDigits(text, 6, 2, t.hour) ||
        !readDigits(text, 8, 2, t.minute) || (withSeconds && !readDigits(text, 10, 2, t.second))) {
        return failed("UTCTime " + quoted(text) + " is not of the form YYMMDDhhmm[ss]Z");
    }
    t.year = year < 50 ? 2000 + year : 1900 + year;
    if (!isValidCivil(t)) {
        return failed("UTCTime " + quoted(text) + " is not a valid date and time");
    }
    return LogTime{TimeFormat::UtcTime, secondsFromCivil(t), {}, std::string(text)};
}

Result<LogTime> parseGeneralizedTime(std::string_view text)
{
    CivilTime t{};
    unsigned year = 0;
    const std::string what = "GeneralizedTime " + quoted(text);
    if (text.size() < 15 || text.back() != 'Z' || !readDigits(text, 0, 4, year) || !readDigits(text, 4, 2, t.month) ||
        !readDigits(text, 6, 2, t.day) || !readDigits(text, 8, 2, t.hour) || !readDigits(text, 10, 2, t.minute) ||
        !readDigits(text, 12, 2, t.second)) {
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
            if (!readDigits(fraction, i, 1, ignored)) return failed(what + " has a fraction that is not a number");
        }
    }
    t.year = year;
    if (!isValidCivil(t)) {
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

int64_t germanLocalToUtc(int64_t localSeconds)
{
    constexpr int64_t DAY = 86400, HOUR = 3600;
    const int64_t year = civilFromSeconds(localSeconds).year;
    const auto lastSunday = [&](unsigned month, unsigned lastDay) {
        const int64_t days = daysFromCivil(year, month, lastDay);
        const int64_t weekday = ((days % 7) + 11) % 7;  // 1970-01-01 was a Thursday; 0 is Sunday
        return (days - weekday) * DAY + HOUR;
    };
    const int64_t summerStart = lastSunday(3, 31), summerEnd = lastSunday(10, 31);
    const int64_t summer = localSeconds - 2 * HOUR;
    if (summer >= summerStart && summer < summerEnd) return summer;
    return localSeconds - HOUR;
}

}  // namespace tse
