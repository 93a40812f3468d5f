#include "audit_report.h"

#include <algorithm>

namespace tse {

namespace {

// Member names with the numbers of their log taken out become patterns that
// thousands of logs share: the counter, the transaction number and the
// seconds each stand for a byte no name holds.
constexpr char COUNTER_MARK = '\x01', TRANSACTION_MARK = '\x02', SECONDS_MARK = '\x03';

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Replaces the first occurrence of the number that stands by itself (no
// digit before or after) with the mark.
void markNumber(std::string& name, uint64_t number, char mark)
{
    const std::string digits = std::to_string(number);
    for (size_t at = name.find(digits); at != std::string::npos; at = name.find(digits, at + 1)) {
        const size_t end = at + digits.size();
        if ((at == 0 || !isDigit(name[at - 1])) && (end == name.size() || !isDigit(name[end]))) {
            name.replace(at, digits.size(), 1, mark);
            return;
        }
    }
}

// A name that holds a mark byte itself is kept as it is.
std::string namePattern(const std::string& name, LogTable::Row& row)
{
    if (name.find_first_of(std::string_view("\x01\x02\x03", 3)) != std::string::npos) {
        row.present |= LogTable::Row::LITERAL_NAME;
        return name;
    }
    std::string pattern = name;
    if (row.present & LogTable::Row::HAS_SECONDS && row.seconds >= 0) {
        markNumber(pattern, static_cast<uint64_t>(row.seconds), SECONDS_MARK);
    }
    if (row.hasCounter()) markNumber(pattern, row.counter, COUNTER_MARK);
    if (row.present & LogTable::Row::HAS_TRANSACTION) markNumber(pattern, row.transactionNumber, TRANSACTION_MARK);
    return pattern;
}

}  // namespace

uint32_t LogTable::intern(std::string_view text)
{
    if (text.empty()) return 0;
    auto found = ids_.find(text);
    if (found != ids_.end()) return found->second;
    const auto id = static_cast<uint32_t>(texts_.size());
    ids_.emplace(texts_.emplace_back(text), id);
    return id;
}

void LogTable::push_back(const LogRecord& record)
{
    Row row;
    row.ordinal = record.ordinal;
    if (record.counter) row.counter = *record.counter, row.present |= Row::HAS_COUNTER;
    if (record.transactionNumber) row.transactionNumber = *record.transactionNumber, row.present |= Row::HAS_TRANSACTION;
    if (record.seconds) row.seconds = *record.seconds, row.present |= Row::HAS_SECONDS;
    if (record.type) row.type = static_cast<uint8_t>(*record.type);
    if (record.timeFormat) row.timeFormat = static_cast<uint8_t>(*record.timeFormat);
    row.verdict = static_cast<uint8_t>(record.verdict);
    row.file = intern(namePattern(record.file, row));
    row.serialNumber = intern(record.serialNumber);
    row.algorithm = intern(record.algorithm);
    row.operation = intern(record.operation);
    row.clientId = intern(record.clientId);
    row.processType = intern(record.processType);
    row.fraction = intern(record.fraction);
    row.reason = intern(record.reason);
    row.nameProblem = intern(record.nameProblem);
    row.source = intern(record.source);
    rows_.push_back(row);
}

std::string LogTable::file(size_t index) const
{
    const Row& row = rows_[index];
    if (row.present & Row::LITERAL_NAME) return std::string(texts_[row.file]);
    std::string name;
    for (const char c : texts_[row.file]) {
        if (c == SECONDS_MARK) name += std::to_string(row.seconds);
        else if (c == COUNTER_MARK) name += std::to_string(row.counter);
        else if (c == TRANSACTION_MARK) name += std::to_string(row.transactionNumber);
        else name += c;
    }
    return name;
}

LogRecord LogTable::operator[](size_t index) const
{
    const Row& row = rows_[index];
    LogRecord record;
    record.file = file(index);
    record.ordinal = row.ordinal;
    if (row.type != Row::NONE) record.type = static_cast<LogType>(row.type);
    record.verdict = static_cast<LogVerdict>(row.verdict);
    if (row.hasCounter()) record.counter = row.counter;
    record.serialNumber = texts_[row.serialNumber];
    record.algorithm = texts_[row.algorithm];
    if (row.present & Row::HAS_SECONDS) record.seconds = row.seconds;
    record.fraction = texts_[row.fraction];
    if (row.timeFormat != Row::NONE) record.timeFormat = static_cast<TimeFormat>(row.timeFormat);
    if (row.present & Row::HAS_TRANSACTION) record.transactionNumber = row.transactionNumber;
    record.operation = texts_[row.operation];
    record.clientId = texts_[row.clientId];
    record.processType = texts_[row.processType];
    record.reason = texts_[row.reason];
    record.nameProblem = texts_[row.nameProblem];
    record.source = texts_[row.source];
    return record;
}

void LogTable::sortByOrdinal()
{
    std::sort(rows_.begin(), rows_.end(), [](const Row& a, const Row& b) { return a.ordinal < b.ordinal; });
}

void LogTable::removeOrdinals(const std::unordered_set<uint64_t>& ordinals)
{
    rows_.erase(std::remove_if(rows_.begin(), rows_.end(), [&](const Row& row) { return ordinals.count(row.ordinal) > 0; }),
                rows_.end());
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

}  // namespace tse
