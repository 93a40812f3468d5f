// Bytes read as a receipt QR code text, and when the twelve fields parse,
// the signed message rebuilt in every form and verified.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "receipt_text.h"
#include "receipt_verify.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const tse::Result<tse::Receipt> parse = tse::parseReceiptText(text);
    // Every refusal and every failed verification must tell the user why.
    if (!parse) {
        if (parse.error().message.empty()) std::abort();
        return 0;
    }
    const tse::ReceiptVerification verification = tse::verifyReceipt(*parse);
    if (!verification.valid() && verification.reason.empty()) std::abort();
    return 0;
}
