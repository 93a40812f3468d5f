#include "algorithms.h"

#include <algorithm>
#include <cctype>

#include <openssl/obj_mac.h>

#include "text.h"

namespace tse {
namespace {

struct HashInfo {
    Hash hash;
    std::string_view name;
    std::string_view plainName;  // as it follows "SHA" in aliases: "256", "3-256"
};

constexpr HashInfo HASHES[] = {
    {Hash::Sha224, "SHA224", "224"},       {Hash::Sha256, "SHA256", "256"},       {Hash::Sha384, "SHA384", "384"},
    {Hash::Sha512, "SHA512", "512"},       {Hash::Sha3_224, "SHA3-224", "3-224"}, {Hash::Sha3_256, "SHA3-256", "3-256"},
    {Hash::Sha3_384, "SHA3-384", "3-384"}, {Hash::Sha3_512, "SHA3-512", "3-512"},
};

bool isSha3(Hash hash)
{
    return hash >= Hash::Sha3_224;
}

}  // namespace

// Compared in place: file names and operations are checked this way for
// every log of an export.
std::string_view hashName(Hash hash)
{
    return HASHES[static_cast<int>(hash)].name;
}

// Fetched once: a fetch on every digest takes a lock in libcrypto and costs
// more than hashing a log message. The table never changes after that.
const EVP_MD* hashFunction(Hash hash)
{
    struct FetchedDigests {
        EVP_MD* digests[8] = {};
        FetchedDigests()
        {
            for (const HashInfo& info : HASHES) {
                digests[static_cast<int>(info.hash)] = EVP_MD_fetch(nullptr, std::string(info.name).c_str(), nullptr);
            }
        }
        ~FetchedDigests()
        {
            for (EVP_MD* md : digests) EVP_MD_free(md);
        }
    };
    static const FetchedDigests fetched;
    return fetched.digests[static_cast<int>(hash)];
}

std::vector<Hash> sameFamily(Hash hash)
{
    std::vector<Hash> family;
    for (const HashInfo& info : HASHES) {
        if (isSha3(info.hash) == isSha3(hash)) family.push_back(info.hash);
    }
    return family;
}

const std::vector<CurveInfo>& supportedCurves()
{
    static const std::vector<CurveInfo> curves = {
        {Curve::BrainpoolP256r1, "brainpoolP256r1", "brainpoolP256r1", NID_brainpoolP256r1, 32},
        {Curve::BrainpoolP384r1, "brainpoolP384r1", "brainpoolP384r1", NID_brainpoolP384r1, 48},
        {Curve::BrainpoolP512r1, "brainpoolP512r1", "brainpoolP512r1", NID_brainpoolP512r1, 64},
        {Curve::Secp256r1, "prime256v1", "secp256r1", NID_X9_62_prime256v1, 32},
        {Curve::Secp384r1, "secp384r1", "secp384r1", NID_secp384r1, 48},
        {Curve::Secp521r1, "secp521r1", "secp521r1", NID_secp521r1, 66},
    };
    return curves;
}

const CurveInfo& curveInfo(Curve curve)
{
    return supportedCurves()[static_cast<size_t>(curve)];
}

const CurveInfo* curveByNid(int nid)
{
    for (const CurveInfo& info : supportedCurves()) {
        if (info.nid == nid) return &info;
    }
    return nullptr;
}

const std::vector<SignatureAlgorithm>& signatureAlgorithms()
{
    static const std::vector<SignatureAlgorithm> algorithms = {
        {Scheme::EcdsaPlain, Hash::Sha224, "0.4.0.127.0.7.1.1.4.1.2", "ecdsa-plain-SHA224", true},
        {Scheme::EcdsaPlain, Hash::Sha256, "0.4.0.127.0.7.1.1.4.1.3", "ecdsa-plain-SHA256", true},
        {Scheme::EcdsaPlain, Hash::Sha384, "0.4.0.127.0.7.1.1.4.1.4", "ecdsa-plain-SHA384", true},
        {Scheme::EcdsaPlain, Hash::Sha512, "0.4.0.127.0.7.1.1.4.1.5", "ecdsa-plain-SHA512", true},
        {Scheme::EcdsaPlain, Hash::Sha3_224, "0.4.0.127.0.7.1.1.4.1.8", "ecdsa-plain-SHA3-224", true},
        {Scheme::EcdsaPlain, Hash::Sha3_256, "0.4.0.127.0.7.1.1.4.1.9", "ecdsa-plain-SHA3-256", true},
        {Scheme::EcdsaPlain, Hash::Sha3_384, "0.4.0.127.0.7.1.1.4.1.10", "ecdsa-plain-SHA3-384", true},
        {Scheme::EcdsaPlain, Hash::Sha3_512, "0.4.0.127.0.7.1.1.4.1.11", "ecdsa-plain-SHA3-512", true},
        {Scheme::EcsdsaPlain, Hash::Sha224, "0.4.0.127.0.7.1.1.4.4.1", "ecsdsa-plain-SHA224", false},
        {Scheme::EcsdsaPlain, Hash::Sha256, "0.4.0.127.0.7.1.1.4.4.2", "ecsdsa-plain-SHA256", false},
        {Scheme::EcsdsaPlain, Hash::Sha384, "0.4.0.127.0.7.1.1.4.4.3", "ecsdsa-plain-SHA384", false},
        {Scheme::EcsdsaPlain, Hash::Sha512, "0.4.0.127.0.7.1.1.4.4.4", "ecsdsa-plain-SHA512", false},
        {Scheme::EcsdsaPlain, Hash::Sha3_224, "0.4.0.127.0.7.1.1.4.4.5", "ecsdsa-plain-SHA3-224", false},
        {Scheme::EcsdsaPlain, Hash::Sha3_256, "0.4.0.127.0.7.1.1.4.4.6", "ecsdsa-plain-SHA3-256", false},
        {Scheme::EcsdsaPlain, Hash::Sha3_384, "0.4.0.127.0.7.1.1.4.4.7", "ecsdsa-plain-SHA3-384", false},
        {Scheme::EcsdsaPlain, Hash::Sha3_512, "0.4.0.127.0.7.1.1.4.4.8", "ecsdsa-plain-SHA3-512", false},
    };
    return algorithms;
}

const SignatureAlgorithm* algorithmByOid(std::string_view dottedOid)
{
    for (const SignatureAlgorithm& algorithm : signatureAlgorithms()) {
        if (algorithm.oid == dottedOid) return &algorithm;
    }
    return nullptr;
}

std::string_view algorithmName(std::string_view dottedOid)
{
    const SignatureAlgorithm* algorithm = algorithmByOid(dottedOid);
    return algorithm ? algorithm->name : dottedOid;
}

const SignatureAlgorithm* algorithmByName(std::string_view name)
{
    const std::string wanted = asciiLower(name);
    for (const SignatureAlgorithm& algorithm : signatureAlgorithms()) {
        if (asciiLower(algorithm.name) == wanted) return &algorithm;
        if (algorithm.scheme != Scheme::EcdsaPlain) continue;
        const std::string digits(HASHES[static_cast<int>(algorithm.hash)].plainName);
        const std::string dashless = isSha3(algorithm.hash) ? "3" + digits.substr(2) : digits;
        for (const std::string& alias :
             {"sha" + digits + "withecdsa", "sha" + dashless + "withecdsa", "ecdsa-with-sha" + digits,
              "ecdsa-with-sha" + dashless, "ecdsa-plain-sha" + dashless}) {
            if (alias == wanted) return &algorithm;
        }
    }
    return nullptr;
}

const SignatureAlgorithm& ecdsaPlain(Hash hash)
{
    return signatureAlgorithms()[static_cast<size_t>(hash)];
}

}  // namespace tse
