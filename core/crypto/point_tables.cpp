#include "point_tables.h"

#include <algorithm>
#include <cstdint>
#include <new>

#include <openssl/err.h>

namespace tse {
namespace {

// Computes the multiples window by window, in Jacobian form.
bool jacobianMultiples(const Comb& comb, const EC_GROUP* group, const EC_POINT* base, BN_CTX* ctx,
                       std::vector<EcPointPtr>& work)
{
    work.reserve(comb.size());
    EcPointPtr window(EC_POINT_dup(base, group));
    if (!window) return false;
    for (size_t i = 0; i < comb.windows(); ++i) {
        for (size_t d = 1; d <= comb.entries[i]; ++d) {
            EcPointPtr point(d == 1 ? EC_POINT_dup(window.get(), group) : EC_POINT_new(group));
            if (!point) return false;
            if (d > 1 && EC_POINT_add(group, point.get(), work.back().get(), window.get(), ctx) != 1) return false;
            work.push_back(std::move(point));
        }
        for (unsigned k = 0; k < comb.bits && i + 1 < comb.windows(); ++k) {
            if (EC_POINT_dbl(group, window.get(), window.get(), ctx) != 1) return false;
        }
    }
    return true;
}

}  // namespace

BignumPtr newBignum()
{
    BignumPtr number(BN_new());
    if (!number) throw std::bad_alloc();
    return number;
}

EcPointPtr newPoint(const EC_GROUP* group)
{
    EcPointPtr point(EC_POINT_new(group));
    if (!point) throw std::bad_alloc();
    return point;
}

int makeAffine(const EC_GROUP* group, size_t count, EC_POINT** points, BN_CTX* ctx)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return EC_POINTs_make_affine(group, count, points, ctx);
#pragma GCC diagnostic pop
}

void signedDigits(const unsigned char* bigEndian, size_t size, unsigned bits, int* digits, size_t count)
{
    const int full = 1 << bits, half = full >> 1;
    int carry = 0;
    for (size_t i = 0; i + 1 < count; ++i) {
        // Three bytes hold any `bits` bits that start within the first.
        const size_t bit = i * bits;
        uint32_t window = 0;
        for (size_t k = 0; k < 3; ++k) {
            const size_t byte = bit / 8 + k;
            if (byte < size) window |= uint32_t{bigEndian[size - 1 - byte]} << (8 * k);
        }
        const int value = static_cast<int>((window >> (bit % 8)) & static_cast<uint32_t>(full - 1)) + carry;
        carry = value > half ? 1 : 0;
        digits[i] = value - carry * full;
    }
    digits[count - 1] = carry;
}

Comb::Comb(unsigned digitBits, int orderBits) : bits(digitBits)
{
    const size_t scalarBits = static_cast<size_t>(orderBits);
    const size_t windows = (scalarBits + bits - 1) / bits + 1;
    const size_t half = size_t{1} << (bits - 1);
    for (size_t i = 0; i < windows; ++i) {
        size_t count = half;
        if (i == windows - 1) count = 1;
        else if (i == windows - 2) count = std::min(half, size_t{1} << (scalarBits - bits * i));
        offsets.push_back(i == 0 ? 0 : offsets.back() + entries.back());
        entries.push_back(count);
    }
}

bool Comb::build(const EC_GROUP* group, const EC_POINT* base, BN_CTX* ctx)
{
    std::vector<EcPointPtr> work;
    if (!jacobianMultiples(*this, group, base, ctx, work)) return false;
    std::vector<EC_POINT*> raw;
    raw.reserve(work.size());
    for (EcPointPtr& point : work) raw.push_back(point.get());
    if (makeAffine(group, raw.size(), raw.data(), ctx) != 1) return false;
    // Copies of the affine points take no more memory than they need;
    // the results of the field arithmetic keep room for twice as much.
    points.reserve(work.size());
    for (EcPointPtr& point : work) {
        points.emplace_back(EC_POINT_dup(point.get(), group));
        if (!points.back()) return false;
        point.reset();
    }
    return true;
}

bool Comb::addTo(const EC_GROUP* group, const int* digits, EC_POINT* sum, bool& empty, BN_CTX* ctx) const
{
    for (size_t window = 0; window < windows(); ++window) {
        const int digit = digits[window];
        if (digit == 0) continue;
        const EC_POINT* point = points[offsets[window] + static_cast<size_t>(digit < 0 ? -digit : digit) - 1].get();
        if (empty) {
            if (EC_POINT_copy(sum, point) != 1 || (digit < 0 && EC_POINT_invert(group, sum, ctx) != 1)) return false;
            empty = false;
            continue;
        }
        // sum - P is -((-sum) + P): two negations, which cost next to
        // nothing, instead of a table of negative multiples.
        if (digit < 0 && EC_POINT_invert(group, sum, ctx) != 1) return false;
        if (EC_POINT_add(group, sum, sum, point, ctx) != 1) return false;
        if (digit < 0 && EC_POINT_invert(group, sum, ctx) != 1) return false;
    }
    return true;
}

size_t bytesPerPoint(const CurveInfo& curve)
{
    const size_t words = (curve.fieldSize + 7) / 8;
    return 64 + 3 * (32 + 16 * ((words * 8 + 8 + 15) / 16));
}

std::optional<CurveGroup> CurveGroup::of(const CurveInfo& curve)
{
    CurveGroup out;
    out.group.reset(EC_GROUP_new_by_curve_name(curve.nid));
    out.order.reset(out.group ? BN_dup(EC_GROUP_get0_order(out.group.get())) : nullptr);
    if (!out.group || !out.order) {
        ERR_clear_error();
        return std::nullopt;
    }
    out.orderBits = BN_num_bits(out.order.get());
    out.orderBytes = static_cast<size_t>(BN_num_bytes(out.order.get()));
    return out;
}

bool CurveGroup::hashNumber(const unsigned char* digest, size_t size, BIGNUM* e) const
{
    int used = static_cast<int>(size);
    if (8 * used > orderBits) used = (orderBits + 7) / 8;
    if (!BN_bin2bn(digest, used, e)) return false;
    return 8 * used <= orderBits || BN_rshift(e, e, 8 - (orderBits & 7)) == 1;
}

VerifyScratch::State::State()
{
    if (!ctx || !mdCtx) throw std::bad_alloc();
    for (size_t i = 0; i < VERIFY_BLOCK; ++i) {
        r[i] = newBignum();
        s[i] = newBignum();
        e[i] = newBignum();
        product[i] = newBignum();
    }
}

const EVP_MD* VerifyScratch::State::hash(Hash which)
{
    EvpMdPtr& slot = hashes[static_cast<size_t>(which)];
    if (!slot) slot.reset(EVP_MD_fetch(nullptr, EVP_MD_get0_name(hashFunction(which)), nullptr));
    return slot.get();
}

bool VerifyScratch::State::digest(Hash which, ByteView data, unsigned char* out, unsigned int& size)
{
    const EVP_MD* md = hash(which);
    return md != nullptr && EVP_DigestInit_ex2(mdCtx.get(), md, nullptr) == 1 &&
           EVP_DigestUpdate(mdCtx.get(), data.data(), data.size()) == 1 &&
           EVP_DigestFinal_ex(mdCtx.get(), out, &size) == 1;
}

void VerifyScratch::State::useGroup(const EC_GROUP* wanted)
{
    const int wantedCurve = EC_GROUP_get_curve_name(wanted);
    if (curve == wantedCurve && wantedCurve != NID_undef) return;
    for (EcPointPtr& point : sums) point = newPoint(wanted);
    curve = wantedCurve;
}

}  // namespace tse
