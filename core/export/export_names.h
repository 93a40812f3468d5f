#ifndef TSE_CORE_EXPORT_NAMES_H
#define TSE_CORE_EXPORT_NAMES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "log_message.h"
#include "log_time.h"

namespace tse {

// What a TSE export's member name says about the file, before it is read.
enum class MemberKind { Log, Certificate, Info, Other };
MemberKind classifyMember(std::string_view memberName);

// True for names that would leave the export if used as a path: absolute
// paths and any ".." component.
bool unsafeMemberName(std::string_view memberName);

// The fields a TSE encodes into a log file's name, e.g.
// Unixt_1627903738_Sig-1207_Log-Tra_No-538_Finish_Client-K1.log
struct LogName {
    TimeFormat format = TimeFormat::UnixTime;
    std::string dateText;  // as written: decimal seconds or the time string
    uint64_t counter = 0;
    LogType type = LogType::Transaction;
    std::optional<uint64_t> transactionNumber;
    std::string operation;  // Start/Update/Finish, or the system log's event
    std::string clientId;
    unsigned duplicateIndex = 0;  // the n of _Fc-n
};
std::optional<LogName> parseLogName(std::string_view memberName);

// <SERIAL>_X509[_Fc-n].<ext>: the hex key hash the name claims.
std::optional<std::string> certificateNameSerial(std::string_view memberName);

// The differences between a log's name and its content, in words; empty
// when they agree.
std::string nameMismatch(const LogName& name, const LogMessage& message);

}  // namespace tse

#endif
