#ifndef TSE_CORE_TEXT_H
#define TSE_CORE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "bytes.h"

namespace tse {

// ASCII letters only: names in logs, exports and receipts are ASCII, and a
// locale must not change what matches.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
std::string asciiLower(std::string_view text);

// A space, tab, carriage return or line feed: what surrounds a value in a
// file or on a command line without being part of it.
bool isBlank(char c);

// The last part of a path or archive member name, after the last '/' or
// '\': exports made on Windows separate with either.
std::string_view baseName(std::string_view path);

// "1,234,567": digits grouped in threes for people to read.
std::string groupedDigits(int64_t value);

// Text from an input (a log's field, a member name, a certificate's
// subject) as it is shown and written to JSON and CSV: printable UTF-8
// stays, a backslash becomes \\, a line feed, tab and carriage return
// \n, \t, \r, and every other control character (C1 ones and U+2028/U+2029
// too) and every byte that is not part of well-formed UTF-8 \xNN with two
// uppercase hex digits. The result is valid UTF-8, stays on one line, and
// the original bytes can be recovered from it.
std::string escapeText(ByteView value);

// Characters that change how the text around them is shown without being
// seen themselves: the bidirectional controls (U+202A to U+202E, U+2066 to
// U+2069, the marks U+200E, U+200F, U+061C), zero-width ones, the line and
// paragraph separators and the byte order mark. An amount shown after
// U+202E reads backwards; they are escaped wherever controls are.
bool invisibleFormat(uint32_t code);

// The UTF-8 sequence at value[i]: its length when well-formed (0 when it is
// overlong, a surrogate, past U+10FFFF or cut short) and whether it shows
// as itself: not a control (C0, DEL, C1), a separator or an invisible
// format character.
struct Utf8Sequence {
    size_t length = 0;
    bool printable = false;
};
Utf8Sequence utf8At(ByteView value, size_t i);

// The same escapes without the one for the backslash, for messages that
// embed values escaped already: escaping them again changes nothing. The
// last guard before text reaches a terminal or a JSON document.
std::string escapeUnsafe(std::string_view text);
bool isSafeText(std::string_view text);  // escapeUnsafe would change nothing

// A value for an error message: escaped as above, a '"' as \", in double
// quotes, and cut after `limit` bytes (with "...") so a line stays a line.
std::string quoted(std::string_view value, size_t limit = 40);

// "1 log", "2 logs": a count with its noun in the number the count needs.
std::string counted(uint64_t count, std::string_view one, std::string_view many);

// A decimal number of digits only, at most what fits in 64 bits; nullopt
// for anything else (a sign, blanks, no digits, too large).
std::optional<uint64_t> parseDecimal(std::string_view text);

}  // namespace tse

#endif
