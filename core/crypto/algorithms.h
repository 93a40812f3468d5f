#ifndef TSE_CORE_ALGORITHMS_H
#define TSE_CORE_ALGORITHMS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

#include "text.h"

namespace tse {

enum class Hash { Sha224, Sha256, Sha384, Sha512, Sha3_224, Sha3_256, Sha3_384, Sha3_512 };

std::string_view hashName(Hash hash);  // "SHA384", "SHA3-256"
const EVP_MD* hashFunction(Hash hash);
// The hashes of the same family (SHA-2 or SHA-3) as the given one.
std::vector<Hash> sameFamily(Hash hash);

enum class Curve { BrainpoolP256r1, BrainpoolP384r1, BrainpoolP512r1, Secp256r1, Secp384r1, Secp521r1 };

struct CurveInfo {
    Curve curve;
    std::string_view name;         // OpenSSL's short name, e.g. "prime256v1"
    std::string_view displayName;  // "secp256r1", "brainpoolP384r1"
    int nid;
    size_t fieldSize;  // octets of one coordinate, and of r and of s
};

const std::vector<CurveInfo>& supportedCurves();
const CurveInfo& curveInfo(Curve curve);
// Looks up a curve by OpenSSL NID; nullptr for one the tool does not support.
const CurveInfo* curveByNid(int nid);

enum class Scheme { EcdsaPlain, EcsdsaPlain };

struct SignatureAlgorithm {
    Scheme scheme;
    Hash hash;
    std::string_view oid;
    std::string_view name;  // "ecdsa-plain-SHA384", as receipts name it
    bool supported;         // ECSDSA is recognised but not verified
};

const std::vector<SignatureAlgorithm>& signatureAlgorithms();
const SignatureAlgorithm* algorithmByOid(std::string_view dottedOid);
// What a report calls the algorithm with this OID: its name, or the OID
// itself when no TSE algorithm has it. A view of the argument then.
std::string_view algorithmName(std::string_view dottedOid);
// Accepts the names receipts use ("ecdsa-plain-SHA256") and the aliases seen
// in the field ("SHA256withECDSA", "ecdsa-with-SHA256"), regardless of case.
const SignatureAlgorithm* algorithmByName(std::string_view name);
const SignatureAlgorithm& ecdsaPlain(Hash hash);

}  // namespace tse

#endif
