#include "bytes.h"

#include <algorithm>
#include <cstring>

#include <openssl/sha.h>

#include "text.h"

namespace tse {
namespace {

constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
constexpr char BASE64_ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

int base64Value(char c)
{
    const char* found = std::strchr(BASE64_ALPHABET, c);
    return c != '\0' && found ? static_cast<int>(found - BASE64_ALPHABET) : -1;
}

}  // namespace

bool operator==(ByteView a, ByteView b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

std::string toHex(ByteView data)
{
    std::string text;
    text.reserve(2 * data.size());
    for (uint8_t octet : data) {
        text += HEX_DIGITS[octet >> 4];
        text += HEX_DIGITS[octet & 0x0F];
    }
    return text;
}

std::optional<Bytes> fromHex(std::string_view text)
{
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':') {
            if (high >= 0) return std::nullopt;
            continue;
        }
        const int value = hexValue(c);
        if (value < 0) return std::nullopt;
        if (high < 0) {
            high = value;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | value));
            high = -1;
        }
    }
    if (high >= 0) return std::nullopt;
    return out;
}

std::string toBase64(ByteView data)
{
    std::string text;
    text.reserve(4 * ((data.size() + 2) / 3));
    for (size_t i = 0; i < data.size(); i += 3) {
        const size_t left = std::min<size_t>(3, data.size() - i);
        uint32_t group = static_cast<uint32_t>(data[i]) << 16;
        if (left > 1) group |= static_cast<uint32_t>(data[i + 1]) << 8;
        if (left > 2) group |= data[i + 2];
        text += BASE64_ALPHABET[group >> 18 & 63];
        text += BASE64_ALPHABET[group >> 12 & 63];
        text += left > 1 ? BASE64_ALPHABET[group >> 6 & 63] : '=';
        text += left > 2 ? BASE64_ALPHABET[group & 63] : '=';
    }
    return text;
}

std::optional<Bytes> fromBase64(std::string_view text)
{
    Bytes out;
    uint32_t group = 0;
    int bits = 0;
    size_t symbols = 0;
    size_t padding = 0;
    for (char c : text) {
        if (isBlank(c)) continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int value = base64Value(c);
        if (value < 0 || padding > 0) return std::nullopt;
        ++symbols;
        group = group << 6 | static_cast<uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<uint8_t>(group >> bits));
        }
    }
    const size_t remainder = symbols % 4;
    if (remainder == 1 || padding > 2 || (padding > 0 && (symbols + padding) % 4 != 0)) return std::nullopt;
    return out;
}

Bytes sha256(ByteView data)
{
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(data.data(), data.size(), digest.data());
    return digest;
}

}  // namespace tse
