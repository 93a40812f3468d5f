#include "text.h"

#include <algorithm>
#include <cstdio>

namespace tse {

bool invisibleFormat(uint32_t code)
{
    return code == 0x061C || (code >= 0x200B && code <= 0x200F) || code == 0x2028 || code == 0x2029 ||
           (code >= 0x202A && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF ||
           (code >= 0xFFF9 && code <= 0xFFFB);
}

// Overlong forms, surrogates and values past U+10FFFF are not well-formed;
// the C1 controls (U+0080 to U+009F, among them a terminal's CSI), the line
// and paragraph separators U+2028/U+2029 and the invisible format
// characters would break a line, drive a terminal or turn the text around
// on screen, so they are not shown as themselves.
Utf8Sequence utf8At(ByteView value, size_t i)
{
    const uint8_t c = value[i];
    if (c < 0x80) return {1, c >= 0x20 && c < 0x7F};
    const size_t length = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (length == 0 || i + length > value.size()) return {};
    const uint8_t second = value[i + 1];
    uint8_t low = 0x80, high = 0xBF;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
    if (second < low || second > high) return {};
    for (size_t k = 2; k < length; ++k) {
        if ((value[i + k] & 0xC0) != 0x80) return {};
    }
    uint32_t code = 0;
    if (length == 2) code = ((c & 0x1Fu) << 6) | (second & 0x3Fu);
    if (length == 3) code = ((c & 0x0Fu) << 12) | ((second & 0x3Fu) << 6) | (value[i + 2] & 0x3Fu);
    const bool c1 = code >= 0x80 && code <= 0x9F;
    return {length, length == 4 || !(c1 || invisibleFormat(code))};
}

namespace {

char lowerLetter(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The length of a well-formed UTF-8 sequence at `i` that is printable, or 0.
size_t utf8Length(ByteView value, size_t i)
{
    const Utf8Sequence sequence = utf8At(value, i);
    return sequence.printable && value[i] >= 0x80 ? sequence.length : 0;
}

// Both escapes in one: with `backslash`, a '\\' is escaped too, which makes
// the escaping reversible; without, text escaped before passes unchanged.
std::string escape(ByteView value, bool backslash)
{
    // Nearly every text is printable ASCII throughout and comes back as it
    // is; an audit escapes several texts of every log.
    const auto plain = [&](uint8_t c) { return c >= 0x20 && c < 0x7F && !(c == '\\' && backslash); };
    if (std::all_of(value.begin(), value.end(), plain)) return std::string(value.begin(), value.end());
    std::string out;
    out.reserve(value.size());
    for (size_t i = 0; i < value.size();) {
        const uint8_t c = value[i];
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\\' && backslash) {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else if (const size_t length = c >= 0x80 ? utf8Length(value, i) : 0) {
            out.append(reinterpret_cast<const char*>(value.data() + i), length);
            i += length;
            continue;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
        ++i;
    }
    return out;
}

}  // namespace

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lowerLetter(x) == lowerLetter(y); });
}

std::string asciiLower(std::string_view text)
{
    std::string out(text);
    for (char& c : out) c = lowerLetter(c);
    return out;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view baseName(std::string_view path)
{
    const size_t separator = path.find_last_of("/\\");
    return separator == std::string_view::npos ? path : path.substr(separator + 1);
}

std::string groupedDigits(int64_t value)
{
    // The magnitude as unsigned, so that the smallest int64_t has one too.
    const uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    const std::string digits = std::to_string(magnitude);
    std::string out = value < 0 ? "-" : "";
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

std::string escapeText(ByteView value)
{
    return escape(value, true);
}

std::string quoted(std::string_view value, size_t limit)
{
    std::string out = "\"";
    for (const char c : escapeText(value.substr(0, limit))) {
        if (c == '"') out += '\\';
        out += c;
    }
    return out + (value.size() > limit ? "...\"" : "\"");
}

std::string counted(uint64_t count, std::string_view one, std::string_view many)
{
    return std::to_string(count) + " " + std::string(count == 1 ? one : many);
}

std::optional<uint64_t> parseDecimal(std::string_view text)
{
    if (text.empty()) return std::nullopt;
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        const auto digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::string escapeUnsafe(std::string_view text)
{
    return escape(ByteView(text), false);
}

bool isSafeText(std::string_view text)
{
    const ByteView value(text);
    for (size_t i = 0; i < value.size();) {
        const uint8_t c = value[i];
        if (c >= 0x20 && c < 0x7F) {
            ++i;
        } else if (const size_t length = c >= 0x80 ? utf8Length(value, i) : 0) {
            i += length;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace tse
