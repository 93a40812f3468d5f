// Bytes read as a log message of any type by the core, then shown as
// `tse-check read` shows them and verified with a fixed key.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "algorithms.h"
#include "bytes.h"
#include "log_message.h"
#include "log_verify.h"
#include "public_key.h"

namespace {

// The secp384r1 key of the D-Trust device whose logs seed the corpus, so
// that inputs near them reach the signature check itself.
const tse::PublicKey& fixedKey()
{
    static constexpr std::string_view PEM = "-----BEGIN PUBLIC KEY-----\n"
                                            "MHYwEAYHKoZIzj0CAQYFK4EEACIDYgAEeu/sgADuI4imEqOS/QQZtJhTZOPH7Wcc\n"
                                            "TG8Lm2nYHVrC1MjPxZNOSs6LCQLDwwDOyC+60n+pg7VlYL+0Xn3gxEAQKJGP4Vkb\n"
                                            "En7t+/PCbW8Vg8BozXLRWa8+gCDnY7EP\n"
                                            "-----END PUBLIC KEY-----\n";
    static const tse::PublicKey key = tse::keyFromSubjectPublicKeyInfo(PEM).value();
    return key;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // An exact-size copy, so that any read past the end is caught.
    const std::vector<uint8_t> input(data, data + size);
    const tse::Result<tse::LogMessage> parse = tse::parseLogMessage(input);
    if (!parse) return 0;
    const tse::LogMessage& message = *parse;
    size_t shown = message.logTime.iso().size() + message.operation().size();
    for (const tse::LogField& field : message.certifiedData) {
        shown += field.text ? tse::escapeText(field.value).size() : tse::toHex(field.value).size();
    }
    shown += message.transactionNumber().value_or(0) & 1;
    (void)shown;
    tse::verifyLog(message, fixedKey());
    return 0;
}
