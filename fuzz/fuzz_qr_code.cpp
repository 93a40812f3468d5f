// The QR code text through the whole QR code mode: parser, derivations,
// builder with its log time, and the raw key verification.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "QrCodeToASN.h"
#include "myutils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    setConsoleOutput(false);
    try {
        const QrCodeToASN builder(std::string(reinterpret_cast<const char*>(data), size));
        const std::vector<uint8_t> publicKey = builder.getPublicKey();
        const std::vector<uint8_t> signature = builder.getSignature();
        const std::vector<uint8_t> message = builder.getASN1Data();
        const size_t headerSize = message.size() < 259 ? 3 : 4;
        verifySignatureFromQR(message.data() + headerSize, static_cast<uint32_t>(message.size() - headerSize),
                              signature.data(), static_cast<uint32_t>(signature.size()), publicKey.data(),
                              static_cast<int32_t>(publicKey.size()));
    } catch (int) {
        // The parser, the derivations and the builder give up this way.
    } catch (const std::invalid_argument&) {
        // A number field without digits.
    } catch (const std::out_of_range&) {
        // A number field beyond 64 bits.
    }
    clearErrorMsg(ERROR_ALL);
    return 0;
}
