#include "signature_cases.h"

#include <stdexcept>

#include <openssl/err.h>

#include "openssl_ptr.h"

namespace tse {
namespace {

using BnCtxPtr = OpenSslPtr<BN_CTX, BN_CTX_free>;

BignumPtr number(ByteView bytes)
{
    BignumPtr out(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    if (!out) throw std::bad_alloc();
    return out;
}

// The number in `size` octets; all 0xff when it does not fit, which is
// above the order as well.
Bytes octets(const BIGNUM* value, size_t size)
{
    Bytes out(size, 0xff);
    if (!BN_is_negative(value) && static_cast<size_t>(BN_num_bytes(value)) <= size) {
        BN_bn2binpad(value, out.data(), static_cast<int>(size));
    }
    return out;
}

Bytes randomBytes(std::mt19937_64& random, size_t size)
{
    Bytes out(size);
    for (uint8_t& byte : out) byte = static_cast<uint8_t>(random());
    return out;
}

}  // namespace

std::vector<SignatureCase> signatureCases(const Signer& signer, const Signer& other, std::mt19937_64& random)
{
    const PublicKey& key = signer.publicKey();
    const size_t half = key.curveInfo().fieldSize;
    const EcGroupPtr group(EC_GROUP_new_by_curve_name(key.curveInfo().nid));
    if (!group) throw std::bad_alloc();
    const BIGNUM* order = EC_GROUP_get0_order(group.get());
    const int orderBits = BN_num_bits(order);
    BnCtxPtr ctx(BN_CTX_new());
    const auto hash = static_cast<Hash>(random() % 8);
    const Bytes message = randomBytes(random, random() % 300);
    const Bytes signature = signer.signPlain(hash, message);
    const BignumPtr r = number(ByteView(signature).sub(0, half));
    const BignumPtr s = number(ByteView(signature).sub(half, half));

    std::vector<SignatureCase> cases;
    const auto add = [&](std::string kind, const BIGNUM* caseR, const BIGNUM* caseS) {
        Bytes bytes = octets(caseR, half);
        const Bytes sBytes = octets(caseS, half);
        bytes.insert(bytes.end(), sBytes.begin(), sBytes.end());
        cases.push_back(SignatureCase{std::move(kind), hash, message, false, std::move(bytes)});
    };
    const auto changed = [&](const BIGNUM* base, int delta, bool addOrder) {
        BignumPtr out(BN_dup(base));
        if (!out || (delta > 0 && !BN_add_word(out.get(), 1)) || (delta < 0 && !BN_sub_word(out.get(), 1)) ||
            (addOrder && !BN_add(out.get(), out.get(), order))) {
            throw std::bad_alloc();
        }
        return out;
    };
    BignumPtr zero(BN_new()), all(BN_new()), twin(BN_new());
    if (!zero || !all || !twin || !BN_sub(twin.get(), order, s.get())) throw std::bad_alloc();
    BN_zero(zero.get());

    add("valid", r.get(), s.get());
    add("s replaced by n - s (also valid)", r.get(), twin.get());
    add("r = 0", zero.get(), s.get());
    add("s = 0", r.get(), zero.get());
    add("r = n", order, s.get());
    add("s = n", r.get(), order);
    add("r + n", changed(r.get(), 0, true).get(), s.get());
    add("s + n", r.get(), changed(s.get(), 0, true).get());
    add("r + 1", changed(r.get(), 1, false).get(), s.get());
    add("r - 1", changed(r.get(), -1, false).get(), s.get());
    add("s + 1", r.get(), changed(s.get(), 1, false).get());
    add("s - 1", r.get(), changed(s.get(), -1, false).get());
    add("r and s swapped", s.get(), r.get());
    add("all ones", number(Bytes(half, 0xff)).get(), number(Bytes(half, 0xff)).get());
    const Bytes noise = randomBytes(random, 2 * half);
    cases.push_back(SignatureCase{"random r and s", hash, message, false, noise});

    Bytes otherMessage = message;
    otherMessage.push_back(static_cast<uint8_t>(random()));
    cases.push_back(SignatureCase{"another message", hash, otherMessage, false, signature});
    cases.push_back(SignatureCase{"another key", hash, message, false, other.signPlain(hash, message)});
    Bytes shorter = signature;
    shorter.pop_back();
    cases.push_back(SignatureCase{"one octet short", hash, message, false, shorter});

    // Hash values that make u1 zero: e = 0 and e = n, as many octets as the
    // order has (shifted as the truncation to the order's bits expects).
    const size_t orderBytes = static_cast<size_t>((orderBits + 7) / 8);
    const Bytes zeroHash(orderBytes, 0);
    cases.push_back(SignatureCase{"u1 = 0 (e = 0), valid", hash, zeroHash, true, signer.signDigestPlain(zeroHash)});
    BignumPtr shiftedOrder(BN_dup(order));
    if (!shiftedOrder || !BN_lshift(shiftedOrder.get(), shiftedOrder.get(), static_cast<int>(8 * orderBytes) - orderBits)) {
        throw std::bad_alloc();
    }
    const Bytes orderHash = octets(shiftedOrder.get(), orderBytes);
    cases.push_back(SignatureCase{"u1 = 0 (e = n), valid", hash, orderHash, true, signer.signDigestPlain(orderHash)});

    // R = u1·G + u2·Q = (e + r·d)/s · G is the point at infinity when
    // e = -r·d mod n, for any s.
    const BignumPtr d = number(signer.privateScalar());
    BignumPtr e(BN_new());
    if (!e || !BN_mod_mul(e.get(), r.get(), d.get(), order, ctx.get()) ||
        !BN_mod_sub(e.get(), order, e.get(), order, ctx.get()) ||
        !BN_lshift(e.get(), e.get(), static_cast<int>(8 * orderBytes) - orderBits)) {
        throw std::bad_alloc();
    }
    Bytes infinity = octets(r.get(), half);
    const Bytes sBytes = octets(s.get(), half);
    infinity.insert(infinity.end(), sBytes.begin(), sBytes.end());
    cases.push_back(SignatureCase{"sum at infinity", hash, octets(e.get(), orderBytes), true, infinity});
    return cases;
}

bool referenceVerdict(const PublicKey& key, const SignatureCase& signatureCase)
{
    const size_t half = key.curveInfo().fieldSize;
    if (signatureCase.signature.size() != 2 * half) return false;
    EcdsaSigPtr object(ECDSA_SIG_new());
    BignumPtr r = number(ByteView(signatureCase.signature).sub(0, half));
    BignumPtr s = number(ByteView(signatureCase.signature).sub(half, half));
    if (!object || ECDSA_SIG_set0(object.get(), r.get(), s.get()) != 1) throw std::bad_alloc();
    r.release();
    s.release();
    int result = 0;
    unsigned char* der = nullptr;
    const int size = i2d_ECDSA_SIG(object.get(), &der);
    if (size <= 0) throw std::bad_alloc();
    if (signatureCase.prehashed) {
        EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.evpKey(), nullptr));
        if (context && EVP_PKEY_verify_init(context.get()) == 1) {
            result = EVP_PKEY_verify(context.get(), der, static_cast<size_t>(size), signatureCase.data.data(),
                                     signatureCase.data.size());
        }
    } else {
        EvpMdCtxPtr md(EVP_MD_CTX_new());
        if (md && EVP_DigestVerifyInit(md.get(), nullptr, hashFunction(signatureCase.hash), nullptr, key.evpKey()) == 1) {
            result = EVP_DigestVerify(md.get(), der, static_cast<size_t>(size), signatureCase.data.data(),
                                      signatureCase.data.size());
        }
    }
    OPENSSL_free(der);
    ERR_clear_error();
    return result == 1;
}

}  // namespace tse
