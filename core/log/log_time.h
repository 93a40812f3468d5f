#ifndef TSE_CORE_LOG_TIME_H
#define TSE_CORE_LOG_TIME_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "bytes.h"
#include "civil_time.h"
#include "result.h"

namespace tse {

enum class TimeFormat { UnixTime, UtcTime, GeneralizedTime };

// "unixTime", "utcTime", "generalizedTime": the names receipts carry.
std::string_view timeFormatName(TimeFormat format);

// A log time: seconds since the epoch (UTC) plus the form it was written in.
struct LogTime {
    TimeFormat format = TimeFormat::UnixTime;
    int64_t seconds = 0;
    std::string fraction;  // digits after the decimal point (generalizedTime only)
    std::string text;      // as encoded: decimal seconds, or the time string

    // ISO 8601 in UTC with at least milliseconds: 2021-08-02T11:28:58.000Z
    std::string iso() const;
};

// Parsers for the content of a UTCTime (YYMMDDhhmm[ss]Z) or GeneralizedTime
// (YYYYMMDDhhmmss[.f...]Z): the time, or why the text is none.
Result<LogTime> parseUtcTime(std::string_view text);
Result<LogTime> parseGeneralizedTime(std::string_view text);

// The UTCTime and GeneralizedTime texts of a moment, as TSEs write them.
std::string utcTimeText(int64_t seconds, bool withSeconds = true);
std::string generalizedTimeText(int64_t seconds, std::string_view fraction = {});

// The UTC seconds of a wall-clock time in Germany (CET, CEST from the last
// Sunday of March to the last Sunday of October, 01:00 UTC each), where
// registers write their times without a zone.
int64_t germanLocalToUtc(int64_t localSeconds);

}  // namespace tse

#endif
