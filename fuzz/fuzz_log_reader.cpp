// Bytes read back as a transaction log message.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ASNToQrCode.h"
#include "myutils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    setConsoleOutput(false);
    // An exact-size copy, so that any read past the end is caught.
    std::vector<uint8_t> message(data, data + size);
    ASNToQrCode reader;
    try {
        reader.parse(message);
    } catch (int) {
        // A message that does not follow the layout.
    }
    clearErrorMsg(ERROR_ALL);
    return 0;
}
