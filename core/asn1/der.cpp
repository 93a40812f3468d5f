#include "der.h"

#include <algorithm>

namespace tse {

void append(Bytes& to, ByteView from)
{
    to.insert(to.end(), from.begin(), from.end());
}

Bytes derLength(uint64_t length)
{
    if (length < 0x80) {
        return {static_cast<uint8_t>(length)};
    }
    Bytes octets;
    for (uint64_t rest = length; rest != 0; rest >>= 8) {
        octets.insert(octets.begin(), static_cast<uint8_t>(rest & 0xFF));
    }
    octets.insert(octets.begin(), static_cast<uint8_t>(0x80 | octets.size()));
    return octets;
}

Bytes derElement(uint8_t tag, ByteView content)
{
    Bytes out{tag};
    append(out, derLength(content.size()));
    append(out, content);
    return out;
}

Bytes derUnsignedContent(uint64_t value)
{
    Bytes content;
    do {
        content.insert(content.begin(), static_cast<uint8_t>(value & 0xFF));
        value >>= 8;
    } while (value != 0);
    if (content.front() & 0x80) {
        content.insert(content.begin(), 0x00);
    }
    return content;
}

Bytes derUnsigned(uint8_t tag, uint64_t value)
{
    return derElement(tag, derUnsignedContent(value));
}

Bytes berIndefiniteChunks(uint8_t tag, ByteView value, size_t chunkSize)
{
    Bytes out{static_cast<uint8_t>(tag | 0x20), 0x80};
    size_t offset = 0;
    do {
        const size_t size = chunkSize == 0 ? value.size() : std::min(chunkSize, value.size() - offset);
        append(out, derElement(0x04, value.sub(offset, size)));
        offset += size;
    } while (offset < value.size());
    out.push_back(0x00);
    out.push_back(0x00);
    return out;
}

}  // namespace tse
