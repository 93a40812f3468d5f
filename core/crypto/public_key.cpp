#include "public_key.h"

#include <utility>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "openssl_ptr.h"
#include "text.h"

namespace tse {
namespace {

constexpr uint8_t UNCOMPRESSED = 0x04;
constexpr uint8_t COMPRESSED_EVEN = 0x02;
constexpr uint8_t COMPRESSED_ODD = 0x03;
constexpr uint8_t DER_SEQUENCE = 0x30;
// Far above any key with its PEM armour, and within what libcrypto's int
// lengths can hold.
constexpr size_t MAX_KEY_ENCODING_SIZE = 1u << 20;

Result<PublicKey> fail(const std::string& error)
{
    return Error{error, std::nullopt};
}

bool pointFits(ByteView point, const CurveInfo& info)
{
    const bool uncompressed = point[0] == UNCOMPRESSED && point.size() == 1 + 2 * info.fieldSize;
    const bool compressed =
        (point[0] == COMPRESSED_EVEN || point[0] == COMPRESSED_ODD) && point.size() == 1 + info.fieldSize;
    return uncompressed || compressed;
}

Bytes uncompressedPoint(const EC_GROUP* group, const EC_POINT* point)
{
    Bytes octets(EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, nullptr));
    if (octets.empty() || EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, octets.data(), octets.size(),
                                             nullptr) != octets.size()) {
        return {};
    }
    return octets;
}

// The key when the point lies on the curve, else nullptr. The point is
// decoded and checked here (on the curve, not at infinity) before libcrypto
// builds a key of it.
EvpPkeyPtr keyOnCurve(ByteView point, const CurveInfo& info)
{
    EcGroupPtr group(EC_GROUP_new_by_curve_name(info.nid));
    EcPointPtr decoded(group ? EC_POINT_new(group.get()) : nullptr);
    if (!decoded) throw std::bad_alloc();
    if (EC_POINT_oct2point(group.get(), decoded.get(), point.data(), point.size(), nullptr) != 1 ||
        EC_POINT_is_at_infinity(group.get(), decoded.get()) == 1 ||
        EC_POINT_is_on_curve(group.get(), decoded.get(), nullptr) != 1) {
        throwIfOutOfMemory();
        return nullptr;
    }
    Bytes octets = uncompressedPoint(group.get(), decoded.get());
    if (octets.empty()) throw std::bad_alloc();
    std::string groupName = OBJ_nid2sn(info.nid);
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, groupName.data(), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, octets.data(), octets.size()),
        OSSL_PARAM_construct_end()};
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* made = nullptr;
    if (!context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &made, EVP_PKEY_PUBLIC_KEY, const_cast<OSSL_PARAM*>(params)) != 1) {
        throwIfOutOfMemory();
        return nullptr;
    }
    EvpPkeyPtr key(made);
    EvpPkeyCtxPtr check(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    if (!check || EVP_PKEY_public_check(check.get()) != 1) {
        throwIfOutOfMemory();
        return nullptr;
    }
    return key;
}

// The curve of an EC key: its group name, or for a key with the curve's
// parameters spelt out, the named curve those parameters are.
int curveNid(EVP_PKEY* key)
{
    char name[80] = {};
    size_t length = 0;
    if (EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, name, sizeof name, &length) == 1) {
        const int nid = OBJ_sn2nid(name);
        return nid != NID_undef ? nid : EC_curve_nist2nid(name);
    }
    OSSL_PARAM* params = nullptr;
    if (EVP_PKEY_todata(key, EVP_PKEY_KEY_PARAMETERS, &params) != 1) return NID_undef;
    EcGroupPtr group(EC_GROUP_new_from_params(params, nullptr, nullptr));
    OSSL_PARAM_free(params);
    return group ? EC_GROUP_get_curve_name(group.get()) : NID_undef;
}

