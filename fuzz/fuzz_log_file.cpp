// Bytes as an exported log file: the cut into signed data and signature,
// then the verification with a fixed certificate.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <vector>

#include "myutils.h"
#include "signature-verification.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    setConsoleOutput(false);
    // The driver writes its own lines straight to the stream; a failed
    // stream drops them.
    std::cout.setstate(std::ios::badbit);
    const std::vector<uint8_t> contents(data, data + size);
    verifyExportedLog(contents, "fuzz-input.log", FUZZ_CERTIFICATE);
    clearErrorMsg(ERROR_ALL);
    return 0;
}
