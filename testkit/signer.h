#ifndef TSE_TESTKIT_SIGNER_H
#define TSE_TESTKIT_SIGNER_H

#include <memory>
#include <string>

#include <openssl/ec.h>

#include "algorithms.h"
#include "bytes.h"
#include "log_encoder.h"
#include "public_key.h"

namespace tse {

// A private key that signs as a TSE does. For generators, tests and
// benchmarks: the product itself only ever verifies.
class Signer {
public:
    // A fresh key on the curve.
    explicit Signer(Curve curve);
    // A key from a PEM private key text; throws std::runtime_error when the
    // text holds none on a supported curve.
    static Signer fromPem(const std::string& pem);

    const PublicKey& publicKey() const { return publicKey_; }
    // r || s, each padded to the curve's field size.
    Bytes signPlain(Hash hash, ByteView data) const;
    Bytes signDer(Hash hash, ByteView data) const;
    // r || s over a given hash value, which may be any bytes: tests choose
    // values such as zero or the group order.
    Bytes signDigestPlain(ByteView hashed) const;
    // d, padded to the field size, for tests that make signatures with
    // chosen properties (a sum at infinity).
    Bytes privateScalar() const;
    std::string privateKeyPem() const;
    // A self-signed certificate for the key, valid from notBefore for the
    // given days, in PEM.
    std::string selfSignedCertificatePem(const std::string& commonName, int64_t notBefore, int days) const;
    // A certificate for this key that `issuer` signs as `issuerName`, the
    // name the issuer's own certificate carries.
    std::string issuedCertificatePem(const std::string& commonName, const Signer& issuer, const std::string& issuerName,
                                     int64_t notBefore, int days) const;

private:
    explicit Signer(EC_KEY* key);  // takes it over

    std::shared_ptr<EC_KEY> key_;
    PublicKey publicKey_;
};

// The receipt QR code text of a Finish transaction that the signer signs
// now, with a unixTime log time: what a cash register prints, for tests and
// benchmarks. The transaction's processData is taken as text.
std::string signedReceiptText(const Signer& signer, Hash hash, const TransactionData& transaction,
                              uint64_t signatureCounter, int64_t startTime, int64_t logTime);

}  // namespace tse

#endif