// The key's point as 04 || X || Y, whichever form the key was made from.
Bytes uncompressedPoint(EVP_PKEY* key, int nid)
{
    size_t size = 0;
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, &size) != 1 || size == 0) return {};
    Bytes encoded(size);
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, encoded.data(), encoded.size(), &size) != 1) {
        return {};
    }
    encoded.resize(size);
    EcGroupPtr group(EC_GROUP_new_by_curve_name(nid));
    EcPointPtr point(group ? EC_POINT_new(group.get()) : nullptr);
    if (!point || EC_POINT_oct2point(group.get(), point.get(), encoded.data(), encoded.size(), nullptr) != 1) return {};
    return uncompressedPoint(group.get(), point.get());
}

std::string tagNameForPoint(uint8_t first)
{
    static const char* digits = "0123456789ABCDEF";
    return std::string("0x") + digits[first >> 4] + digits[first & 15];
}

}  // namespace

Result<PublicKey> PublicKey::fromEvp(EVP_PKEY* key)
{
    if (key == nullptr || EVP_PKEY_base_id(key) != EVP_PKEY_EC) {
        return fail("the key is not an EC key");
    }
    const int nid = curveNid(key);
    const CurveInfo* info = curveByNid(nid);
    if (info == nullptr) {
        return fail(nid == NID_undef ? "the key's curve is not a named curve"
                                     : std::string("the key lies on ") + OBJ_nid2sn(nid) + ", which no TSE uses");
    }
    PublicKey out;
    out.curve_ = info->curve;
    out.point_ = uncompressedPoint(key, nid);
    if (out.point_.empty()) {
        return fail("the key's point cannot be encoded");
    }
    out.serial_ = sha256(out.point_);
    EVP_PKEY_up_ref(key);
    out.evpKey_ = std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free);
    return out;
}

Result<PublicKey> keyFromPoint(ByteView point, std::optional<Curve> curve)
{
    if (point.empty()) return fail("the public key is empty");
    bool sizeFits = false;
    std::vector<std::pair<const CurveInfo*, EvpPkeyPtr>> found;
    for (const CurveInfo& info : supportedCurves()) {
        if ((curve && info.curve != *curve) || !pointFits(point, info)) continue;
        sizeFits = true;
        if (EvpPkeyPtr evp = keyOnCurve(point, info)) found.emplace_back(&info, std::move(evp));
    }
    ERR_clear_error();  // the curves the point is not on leave their reasons behind
    if (!sizeFits) {
        return fail("a public key point of " + counted(point.size(), "byte", "bytes") + " starting with " +
                    tagNameForPoint(point[0]) + " fits no supported curve");
    }
    if (found.empty()) {
        return fail(curve ? "the point does not lie on " + std::string(curveInfo(*curve).displayName)
                          : "the point lies on none of the supported curves of its size");
    }
    // About half of all x coordinates give a point on both curves of a size,
    // so a compressed point alone cannot tell them apart; guessing would
    // give a key with another serial number.
    if (found.size() > 1) {
        return fail("the point lies on both " + std::string(found[0].first->displayName) + " and " +
                    std::string(found[1].first->displayName) + "; the curve must be named");
    }
    return PublicKey::fromEvp(found[0].second.get());
}

Result<PublicKey> keyFromSubjectPublicKeyInfo(ByteView data)
{
    if (data.size() > MAX_KEY_ENCODING_SIZE) return fail("the data is too large for a public key");
    EvpPkeyPtr evp;
    if (!data.empty() && data[0] == DER_SEQUENCE) {
        const unsigned char* cursor = data.data();
        evp.reset(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(data.size())));
    } else {
        BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
        if (bio) evp.reset(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    }
    ERR_clear_error();
    if (!evp) return fail("the data is not a SubjectPublicKeyInfo");
    return PublicKey::fromEvp(evp.get());
}

Result<PublicKey> keyFromAnyEncoding(ByteView data)
{
    if (!data.empty() && data[0] == DER_SEQUENCE) {
        return keyFromSubjectPublicKeyInfo(data);
    }
    return keyFromPoint(data);
}

}  // namespace tse
