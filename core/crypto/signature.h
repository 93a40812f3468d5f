#ifndef TSE_CORE_SIGNATURE_H
#define TSE_CORE_SIGNATURE_H

#include <memory>
#include <optional>

#include <openssl/ecdsa.h>

#include "algorithms.h"
#include "bytes.h"
#include "public_key.h"

namespace tse {

// Plain r || s of twice the curve's field size over the data's hash.
bool verifyPlain(const PublicKey& key, Hash hash, ByteView data, ByteView signature);
// A DER-encoded ECDSA-Sig-Value over the data's hash.
bool verifyDer(const PublicKey& key, Hash hash, ByteView data, ByteView signature);

// A signature decoded once, to be checked against many candidate messages
// (a search over log times) without decoding it each time. Copies share the
// decoded value, which is only ever read.
class DecodedSignature {
public:
    // r || s of twice the key's field size; nullopt for another size.
    static std::optional<DecodedSignature> plain(const PublicKey& key, ByteView signature);
    // A DER-encoded ECDSA-Sig-Value with nothing after it.
    static std::optional<DecodedSignature> der(ByteView signature);

    // Throws std::runtime_error when libcrypto fails (out of memory, say):
    // a check not done is neither valid nor invalid.
    bool verifies(const PublicKey& key, Hash hash, ByteView data) const;
    // r || s, each padded to `half` octets; empty when one does not fit.
    Bytes plainOctets(size_t half) const;

private:
    std::shared_ptr<const Bytes> der_;  // canonical DER
};

}  // namespace tse

#endif
