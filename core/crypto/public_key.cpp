#include "public_key.h"

#include <utility>
#include <vector>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "openssl_ptr.h"

namespace tse {
namespace {

constexpr uint8_t UNCOMPRESSED = 0x04;
constexpr uint8_t COMPRESSED_EVEN = 0x02;
constexpr uint8_t COMPRESSED_ODD = 0x03;
constexpr uint8_t DER_SEQUENCE = 0x30;
// Far above any key with its PEM armour, and within what libcrypto's int
// lengths can hold.
constexpr size_t MAX_KEY_ENCODING_SIZE = 1u << 20;

KeyResult fail(const std::string& error)
{
    return KeyResult{std::nullopt, error};
}

bool pointFits(ByteView point, const CurveInfo& info)
{
    const bool uncompressed = point[0] == UNCOMPRESSED && point.size() == 1 + 2 * info.fieldSize;
    const bool compressed = (point[0] == COMPRESSED_EVEN || point[0] == COMPRESSED_ODD) &&
                            point.size() == 1 + info.fieldSize;
    return uncompressed || compressed;
}

// The key when the point lies on the curve, else nullptr.
EvpPkeyPtr keyOnCurve(ByteView point, const CurveInfo& info)
{
    EcKeyPtr key(EC_KEY_new_by_curve_name(info.nid));
    if (!key) return nullptr;
    const EC_GROUP* group = EC_KEY_get0_group(key.get());
    EcPointPtr decoded(EC_POINT_new(group));
    if (!decoded || EC_POINT_oct2point(group, decoded.get(), point.data(), point.size(), nullptr) != 1 ||
        EC_KEY_set_public_key(key.get(), decoded.get()) != 1 || EC_KEY_check_key(key.get()) != 1) {
        return nullptr;
    }
    EvpPkeyPtr evp(EVP_PKEY_new());
    if (!evp || EVP_PKEY_set1_EC_KEY(evp.get(), key.get()) != 1) return nullptr;
    return evp;
}

Bytes uncompressedPoint(const EC_KEY* key)
{
    const EC_GROUP* group = EC_KEY_get0_group(key);
    const EC_POINT* point = EC_KEY_get0_public_key(key);
    Bytes octets(EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, nullptr));
    if (octets.empty() ||
        EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, octets.data(), octets.size(), nullptr) !=
            octets.size()) {
        return {};
    }
    return octets;
}

std::string tagNameForPoint(uint8_t first)
{
    static const char* digits = "0123456789ABCDEF";
    return std::string("0x") + digits[first >> 4] + digits[first & 15];
}

}  // namespace

std::optional<PublicKey> PublicKey::fromEvp(EVP_PKEY* key, std::string& error)
{
    if (key == nullptr || EVP_PKEY_base_id(key) != EVP_PKEY_EC) {
        error = "the key is not an EC key";
        return std::nullopt;
    }
    EC_KEY* ec = EVP_PKEY_get1_EC_KEY(key);
    std::shared_ptr<EC_KEY> owned(ec, EC_KEY_free);
    const EC_GROUP* group = ec ? EC_KEY_get0_group(ec) : nullptr;
    const int nid = group ? EC_GROUP_get_curve_name(group) : NID_undef;
    const CurveInfo* info = curveByNid(nid);
    if (info == nullptr) {
        error = nid == NID_undef ? "the key's curve is not a named curve"
                                 : std::string("the key lies on ") + OBJ_nid2sn(nid) + ", which no TSE uses";
        return std::nullopt;
    }
    PublicKey out;
    out.curve_ = info->curve;
    out.point_ = uncompressedPoint(ec);
    if (out.point_.empty()) {
        error = "the key's point cannot be encoded";
        return std::nullopt;
    }
    out.serial_ = sha256(out.point_);
    out.ecKey_ = std::move(owned);
    EVP_PKEY_up_ref(key);
    out.evpKey_ = std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free);
    return out;
}

KeyResult keyFromPoint(ByteView point, std::optional<Curve> curve)
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
        return fail("a public key point of " + std::to_string(point.size()) + " bytes starting with " +
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
    std::string error;
    std::optional<PublicKey> key = PublicKey::fromEvp(found[0].second.get(), error);
    return KeyResult{key, error};
}

KeyResult keyFromSubjectPublicKeyInfo(ByteView data)
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
    std::string error;
    std::optional<PublicKey> key = PublicKey::fromEvp(evp.get(), error);
    return KeyResult{key, error};
}

KeyResult keyFromAnyEncoding(ByteView data)
{
    if (!data.empty() && data[0] == DER_SEQUENCE) {
        return keyFromSubjectPublicKeyInfo(data);
    }
    return keyFromPoint(data);
}

}  // namespace tse
