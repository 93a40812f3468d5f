#ifndef TSE_CORE_DSFINVK_CSV_H
#define TSE_CORE_DSFINVK_CSV_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bytes.h"

namespace tse {

enum class CsvEncoding { Utf8, Windows1252 };

// How a bookkeeping export writes its tables, as its index.xml declares it.
// The defaults are the official description's values.
struct CsvDialect {
    CsvEncoding encoding = CsvEncoding::Utf8;
    char columnDelimiter = ';';
    std::string recordDelimiter = "\r\n";
    char textEncapsulator = '"';  // '\0' when fields are never quoted
    char decimalSymbol = ',';
    char digitGroupingSymbol = '.';
    bool headerLine = true;  // the data starts on line 2
};

struct CsvColumn {
    std::string name;
    size_t maxLength = 0;  // in characters; 0 when the description gives none
    bool numeric = false;  // a Numeric column: a number with at most `accuracy` decimal places
    unsigned accuracy = 0;
};

// One record with its fields in UTF-8, exactly as quoted in the file (a
// quoted field keeps its delimiters, quotes and line breaks).
struct CsvRecord {
    size_t line = 0;  // where the record starts, counting from 1
    std::vector<std::string> fields;
};

struct CsvProblem {
    size_t line = 0;
    std::string message;
};

struct CsvRead {
    std::vector<std::string> header;  // from the file, or the declared columns without a header line
    std::vector<CsvProblem> problems;
    size_t records = 0;  // those handed to the visitor
};

// A field above this many bytes is no bookkeeping value, whatever the
// description declares.
constexpr size_t MAX_CSV_FIELD = 1u << 20;

// The header comes with every record, so that a visitor finds its columns by name.
using CsvVisitor = std::function<void(const std::vector<std::string>& header, const CsvRecord& record)>;

// Reads every record and hands the well-formed ones to the visitor; a
// malformed record (an open quote, text after a closing quote, the wrong
// number of fields, a field above its declared length) becomes a problem
// with its line, and reading goes on with the next record. Line ends may be
// CR LF, LF or CR alone, whatever the description says: all three are seen
// in the field. A UTF-8 byte order mark is skipped.
CsvRead readCsv(ByteView data, const CsvDialect& dialect, const std::vector<CsvColumn>& declared,
                const CsvVisitor& visit);

// Windows-1252 to UTF-8, and back (what has no Windows-1252 byte stays
// as it is).
std::string windows1252ToUtf8(ByteView data);
std::string utf8ToWindows1252(std::string_view text);

// A decimal amount as the table writes it ("1.234,56" with the dialect's
// symbols) in hundredths; more digits are rounded half away from zero.
std::optional<int64_t> parseAmount(std::string_view text, char decimalSymbol, char groupingSymbol);

// "12.50", "-0.05"
std::string formatAmount(int64_t hundredths);

// A decimal amount exactly, in units of 10^-5 (the finest the description
// declares): "1.234,56789" -> 123456789. nullopt for anything else: a
// second decimal symbol, a grouping symbol after it, more significant
// digits than that, no digits, or a value beyond 90 trillion.
std::optional<int64_t> parseExactAmount(std::string_view text, char decimalSymbol, char groupingSymbol);
// The grouping symbols of a number's whole part stand between groups of
// three digits ("1.234,50"): "12.50" in a file of decimal commas is a
// decimal point written by mistake, not twelve hundred and fifty.
bool groupedByThousands(std::string_view text, char decimalSymbol, char groupingSymbol);

// An exact amount with `decimals` (0 to 5) digits after a dot: "12.50".
std::string formatExactAmount(int64_t units, unsigned decimals = 2);

}  // namespace tse

#endif
