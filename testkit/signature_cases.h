#ifndef TSE_TESTKIT_SIGNATURE_CASES_H
#define TSE_TESTKIT_SIGNATURE_CASES_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "key_verifier.h"
#include "signer.h"

namespace tse {

// One signature for the differential check of KeyVerifier against
// libcrypto: valid ones and every kind of broken one.
struct SignatureCase {
    std::string kind;  // "valid", "r = n", "sum at infinity", ...
    Hash hash = Hash::Sha256;
    Bytes data;  // the message, or the hash value when prehashed
    bool prehashed = false;
    Bytes signature;  // r || s

    SignatureCheck check() const { return SignatureCheck{hash, data, signature, prehashed}; }
};

// Some twenty cases under `signer`'s key with a random message and hash;
// `other` (a key on the same curve) signs the case of another key.
std::vector<SignatureCase> signatureCases(const Signer& signer, const Signer& other, std::mt19937_64& random);

// libcrypto's verdict: EVP_DigestVerify on the DER form of r and s, or
// ECDSA_do_verify for a given hash value.
bool referenceVerdict(const PublicKey& key, const SignatureCase& signatureCase);

// A valid signature whose point R = u1·G + u2·Q has an x of at least the
// order n, so that r = x(R) - n: R is picked first (x in [n, p), which
// only curves with p > n have, as all six do), then any s and message,
// and the key solved for as Q = u2^-1·(R - u1·G). Over SHA-256, whose
// value is never longer than the order.
struct CraftedSignature {
    PublicKey key;
    SignatureCase signatureCase;
};
CraftedSignature signatureWithLargeX(Curve curve, std::mt19937_64& random);

// A fixed key on secp256r1 or brainpoolP256r1 whose x lies on the other
// curve too, so that its compressed point stands for a key on either.
Signer signerWithTwinX(Curve curve);

}  // namespace tse

#endif
