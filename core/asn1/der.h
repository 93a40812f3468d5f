#ifndef TSE_CORE_DER_H
#define TSE_CORE_DER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bytes.h"

namespace tse {

// Writers for the DER forms the log messages use.
Bytes derLength(uint64_t length);
Bytes derElement(uint8_t tag, ByteView content);
// The minimal two's-complement content of an unsigned number.
Bytes derUnsignedContent(uint64_t value);
Bytes derUnsigned(uint8_t tag, uint64_t value);
// A constructed element of indefinite length around OCTET STRING chunks of
// at most chunkSize octets (one chunk when chunkSize is 0), as D-Trust
// writes processData.
Bytes berIndefiniteChunks(uint8_t tag, ByteView value, size_t chunkSize = 0);

void append(Bytes& to, ByteView from);

}  // namespace tse

#endif
