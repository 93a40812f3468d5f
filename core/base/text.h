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

// Escapes control characters and bytes that are not UTF-8 (\n, \t, \xNN) so
// that a value stays on one line.
std::string escapeText(ByteView value);

// A value for an error message: escaped as above, a '"' as \", in double
// quotes, and cut after `limit` bytes (with "...") so a line stays a line.
std::string quoted(std::string_view value, size_t limit = 40);

// A decimal number of digits only, at most what fits in 64 bits; nullopt
// for anything else (a sign, blanks, no digits, too large).
std::optional<uint64_t> parseDecimal(std::string_view text);

}  // namespace tse

#endif
