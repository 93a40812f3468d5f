// Bytes read as the certificates of a TSE (PEM, several, or DER) and as a
// public key in any encoding a receipt or a user hands over.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "certificate.h"
#include "public_key.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<uint8_t> input(data, data + size);
    const tse::Result<std::vector<tse::Certificate>> load = tse::loadCertificates(input);
    if (!load && load.error().message.empty()) std::abort();
    if (load && load->empty()) std::abort();
    for (const tse::Certificate& certificate : load.value_or({})) {
        certificate.subject();
        certificate.issuer();
        certificate.notBefore();
        certificate.curveName();
        if (!certificate.key() && certificate.key().error().message.empty()) std::abort();
    }
    const tse::Result<tse::PublicKey> key = tse::keyFromAnyEncoding(input);
    if (!key && key.error().message.empty()) std::abort();
    return 0;
}
