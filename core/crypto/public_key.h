#ifndef TSE_CORE_PUBLIC_KEY_H
#define TSE_CORE_PUBLIC_KEY_H

#include <memory>
#include <optional>
#include <string>

#include <openssl/ec.h>
#include <openssl/evp.h>

#include "algorithms.h"
#include "bytes.h"
#include "result.h"

namespace tse {

// An EC public key on one of the supported curves. Copies share the
// libcrypto object, which is only ever read, so one key serves many threads.
class PublicKey {
public:
    Curve curve() const { return curve_; }
    const CurveInfo& curveInfo() const { return tse::curveInfo(curve_); }
    // The uncompressed point 04 || X || Y.
    const Bytes& point() const { return point_; }
    // The TSE serial number: the SHA-256 of the uncompressed point.
    const Bytes& serialNumber() const { return serial_; }
    EVP_PKEY* evpKey() const { return evpKey_.get(); }

    // Takes a reference of its own; fails for anything but an EC key on a
    // supported named curve.
    static Result<PublicKey> fromEvp(EVP_PKEY* key);

private:
    PublicKey() = default;  // only fromEvp makes one, and only with a key

    Curve curve_ = Curve::Secp256r1;
    Bytes point_;
    Bytes serial_;
    std::shared_ptr<EVP_PKEY> evpKey_;
};

// A raw point, uncompressed (04...) or compressed (02.../03...), on the given
// curve, or on the one supported curve of its size that it lies on.
Result<PublicKey> keyFromPoint(ByteView point, std::optional<Curve> curve = std::nullopt);
// A SubjectPublicKeyInfo in DER or PEM.
Result<PublicKey> keyFromSubjectPublicKeyInfo(ByteView data);
// Whatever a receipt or a user hands over: a raw point or a
// SubjectPublicKeyInfo (DER), told apart by their first octet.
Result<PublicKey> keyFromAnyEncoding(ByteView data);

}  // namespace tse

#endif
