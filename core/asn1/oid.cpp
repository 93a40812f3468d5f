#include "oid.h"

#include <cstdint>
#include <vector>

namespace tse {
namespace {

// Appends the decimal digits without a temporary string: every log names
// two OIDs, and this runs for each of them.
void appendArc(std::string& text, uint64_t arc)
{
    char digits[20];
    size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + arc % 10);
        arc /= 10;
    } while (arc != 0);
    while (count > 0) text += digits[--count];
}

}  // namespace

std::optional<std::string> oidToText(ByteView content)
{
    if (content.empty() || (content[content.size() - 1] & 0x80)) {
        return std::nullopt;
    }
    std::string text;
    text.reserve(2 * content.size() + 4);
    uint64_t arc = 0;
    bool startOfArc = true;
    bool firstArc = true;
    for (uint8_t octet : content) {
        if (startOfArc && octet == 0x80) {
            return std::nullopt;  // a padded arc is not DER
        }
        if (arc > (UINT64_MAX >> 7)) {
            return std::nullopt;
        }
        arc = arc << 7 | (octet & 0x7F);
        startOfArc = (octet & 0x80) == 0;
        if (!startOfArc) continue;
        if (firstArc) {
            // The first octets hold two arcs: 40 * first + second.
            const uint64_t first = arc < 80 ? arc / 40 : 2;
            appendArc(text, first);
            text += '.';
            appendArc(text, arc - 40 * first);
            firstArc = false;
        } else {
            text += '.';
            appendArc(text, arc);
        }
        arc = 0;
    }
    return text;
}

std::optional<Bytes> oidFromText(std::string_view dotted)
{
    std::vector<uint64_t> arcs;
    uint64_t value = 0;
    bool digits = false;
    for (size_t i = 0; i <= dotted.size(); ++i) {
        if (i == dotted.size() || dotted[i] == '.') {
            if (!digits) return std::nullopt;
            arcs.push_back(value);
            value = 0;
            digits = false;
        } else if (dotted[i] >= '0' && dotted[i] <= '9' && value < (UINT64_MAX - 9) / 10) {
            value = value * 10 + static_cast<uint64_t>(dotted[i] - '0');
            digits = true;
        } else {
            return std::nullopt;
        }
    }
    if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] >= 40)) {
        return std::nullopt;
    }
    arcs[1] += 40 * arcs[0];
    Bytes content;
    for (size_t i = 1; i < arcs.size(); ++i) {
        Bytes encoded{static_cast<uint8_t>(arcs[i] & 0x7F)};
        for (uint64_t rest = arcs[i] >> 7; rest != 0; rest >>= 7) {
            encoded.insert(encoded.begin(), static_cast<uint8_t>(0x80 | (rest & 0x7F)));
        }
        content.insert(content.end(), encoded.begin(), encoded.end());
    }
    return content;
}

}  // namespace tse
