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

}  // namespace tse

#endif
