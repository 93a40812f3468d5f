#include "signature.h"

#include <openssl/err.h>

#include "openssl_ptr.h"

namespace tse {
namespace {

constexpr size_t MAX_DIGEST_SIZE = EVP_MAX_MD_SIZE;

bool digest(Hash hash, ByteView data, unsigned char* out, unsigned int& size)
{
    return EVP_Digest(data.data(), data.size(), out, &size, hashFunction(hash), nullptr) == 1;
}

bool verifySignatureObject(const PublicKey& key, Hash hash, ByteView data, const ECDSA_SIG* signature)
{
    unsigned char hashed[MAX_DIGEST_SIZE];
    unsigned int size = 0;
    if (!digest(hash, data, hashed, size)) return false;
    const int result = ECDSA_do_verify(hashed, static_cast<int>(size), signature, const_cast<EC_KEY*>(key.ecKey()));
    ERR_clear_error();
    return result == 1;
}

}  // namespace

std::optional<DecodedSignature> DecodedSignature::plain(const PublicKey& key, ByteView signature)
{
    const size_t half = key.curveInfo().fieldSize;
    if (signature.size() != 2 * half) return std::nullopt;
    EcdsaSigPtr object(ECDSA_SIG_new());
    BIGNUM* r = BN_bin2bn(signature.data(), static_cast<int>(half), nullptr);
    BIGNUM* s = BN_bin2bn(signature.data() + half, static_cast<int>(half), nullptr);
    if (!object || !r || !s || ECDSA_SIG_set0(object.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return std::nullopt;
    }
    DecodedSignature out;
    out.value_ = std::shared_ptr<ECDSA_SIG>(object.release(), ECDSA_SIG_free);
    return out;
}

std::optional<DecodedSignature> DecodedSignature::der(ByteView signature)
{
    const unsigned char* cursor = signature.data();
    EcdsaSigPtr object(d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(signature.size())));
    ERR_clear_error();
    if (!object || cursor != signature.end()) return std::nullopt;
    DecodedSignature out;
    out.value_ = std::shared_ptr<ECDSA_SIG>(object.release(), ECDSA_SIG_free);
    return out;
}

bool DecodedSignature::verifies(const PublicKey& key, Hash hash, ByteView data) const
{
    return value_ && verifySignatureObject(key, hash, data, value_.get());
}

Bytes DecodedSignature::plainOctets(size_t half) const
{
    if (!value_) return {};
    Bytes out(2 * half);
    const BIGNUM* r = ECDSA_SIG_get0_r(value_.get());
    const BIGNUM* s = ECDSA_SIG_get0_s(value_.get());
    if (BN_is_negative(r) || BN_is_negative(s) ||
        BN_bn2binpad(r, out.data(), static_cast<int>(half)) < 0 ||
        BN_bn2binpad(s, out.data() + half, static_cast<int>(half)) < 0) {
        return {};
    }
    return out;
}

bool verifyPlain(const PublicKey& key, Hash hash, ByteView data, ByteView signature)
{
    const std::optional<DecodedSignature> decoded = DecodedSignature::plain(key, signature);
    return decoded && decoded->verifies(key, hash, data);
}

bool verifyDer(const PublicKey& key, Hash hash, ByteView data, ByteView signature)
{
    const std::optional<DecodedSignature> decoded = DecodedSignature::der(signature);
    return decoded && decoded->verifies(key, hash, data);
}

}  // namespace tse
