// base64 decoding and the DER length codec.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "myutils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    unsigned char* decoded = nullptr;
    int decodedLength = 0;
    b64_decode64(reinterpret_cast<const char*>(data), static_cast<int>(size), &decoded, decodedLength);
    if (decodedLength > static_cast<int>(size)) {
        std::abort();
    }
    std::free(decoded);

    // The decoder trusts its caller to keep the length octets inside the
    // buffer, so only such inputs are handed to it.
    if (size == 0) {
        return 0;
    }
    std::vector<uint8_t> octets(data, data + size);
    const size_t count = (octets[0] & 0x80) ? (octets[0] & 0x7F) : 0;
    if (1 + count > octets.size()) {
        return 0;
    }
    auto position = octets.begin();
    uint64_t size64 = 0;
    ASNLengthToSize(position, size64);
    if (position != octets.begin() + static_cast<std::ptrdiff_t>(1 + count)) {
        std::abort();
    }
    // Whatever was read must survive a round trip through the encoder.
    std::vector<uint8_t> encoded;
    sizeToASNLength(size64, encoded);
    auto again = encoded.begin();
    uint64_t reread = 0;
    ASNLengthToSize(again, reread);
    if (reread != size64 || again != encoded.end()) {
        std::abort();
    }
    return 0;
}
