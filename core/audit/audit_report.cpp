#include "audit_report.h"

namespace tse {

std::string_view StringPool::intern(std::string_view text)
{
    if (text.empty()) return {};
    auto found = index_.find(text);
    if (found != index_.end()) return *found;
    const std::string_view kept = strings_.emplace_back(text);
    index_.insert(kept);
    return kept;
}

std::optional<LogTime> LogRecord::logTime() const
{
    if (!seconds || !timeFormat) return std::nullopt;
    LogTime time;
    time.format = *timeFormat;
    time.seconds = *seconds;
    time.fraction = fraction;
    return time;
}

std::string_view severityName(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

}  // namespace tse
