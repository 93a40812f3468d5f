#include "audit_report.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

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
    char digits[24];
    const auto written = std::to_chars(digits, digits + sizeof digits, number);
    const auto length = static_cast<size_t>(written.ptr - digits);
    for (size_t at = name.find(digits, 0, length); at != std::string::npos; at = name.find(digits, at + 1, length)) {
        const size_t end = at + length;
        if ((at == 0 || !isDigit(name[at - 1])) && (end == name.size() || !isDigit(name[end]))) {
            name.replace(at, length, 1, mark);
            return;
        }
    }
}

// A name that holds a mark byte itself is kept as it is.
void namePattern(const std::string& name, LogTable::Row& row, std::string& pattern)
{
    pattern = name;
    if (name.find_first_of(std::string_view("\x01\x02\x03", 3)) != std::string::npos) {
        row.present |= LogTable::Row::LITERAL_NAME;
        return;
    }
    if (row.present & LogTable::Row::HAS_SECONDS && row.seconds >= 0) {
        markNumber(pattern, static_cast<uint64_t>(row.seconds), SECONDS_MARK);
    }
    if (row.hasCounter()) markNumber(pattern, row.counter, COUNTER_MARK);
    if (row.present & LogTable::Row::HAS_TRANSACTION) markNumber(pattern, row.transactionNumber, TRANSACTION_MARK);
}

template <typename Number>
void appendNumber(std::string& out, Number number)
{
    char digits[24];
    const auto written = std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, static_cast<size_t>(written.ptr - digits));
}

}  // namespace

uint32_t LogTable::intern(std::string_view text, Column column)
{
    if (text.empty()) return 0;
    if (texts_[last_[column]] == text) return last_[column];
    auto found = ids_.find(text);
    if (found == ids_.end()) {
        const auto id = static_cast<uint32_t>(texts_.size());
        found = ids_.emplace(texts_.emplace_back(text), id).first;
    }
    return last_[column] = found->second;
}

void LogTable::push_back(const LogRecord& record)
{
    Row row;
    row.ordinal = record.ordinal;
    if (record.counter) row.counter = *record.counter, row.present |= Row::HAS_COUNTER;
    if (record.transactionNumber)
        row.transactionNumber = *record.transactionNumber, row.present |= Row::HAS_TRANSACTION;
    if (record.seconds) row.seconds = *record.seconds, row.present |= Row::HAS_SECONDS;
    if (record.type) row.type = static_cast<uint8_t>(*record.type);
    if (record.timeFormat) row.timeFormat = static_cast<uint8_t>(*record.timeFormat);
    row.verdict = static_cast<uint8_t>(record.verdict);
    namePattern(record.file, row, pattern_);
    row.file = intern(pattern_, FILE);
    row.serialNumber = intern(record.serialNumber, SERIAL);
    row.algorithm = intern(record.algorithm, ALGORITHM);
    row.operation = intern(record.operation, OPERATION);
    row.clientId = intern(record.clientId, CLIENT);
    row.processType = intern(record.processType, PROCESS);
    row.fraction = intern(record.fraction, FRACTION);
    row.reason = intern(record.reason, REASON);
    row.nameProblem = intern(record.nameProblem, NAME_PROBLEM);
    row.source = intern(record.source, SOURCE);
    rows_.push_back(row);
}

void LogTable::append(LogTable&& other)
{
    std::vector<uint32_t> ids(other.texts_.size(), 0);
    for (size_t id = 1; id < other.texts_.size(); ++id) ids[id] = intern(other.texts_[id], FILE);
    while (!other.rows_.empty()) {
        Row row = other.rows_.front();
        other.rows_.pop_front();
        for (uint32_t* id : {&row.file, &row.serialNumber, &row.algorithm, &row.operation, &row.clientId,
                             &row.processType, &row.fraction, &row.reason, &row.nameProblem, &row.source}) {
            *id = ids[*id];
        }
        rows_.push_back(row);
    }
    other = LogTable();
}

