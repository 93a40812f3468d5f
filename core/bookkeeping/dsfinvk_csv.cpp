#include "dsfinvk_csv.h"

#include <cstdlib>
#include <unordered_map>

namespace tse {
namespace {

constexpr std::string_view BOM = "\xEF\xBB\xBF";
constexpr size_t MAX_FIELDS = 1000;

// The code points of 0x80..0x9F in Windows-1252; the five unassigned bytes
// keep their own value, as most decoders do.
constexpr uint16_t CP1252_HIGH[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                      0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                      0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                      0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void appendUtf8(std::string& out, uint32_t code)
{
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

size_t characters(std::string_view utf8)
{
    size_t count = 0;
    for (const char c : utf8) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return count;
}

class Parser {
public:
    Parser(std::string_view text, const CsvDialect& dialect) : text_(text), dialect_(dialect) {}

    // The next record, or false at the end. `problem` is set for a record
    // that must not be used.
    bool next(CsvRecord& record, std::string& problem)
    {
        record.fields.clear();
        problem.clear();
        if (pos_ >= text_.size()) return false;
        record.line = line_;
        std::string field;
        bool quoted = false, afterQuote = false, oversized = false;
        const char delimiter = dialect_.columnDelimiter, quote = dialect_.textEncapsulator;
        const auto endField = [&] {
            if (record.fields.size() < MAX_FIELDS) record.fields.push_back(std::move(field));
            else if (problem.empty()) problem = "has more than " + std::to_string(MAX_FIELDS) + " fields";
            field.clear();
            quoted = afterQuote = false;
        };
        while (pos_ < text_.size()) {
            const char c = text_[pos_++];
            if (quoted) {
                if (c == quote) {
                    if (pos_ < text_.size() && text_[pos_] == quote) {
                        add(field, c, oversized), ++pos_;
                    } else {
                        quoted = false, afterQuote = true;
                    }
                    continue;
                }
                if (c == '\n' || (c == '\r' && !(pos_ < text_.size() && text_[pos_] == '\n'))) ++line_;
                add(field, c, oversized);
                continue;
            }
            if (c == delimiter) {
                endField();
                continue;
            }
            if (c == '\r' || c == '\n') {
                if (c == '\r' && pos_ < text_.size() && text_[pos_] == '\n') ++pos_;
                ++line_;
                return finish(problem, oversized, endField);
            }
            if (afterQuote) {
                if (problem.empty()) problem = "has text after the closing quote of field " + std::to_string(record.fields.size() + 1);
                continue;
            }
            if (quote != '\0' && c == quote) {
                if (field.empty()) {
                    quoted = true;
                } else if (problem.empty()) {
                    problem = "has a quote inside the unquoted field " + std::to_string(record.fields.size() + 1);
                }
                continue;
            }
            add(field, c, oversized);
        }
        if (quoted) {
            problem = "opens a quoted field that the file never closes (is it cut off?)";
            return true;
        }
        return finish(problem, oversized, endField);
    }

private:
    static void add(std::string& field, char c, bool& oversized)
    {
        if (field.size() < MAX_CSV_FIELD) field += c;
        else oversized = true;
    }

    template <typename End>
    static bool finish(std::string& problem, bool oversized, const End& endField)
    {
        endField();
        if (oversized && problem.empty()) problem = "has a field above " + std::to_string(MAX_CSV_FIELD >> 20) + " MiB";
        return true;
    }

    std::string_view text_;
    const CsvDialect& dialect_;
    size_t pos_ = 0;
    size_t line_ = 1;
};

bool blankRecord(const CsvRecord& record)
{
    return record.fields.size() == 1 && record.fields.front().empty();
}

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::string windows1252ToUtf8(ByteView data)
{
    std::string out;
    out.reserve(data.size() + data.size() / 8);
    for (const uint8_t byte : data) {
        if (byte < 0x80) out += static_cast<char>(byte);
        else if (byte < 0xA0) appendUtf8(out, CP1252_HIGH[byte - 0x80]);
        else appendUtf8(out, byte);
    }
    return out;
}

CsvRead readCsv(ByteView data, const CsvDialect& dialect, const std::vector<CsvColumn>& declared,
                const CsvVisitor& visit)
{
    std::string converted;
    std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    // A byte order mark says UTF-8 louder than a description saying ANSI.
    if (text.substr(0, BOM.size()) == BOM) {
        text.remove_prefix(BOM.size());
    } else if (dialect.encoding == CsvEncoding::Windows1252) {
        converted = windows1252ToUtf8(ByteView(text));
        text = converted;
    }
    CsvRead read;
    std::unordered_map<std::string, size_t> declaredLength;
    for (const CsvColumn& column : declared) declaredLength[column.name] = column.maxLength;
    std::vector<size_t> limits;
    Parser parser(text, dialect);
    CsvRecord record;
    std::string problem;
    bool haveHeader = !dialect.headerLine;
    if (haveHeader) {
        for (const CsvColumn& column : declared) read.header.push_back(column.name);
    }
    const auto setLimits = [&] {
        for (const std::string& name : read.header) {
            const auto found = declaredLength.find(name);
            limits.push_back(found == declaredLength.end() ? 0 : found->second);
        }
    };
    if (haveHeader) setLimits();
    while (parser.next(record, problem)) {
        if (!problem.empty()) {
            read.problems.push_back({record.line, "line " + std::to_string(record.line) + " " + problem});
            if (!haveHeader) return read;
            continue;
        }
        if (blankRecord(record)) continue;
        if (!haveHeader) {
            for (const std::string& name : record.fields) read.header.push_back(trimmed(name));
            haveHeader = true;
            setLimits();
            continue;
        }
        if (record.fields.size() != read.header.size()) {
            read.problems.push_back({record.line, "line " + std::to_string(record.line) + " has " +
                                                      std::to_string(record.fields.size()) + " fields, the header " +
                                                      std::to_string(read.header.size())});
            continue;
        }
        bool tooLong = false;
        for (size_t i = 0; i < record.fields.size(); ++i) {
            if (limits[i] == 0 || record.fields[i].size() <= limits[i]) continue;
            const size_t length = characters(record.fields[i]);
            if (length <= limits[i]) continue;
            read.problems.push_back({record.line, "line " + std::to_string(record.line) + ": " + read.header[i] +
                                                      " has " + std::to_string(length) +
                                                      " characters, the description allows " +
                                                      std::to_string(limits[i])});
            tooLong = true;
            break;
        }
        if (tooLong) continue;
        ++read.records;
        visit(read.header, record);
    }
    return read;
}

std::optional<int64_t> parseAmount(std::string_view text, char decimalSymbol, char groupingSymbol)
{
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    int64_t whole = 0;
    int64_t fraction = 0;  // two digits; the third rounds
    size_t fractionDigits = 0;
    bool inFraction = false, digits = false, roundUp = false;
    constexpr int64_t LIMIT = INT64_MAX / 1000;
    for (const char c : text) {
        if (c == decimalSymbol && !inFraction) {
            inFraction = true;
        } else if (c == groupingSymbol && !inFraction && groupingSymbol != '\0') {
            continue;
        } else if (c >= '0' && c <= '9') {
            digits = true;
            const int digit = c - '0';
            if (!inFraction) {
                if (whole > LIMIT / 10) return std::nullopt;
                whole = whole * 10 + digit;
            } else if (fractionDigits < 2) {
                fraction = fraction * 10 + digit;
                ++fractionDigits;
            } else if (fractionDigits == 2) {
                roundUp = digit >= 5;
                ++fractionDigits;
            }
        } else {
            return std::nullopt;
        }
    }
    if (!digits) return std::nullopt;
    while (fractionDigits < 2) fraction *= 10, ++fractionDigits;
    const int64_t value = whole * 100 + fraction + (roundUp ? 1 : 0);
    return negative ? -value : value;
}

std::string formatAmount(int64_t hundredths)
{
    const bool negative = hundredths < 0;
    const uint64_t magnitude = negative ? static_cast<uint64_t>(-(hundredths + 1)) + 1 : static_cast<uint64_t>(hundredths);
    std::string cents = std::to_string(magnitude % 100);
    if (cents.size() < 2) cents.insert(0, "0");
    return (negative ? "-" : "") + std::to_string(magnitude / 100) + "." + cents;
}

}  // namespace tse
