#include "dsfinvk_csv.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

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
                if (problem.empty())
                    problem = "has text after the closing quote of field " + std::to_string(record.fields.size() + 1);
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

std::string utf8ToWindows1252(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<uint8_t>(text[i]);
        uint32_t code = lead;
        size_t length = 1;
        if ((lead & 0xE0) == 0xC0 && i + 1 < text.size()) {
            code = ((lead & 0x1Fu) << 6) | (static_cast<uint8_t>(text[i + 1]) & 0x3Fu), length = 2;
        } else if ((lead & 0xF0) == 0xE0 && i + 2 < text.size()) {
            code = ((lead & 0x0Fu) << 12) | ((static_cast<uint8_t>(text[i + 1]) & 0x3Fu) << 6) |
                   (static_cast<uint8_t>(text[i + 2]) & 0x3Fu),
            length = 3;
        }
        const uint16_t* high = std::find(std::begin(CP1252_HIGH), std::end(CP1252_HIGH), code);
        if (code < 0x80 || (code >= 0xA0 && code <= 0xFF)) out += static_cast<char>(code);
        else if (high != std::end(CP1252_HIGH)) out += static_cast<char>(0x80 + (high - std::begin(CP1252_HIGH)));
        else out.append(text.substr(i, length));
        i += length;
    }
    return out;
}

namespace {

// The columns' declared lengths, in the order of the header.
std::vector<size_t> declaredLimits(const std::vector<std::string>& header, const std::vector<CsvColumn>& declared)
{
    std::vector<size_t> limits;
    for (const std::string& name : header) {
        size_t limit = 0;
        for (const CsvColumn& column : declared) {
            if (column.name == name) limit = column.maxLength;
        }
        limits.push_back(limit);
    }
    return limits;
}

// Why a well-formed record cannot be used, or "".
std::string recordProblem(const CsvRecord& record, const std::vector<std::string>& header,
                          const std::vector<size_t>& limits)
{
    const std::string line = "line " + std::to_string(record.line);
    if (record.fields.size() != header.size()) {
        return line + " has " + std::to_string(record.fields.size()) + " fields, the header " +
               std::to_string(header.size());
    }
    for (size_t i = 0; i < record.fields.size(); ++i) {
        if (limits[i] == 0 || record.fields[i].size() <= limits[i]) continue;
        const size_t length = characters(record.fields[i]);
        if (length <= limits[i]) continue;
        return line + ": " + header[i] + " has " + std::to_string(length) + " characters, the description allows " +
               std::to_string(limits[i]);
    }
    return {};
}

}  // namespace

CsvRead readCsv(ByteView data, const CsvDialect& dialect, const std::vector<CsvColumn>& declared,
                const CsvVisitor& visit)
{
    std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    // A byte order mark says UTF-8 louder than a description saying ANSI.
    const bool bom = text.substr(0, BOM.size()) == BOM;
    if (bom) text.remove_prefix(BOM.size());
    // Every delimiter is ASCII, so the file is cut into fields first and
    // only the fields are converted: no second copy of the whole file.
    const bool convert = !bom && dialect.encoding == CsvEncoding::Windows1252;
    CsvRead read;
    bool haveHeader = !dialect.headerLine;
    if (haveHeader) {
        for (const CsvColumn& column : declared) read.header.push_back(column.name);
    }
    std::vector<size_t> limits = declaredLimits(read.header, declared);
    Parser parser(text, dialect);
    CsvRecord record;
    std::string problem;
    while (parser.next(record, problem)) {
        if (!problem.empty()) {
            read.problems.push_back({record.line, "line " + std::to_string(record.line) + " " + problem});
            if (!haveHeader) return read;
            continue;
        }
        if (blankRecord(record)) continue;
        if (convert) {
            for (std::string& field : record.fields) field = windows1252ToUtf8(ByteView(field));
        }
        if (!haveHeader) {
            for (const std::string& name : record.fields) read.header.push_back(trimmed(name));
            haveHeader = true;
            limits = declaredLimits(read.header, declared);
            continue;
        }
        if (std::string why = recordProblem(record, read.header, limits); !why.empty()) {
            read.problems.push_back({record.line, std::move(why)});
            continue;
        }
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
    const uint64_t magnitude =
        negative ? static_cast<uint64_t>(-(hundredths + 1)) + 1 : static_cast<uint64_t>(hundredths);
    std::string cents = std::to_string(magnitude % 100);
    if (cents.size() < 2) cents.insert(0, "0");
    return (negative ? "-" : "") + std::to_string(magnitude / 100) + "." + cents;
}

bool groupedByThousands(std::string_view text, char decimalSymbol, char groupingSymbol)
{
    if (groupingSymbol == '\0') return true;
    const std::string_view whole = text.substr(0, text.find(decimalSymbol));
    size_t group = 0;  // digits since the last grouping symbol
    bool grouped = false;
    for (const char c : whole) {
        if (c != groupingSymbol) {
            group += c >= '0' && c <= '9';
            continue;
        }
        // The first group holds one to three digits, every later one three.
        if (grouped ? group != 3 : group == 0 || group > 3) return false;
        grouped = true, group = 0;
    }
    return !grouped || group == 3;
}

std::optional<int64_t> parseExactAmount(std::string_view text, char decimalSymbol, char groupingSymbol)
{
    if (!groupedByThousands(text, decimalSymbol, groupingSymbol)) return std::nullopt;
    constexpr unsigned DECIMALS = 5;
    constexpr int64_t LIMIT = INT64_MAX / 100;
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    const bool negative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
    int64_t value = 0;
    unsigned decimals = 0;
    bool inFraction = false, digits = false;
    for (const char c : text) {
        if (c == decimalSymbol && !inFraction) {
            inFraction = true;
        } else if (c == groupingSymbol && groupingSymbol != '\0' && !inFraction && digits) {
            continue;
        } else if (c >= '0' && c <= '9') {
            digits = true;
            if (inFraction && decimals == DECIMALS) {
                if (c != '0') return std::nullopt;
                continue;
            }
            if (value > LIMIT) return std::nullopt;
            value = value * 10 + (c - '0');
            decimals += inFraction;
        } else {
            return std::nullopt;
        }
    }
    if (!digits) return std::nullopt;
    for (; decimals < DECIMALS; ++decimals) {
        if (value > INT64_MAX / 10) return std::nullopt;
        value *= 10;
    }
    return negative ? -value : value;
}

std::string formatExactAmount(int64_t units, unsigned decimals)
{
    const bool negative = units < 0;
    uint64_t magnitude = negative ? static_cast<uint64_t>(-(units + 1)) + 1 : static_cast<uint64_t>(units);
    for (unsigned d = decimals; d < 5; ++d) magnitude /= 10;
    uint64_t scale = 1;
    for (unsigned d = 0; d < decimals; ++d) scale *= 10;
    std::string fraction = std::to_string(magnitude % scale);
    fraction.insert(0, decimals - std::min<size_t>(decimals, fraction.size()), '0');
    return (negative ? "-" : "") + std::to_string(magnitude / scale) + (decimals ? "." + fraction : "");
}

}  // namespace tse
