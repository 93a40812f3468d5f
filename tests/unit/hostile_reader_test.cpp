#include <gtest/gtest.h>

#include "ASNToQrCode.h"
#include "fixtures.h"

namespace {

// Wherever the message is cut before the signature value, what follows
// claims 2 GiB of content: the reader must give its parse error without
// reading past the buffer. (Inside the signature value any 96 octets will do.)
TEST(HostileReader, LengthsBeyondTheBufferAtEveryPosition)
{
    EcKeyPtr key = fixtures::makeEcKey();
    const fixtures::Bytes message = fixtures::signedExportedLog(key.get(), {});
    setConsoleOutput(false);
    for (size_t cut = 0; cut + RAW_SIGNATURE_SIZE < message.size(); ++cut) {
        for (const fixtures::Bytes& claim : {fixtures::Bytes{0x84, 0x7F, 0xFF, 0xFF, 0xFF},
                                             fixtures::Bytes{0xFF}, fixtures::Bytes{}}) {
            fixtures::Bytes hostile(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(cut));
            hostile.insert(hostile.end(), claim.begin(), claim.end());
            hostile.shrink_to_fit();
            clearErrorMsg(ERROR_ALL);
            ASNToQrCode reader;
            try {
                reader.parse(hostile);
                ADD_FAILURE() << "accepted a message cut at " << cut;
            } catch (int code) {
                EXPECT_EQ(code, -1);
            }
            EXPECT_EQ(getErrorMsg(ERROR_LOG).rfind("[ERROR] Error parsing ASN.1 data. ERR: ", 0), 0u)
                << "cut at " << cut;
        }
    }
    setConsoleOutput(true);
}

}  // namespace
