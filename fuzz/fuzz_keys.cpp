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
    const tse::CertificateLoad load = tse::loadCertificates(input);
    if (load.certificates.empty() && load.error.empty()) std::abort();
    for (const tse::Certificate& certificate : load.certificates) {
        certificate.subject();
        certificate.issuer();
        certificate.notBefore();
        certificate.curveName();
        if (!certificate.key() && certificate.keyError().empty()) std::abort();
    }
    const tse::KeyResult key = tse::keyFromAnyEncoding(input);
    if (!key && key.message().empty()) std::abort();
    return 0;
}