void LogTable::appendFile(const Row& row, std::string& name) const
{
    if (row.present & Row::LITERAL_NAME) {
        name += texts_[row.file];
        return;
    }
    for (const char c : texts_[row.file]) {
        if (c == SECONDS_MARK) appendNumber(name, row.seconds);
        else if (c == COUNTER_MARK) appendNumber(name, row.counter);
        else if (c == TRANSACTION_MARK) appendNumber(name, row.transactionNumber);
        else name += c;
    }
}

std::string LogTable::file(size_t index) const
{
    std::string name;
    appendFile(rows_[index], name);
    return name;
}

LogRecord LogTable::operator[](size_t index) const
{
    LogRecord record;
    read(index, record);
    return record;
}

void LogTable::read(size_t index, LogRecord& record) const
{
    const Row& row = rows_[index];
    record.file.clear();
    appendFile(row, record.file);
    record.ordinal = row.ordinal;
    record.type = row.type != Row::NONE ? std::optional<LogType>(static_cast<LogType>(row.type)) : std::nullopt;
    record.verdict = static_cast<LogVerdict>(row.verdict);
    record.counter = row.hasCounter() ? std::optional<uint64_t>(row.counter) : std::nullopt;
    record.serialNumber = texts_[row.serialNumber];
    record.algorithm = texts_[row.algorithm];
    record.seconds = row.present & Row::HAS_SECONDS ? std::optional<int64_t>(row.seconds) : std::nullopt;
    record.fraction = texts_[row.fraction];
    record.timeFormat =
        row.timeFormat != Row::NONE ? std::optional<TimeFormat>(static_cast<TimeFormat>(row.timeFormat)) : std::nullopt;
    record.transactionNumber =
        row.present & Row::HAS_TRANSACTION ? std::optional<uint64_t>(row.transactionNumber) : std::nullopt;
    record.operation = texts_[row.operation];
    record.clientId = texts_[row.clientId];
    record.processType = texts_[row.processType];
    record.reason = texts_[row.reason];
    record.nameProblem = texts_[row.nameProblem];
    record.source = texts_[row.source];
}

// The rows come from several threads, a batch at a time, nearly in order.
// Their ordinals are unique and, but for the members that are no logs,
// dense: each row moves once, straight to its place, instead of being
// compared into it.
void LogTable::sortByOrdinal()
{
    const auto byOrdinal = [](const Row& a, const Row& b) { return a.ordinal < b.ordinal; };
    if (std::is_sorted(rows_.begin(), rows_.end(), byOrdinal)) return;
    const auto [least, most] = std::minmax_element(rows_.begin(), rows_.end(), byOrdinal);
    const uint64_t low = least->ordinal, span = most->ordinal - low + 1;
    constexpr uint32_t NONE = UINT32_MAX;
    if (span > 2 * rows_.size() + 4096 || rows_.size() >= NONE) {
        return std::sort(rows_.begin(), rows_.end(), byOrdinal);
    }
    // The index of the row of each ordinal, then only those there are.
    std::vector<uint32_t> order(static_cast<size_t>(span), NONE);
    for (size_t i = 0; i < rows_.size(); ++i) {
        uint32_t& slot = order[static_cast<size_t>(rows_[i].ordinal - low)];
        if (slot != NONE) return std::sort(rows_.begin(), rows_.end(), byOrdinal);
        slot = static_cast<uint32_t>(i);
    }
    order.erase(std::remove(order.begin(), order.end(), NONE), order.end());
    // Place k takes the row at order[k]; a place done points to itself.
    for (size_t k = 0; k < order.size(); ++k) {
        if (order[k] == k) continue;
        const Row first = rows_[k];
        size_t to = k;
        for (size_t from = order[k]; from != k; to = from, from = order[from]) {
            rows_[to] = rows_[from];
            order[to] = static_cast<uint32_t>(to);
        }
        rows_[to] = first;
        order[to] = static_cast<uint32_t>(to);
    }
}

void LogTable::removeOrdinals(const std::unordered_set<uint64_t>& ordinals)
{
    rows_.erase(
        std::remove_if(rows_.begin(), rows_.end(), [&](const Row& row) { return ordinals.count(row.ordinal) > 0; }),
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
