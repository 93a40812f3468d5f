#include "export_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

#include "text.h"

namespace tse {
namespace {

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && equalsIgnoringCase(text.substr(text.size() - suffix.size()), suffix);
}

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// Takes "_Fc-n" off the end of the stem, where a TSE marks a repeated name.
unsigned takeDuplicateIndex(std::string_view& stem)
{
    const size_t at = stem.rfind("_Fc-");
    if (at == std::string_view::npos) return 0;
    const auto index = parseDecimal(stem.substr(at + 4));
    if (!index || *index > 1000000) return 0;
    stem = stem.substr(0, at);
    return static_cast<unsigned>(*index);
}

// Splits at '_' but keeps everything after "_Client-" whole: client IDs may
// hold characters that would otherwise look like separators.
std::vector<std::string_view> nameParts(std::string_view stem, std::string_view& client, bool& hasClient)
{
    const size_t clientAt = stem.find("_Client-");
    hasClient = clientAt != std::string_view::npos;
    if (hasClient) {
        client = stem.substr(clientAt + 8);
        stem = stem.substr(0, clientAt);
    }
    std::vector<std::string_view> parts;
    parts.reserve(8);  // a TSE's names have four to six, and this runs for every log
    size_t start = 0;
    while (true) {
        const size_t end = stem.find('_', start);
        parts.push_back(stem.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return parts;
}

std::optional<TimeFormat> formatOfPrefix(std::string_view prefix)
{
    if (prefix == "Unixt" || prefix == "Unix") return TimeFormat::UnixTime;
    if (prefix == "Utc") return TimeFormat::UtcTime;
    if (prefix == "Gent") return TimeFormat::GeneralizedTime;
    return std::nullopt;
}

bool transactionNameFits(LogName& name, const std::vector<std::string_view>& parts, std::string_view client,
                         bool hasClient)
{
    if (parts.size() != 6 || !hasClient || !startsWith(parts[4], "No-")) return false;
    name.transactionNumber = parseDecimal(parts[4].substr(3));
    name.operation = std::string(parts[5]);
    name.clientId = std::string(client);
    return name.transactionNumber.has_value() && !name.operation.empty();
}

// "Start" in a name stands for StartTransaction (and v3's startTransaction).
bool sameOperation(const LogName& name, const LogMessage& message)
{
    const std::string content = message.operation();
    if (equalsIgnoringCase(content, name.operation)) return true;
    return name.type == LogType::Transaction && equalsIgnoringCase(content, name.operation + "Transaction");
}

bool sameTime(const LogName& name, const LogTime& time)
{
    if (name.format != time.format) return false;
    if (time.format == TimeFormat::UnixTime) {
        const auto seconds = parseDecimal(name.dateText);
        return seconds && static_cast<int64_t>(*seconds) == time.seconds;
    }
    return name.dateText == time.text;
}

void note(std::string& out, const std::string& text)
{
    out += out.empty() ? text : "; " + text;
}

}  // namespace

bool unsafeMemberName(std::string_view memberName)
{
    if (memberName.empty() || memberName.front() == '/' || memberName.front() == '\\') return true;
    size_t start = 0;
    while (start <= memberName.size()) {
        const size_t end = memberName.find_first_of("/\\", start);
        const std::string_view part =
            memberName.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        if (part == "..") return true;
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return false;
}

MemberKind classifyMember(std::string_view memberName)
{
    const std::string_view name = baseName(memberName);
    if (endsWithIgnoringCase(name, ".log")) return MemberKind::Log;
    if (equalsIgnoringCase(name, "info.csv")) return MemberKind::Info;
    if (certificateNameSerial(name)) return MemberKind::Certificate;
    return MemberKind::Other;
}

std::optional<std::string> certificateNameSerial(std::string_view memberName)
{
    std::string_view name = baseName(memberName);
    const size_t dot = name.rfind('.');
    if (dot == std::string_view::npos) return std::nullopt;
    const std::string_view extension = name.substr(dot + 1);
    static constexpr std::array<std::string_view, 4> extensions{"pem", "cer", "crt", "der"};
    if (std::none_of(extensions.begin(), extensions.end(),
                     [&](std::string_view e) { return equalsIgnoringCase(e, extension); })) {
        return std::nullopt;
    }
    std::string_view stem = name.substr(0, dot);
    takeDuplicateIndex(stem);
    const size_t marker = stem.rfind("_X509");
    if (marker == std::string_view::npos || marker + 5 != stem.size()) return std::nullopt;
    return std::string(stem.substr(0, marker));
}

std::optional<LogName> parseLogName(std::string_view memberName)
{
    std::string_view stem = baseName(memberName);
    if (!endsWithIgnoringCase(stem, ".log")) return std::nullopt;
    stem.remove_suffix(4);
    LogName name;
    name.duplicateIndex = takeDuplicateIndex(stem);
    std::string_view client;
    bool hasClient = false;
    const std::vector<std::string_view> parts = nameParts(stem, client, hasClient);
    if (parts.size() < 4) return std::nullopt;
    const auto format = formatOfPrefix(parts[0]);
    const auto counter = startsWith(parts[2], "Sig-") ? parseDecimal(parts[2].substr(4)) : std::nullopt;
    if (!format || parts[1].empty() || !counter) return std::nullopt;
    name.format = *format;
    name.dateText = std::string(parts[1]);
    name.counter = *counter;
    if (parts[3] == "Log-Tra") {
        name.type = LogType::Transaction;
        if (!transactionNameFits(name, parts, client, hasClient)) return std::nullopt;
    } else if (parts[3] == "Log-Sys") {
        if (parts.size() != 5 || hasClient || parts[4].empty()) return std::nullopt;
        name.type = LogType::System;
        name.operation = std::string(parts[4]);
    } else if (parts[3] == "Log-Aud") {
        if (parts.size() != 4 || hasClient) return std::nullopt;
        name.type = LogType::Audit;
    } else {
        return std::nullopt;
    }
    return name;
}

std::string nameMismatch(const LogName& name, const LogMessage& message)
{
    std::string out;
    if (name.type != message.type) {
        note(out, "the name says a " + std::string(logTypeName(name.type)) + " log, the content is a " +
                      std::string(logTypeName(message.type)) + " log");
        return out;
    }
    if (name.counter != message.signatureCounter) {
        note(out, "the name's counter " + std::to_string(name.counter) + " is not the content's " +
                      std::to_string(message.signatureCounter));
    }
    if (!sameTime(name, message.logTime)) {
        note(out, "the name's time " + name.dateText + " is not the content's " + message.logTime.text + " (" +
                      std::string(timeFormatName(message.logTime.format)) + ")");
    }
    if (name.type == LogType::Transaction && name.transactionNumber != message.transactionNumber()) {
        const auto number = message.transactionNumber();
        note(out, "the name's transaction number " + std::to_string(*name.transactionNumber) +
                      " is not the content's " + (number ? std::to_string(*number) : std::string("(none)")));
    }
    if (name.type != LogType::Audit && !sameOperation(name, message)) {
        note(out, "the name's operation " + name.operation + " is not the content's " + message.operation());
    }
    return out;
}

}  // namespace tse
