#include "oid.h"

#include <cstdint>
#include <vector>

namespace tse {

std::optional<std::string> oidToText(ByteView content)
{
    if (content.empty() || (content[content.size() - 1] & 0x80)) {
        return std::nullopt;
    }
    std::vector<uint64_t> arcs;
    uint64_t arc = 0;
    bool startOfArc = true;
    for (uint8_t octet : content) {
        if (startOfArc && octet == 0x80) {
            return std::nullopt;  // a padded arc is not DER
        }
        if (arc > (UINT64_MAX >> 7)) {
            return std::nullopt;
        }
        arc = arc << 7 | (octet & 0x7F);
        startOfArc = (octet & 0x80) == 0;
        if (startOfArc) {
            arcs.push_back(arc);
            arc = 0;
        }
    }
    const uint64_t first = arcs[0] < 80 ? arcs[0] / 40 : 2;
    std::string text = std::to_string(first) + "." + std::to_string(arcs[0] - 40 * first);
    for (size_t i = 1; i < arcs.size(); ++i) {
        text += "." + std::to_string(arcs[i]);
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
