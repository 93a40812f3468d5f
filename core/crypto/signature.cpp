#include "signature.h"

#include <openssl/err.h>

#include <new>
#include <stdexcept>
#include <string>

#include "openssl_ptr.h"

namespace tse {
namespace {

constexpr size_t MAX_DIGEST_SIZE = EVP_MAX_MD_SIZE;

// libcrypto failing (out of memory, say) says nothing about the signature:
// the check is not done, which is no verdict.
[[noreturn]] void checkFailed(const char* step)
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    char reason[256] = "unknown reason";
    if (code != 0) ERR_error_string_n(code, reason, sizeof reason);
    throw std::runtime_error(std::string("libcrypto could not ") + step + ": " + reason);
}

void digest(Hash hash, ByteView data, unsigned char* out, unsigned int& size)
{
    if (EVP_Digest(data.data(), data.size(), out, &size, hashFunction(hash), nullptr) != 1)
        checkFailed("hash the data");
}

// The signature as canonical DER, which is what EVP_PKEY_verify takes.
std::shared_ptr<const Bytes> derOf(const ECDSA_SIG* signature)
{
    unsigned char* encoded = nullptr;
    const int size = i2d_ECDSA_SIG(signature, &encoded);
    if (size <= 0) return nullptr;
    auto out = std::make_shared<const Bytes>(encoded, encoded + size);
    OPENSSL_free(encoded);
    return out;
}

bool verifyDigest(const PublicKey& key, Hash hash, ByteView data, const Bytes& signature)
{
    unsigned char hashed[MAX_DIGEST_SIZE];
    unsigned int size = 0;
    digest(hash, data, hashed, size);
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.evpKey(), nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1) checkFailed("prepare the check");
    // Below zero is a signature libcrypto could not decode: not the data's.
    const int result = EVP_PKEY_verify(context.get(), signature.data(), signature.size(), hashed, size);
    ERR_clear_error();
    return result == 1;
}

}  // namespace

std::optional<DecodedSignature> DecodedSignature::plain(const PublicKey& key, ByteView signature)
{
    const size_t half = key.curveInfo().fieldSize;
    if (signature.size() != 2 * half) return std::nullopt;
    EcdsaSigPtr object(ECDSA_SIG_new());
    BignumPtr r(BN_bin2bn(signature.data(), static_cast<int>(half), nullptr));
    BignumPtr s(BN_bin2bn(signature.data() + half, static_cast<int>(half), nullptr));
    // Any r and s of the right size make a signature object; failing here
    // is libcrypto out of memory, not a verdict on the signature.
    if (!object || !r || !s || ECDSA_SIG_set0(object.get(), r.get(), s.get()) != 1) throw std::bad_alloc();
    // The signature object owns them now.
    static_cast<void>(r.release());
    static_cast<void>(s.release());
    DecodedSignature out;
    out.der_ = derOf(object.get());
    if (!out.der_) throw std::bad_alloc();
    return out;
}

std::optional<DecodedSignature> DecodedSignature::der(ByteView signature)
{
    const unsigned char* cursor = signature.data();
    EcdsaSigPtr object(d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(signature.size())));
    ERR_clear_error();
    if (!object || cursor != signature.end()) return std::nullopt;
    DecodedSignature out;
    out.der_ = derOf(object.get());
    if (!out.der_) return std::nullopt;
    return out;
}

bool DecodedSignature::verifies(const PublicKey& key, Hash hash, ByteView data) const
{
    return der_ && verifyDigest(key, hash, data, *der_);
}

Bytes DecodedSignature::plainOctets(size_t half) const
{
    if (!der_) return {};
    const unsigned char* cursor = der_->data();
    EcdsaSigPtr value(d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(der_->size())));
    ERR_clear_error();
    if (!value) return {};
    Bytes out(2 * half);
    const BIGNUM* r = ECDSA_SIG_get0_r(value.get());
    const BIGNUM* s = ECDSA_SIG_get0_s(value.get());
    if (BN_is_negative(r) || BN_is_negative(s) || BN_bn2binpad(r, out.data(), static_cast<int>(half)) < 0 ||
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
