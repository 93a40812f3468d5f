#include "key_verifier.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include <openssl/err.h>

#include "openssl_ptr.h"
#include "parallel.h"
#include "signature.h"

namespace tse {
namespace {

// Signatures whose inversions of s share one BN_mod_inverse.
constexpr size_t BLOCK = 64;
// Signed digits of w bits run from 1 - 2^(w-1) to 2^(w-1), so a window
// needs the multiples 1..2^(w-1) of its base point; the sign costs a
// negation. Each bit more halves the additions' growth per bit of the
// scalar and doubles the table; the widths are chosen per key to fit
// MAX_TABLE_BYTES.
constexpr unsigned MIN_DIGIT_BITS = 8, MAX_DIGIT_BITS = 12;
// A hash value given as such may be as long as the largest order; only the
// order's length of it counts.
constexpr size_t MAX_PREHASHED = 1024;

using BnCtxPtr = OpenSslPtr<BN_CTX, BN_CTX_free>;
using EvpMdPtr = OpenSslPtr<EVP_MD, EVP_MD_free>;

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

// The signed digits of a scalar below the order (big-endian bytes), least
// significant first: digit i stands for digit·2^(bits·i), the digits sum
// to the scalar, and the last one is the carry out of the others.
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

// OpenSSL 3 marks the batch conversion to affine points deprecated without
// an EVP replacement: there is no other way to share one field inversion
// among many points, which is what makes the tables pay.
int makeAffine(const EC_GROUP* group, size_t count, EC_POINT** points, BN_CTX* ctx)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return EC_POINTs_make_affine(group, count, points, ctx);
#pragma GCC diagnostic pop
}

// libcrypto's own check of r || s over a given hash value.
bool verifyPrehashed(const PublicKey& key, ByteView digest, ByteView signature)
{
    const size_t half = key.curveInfo().fieldSize;
    if (signature.size() != 2 * half || digest.size() > MAX_PREHASHED) return false;
    EcdsaSigPtr object(ECDSA_SIG_new());
    BignumPtr r(BN_bin2bn(signature.data(), static_cast<int>(half), nullptr));
    BignumPtr s(BN_bin2bn(signature.data() + half, static_cast<int>(half), nullptr));
    if (!object || !r || !s || ECDSA_SIG_set0(object.get(), r.get(), s.get()) != 1) return false;
    r.release();
    s.release();
    unsigned char* der = nullptr;
    const int derSize = i2d_ECDSA_SIG(object.get(), &der);
    if (derSize <= 0) return false;
    const std::unique_ptr<unsigned char, void (*)(void*)> owned(der, [](void* p) { OPENSSL_free(p); });
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.evpKey(), nullptr));
    const int result = context && EVP_PKEY_verify_init(context.get()) == 1
                           ? EVP_PKEY_verify(context.get(), der, static_cast<size_t>(derSize), digest.data(), digest.size())
                           : 0;
    ERR_clear_error();
    return result == 1;
}

}  // namespace

// The multiples of one base point P that signed digits of `bits` bits ask
// for: window i holds d·2^(bits·i)·P for d = 1..entries[i], at
// offsets[i] + d - 1.
struct Comb {
    unsigned bits = MIN_DIGIT_BITS;
    std::vector<size_t> offsets, entries;
    std::vector<EcPointPtr> points;

    // The windows of a scalar of orderBits bits. The top ones hold small
    // digits only: the last the carry, the one below it what bits remain.
    Comb(unsigned digitBits, int orderBits) : bits(digitBits)
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
    size_t windows() const { return entries.size(); }
    size_t size() const { return offsets.back() + entries.back(); }
    const EC_POINT* entry(size_t window, int digit) const
    {
        return points[offsets[window] + static_cast<size_t>(digit) - 1].get();
    }
};

struct KeyVerifier::Tables {
    EcGroupPtr group;
    BignumPtr order;
    size_t orderBytes = 0;
    int orderBits = 0;
    std::optional<Comb> g, q;
    size_t bytes = 0;
};

struct VerifyScratch::State {
    BnCtxPtr ctx{BN_CTX_new()};
    EvpMdCtxPtr mdCtx{EVP_MD_CTX_new()};
    std::array<EvpMdPtr, 8> hashes;  // fetched once per thread, by Hash
    // Per signature of a block: r, s (then s's inverse), e (then u1), the
    // running product of the s, and the sum R.
    std::array<BignumPtr, BLOCK> r, s, e, product;
    // The curve the points below belong to: points of one named curve work
    // with every group of it (the address of a group proves nothing, as a
    // new one may take the place of one freed).
    int curve = NID_undef;
    std::array<EcPointPtr, BLOCK> sums;
    BignumPtr inverse = newBignum(), u2 = newBignum(), x = newBignum();
    std::vector<unsigned char> bytes;
    std::vector<int> digits1, digits2;

    State()
    {
        if (!ctx || !mdCtx) throw std::bad_alloc();
        for (size_t i = 0; i < BLOCK; ++i) {
            r[i] = newBignum();
            s[i] = newBignum();
            e[i] = newBignum();
            product[i] = newBignum();
        }
    }

    const EVP_MD* hash(Hash which)
    {
        EvpMdPtr& slot = hashes[static_cast<size_t>(which)];
        if (!slot) slot.reset(EVP_MD_fetch(nullptr, EVP_MD_get0_name(hashFunction(which)), nullptr));
        return slot.get();
    }

    void useGroup(const EC_GROUP* wanted)
    {
        const int wantedCurve = EC_GROUP_get_curve_name(wanted);
        if (curve == wantedCurve && wantedCurve != NID_undef) return;
        for (EcPointPtr& point : sums) point = newPoint(wanted);
        curve = wantedCurve;
    }
};

VerifyScratch::VerifyScratch() : state_(std::make_unique<State>()) {}
VerifyScratch::~VerifyScratch() = default;

// Measured with `key-verifier speed` (bench/): the tables check five to
// seven times as many signatures per second as libcrypto on the brainpool
// curves and secp384r1, about twice as many on secp521r1 and 1.2 to 1.3
// times on secp256r1, where libcrypto has code of its own for x86-64.
// Building them costs 40 to 120 ms, what the tables save over 60 to 100
// signatures on the slow curves, some 400 on secp521r1 and nearly 4,000 on
// secp256r1.
bool KeyVerifier::tablesPayOff(Curve curve)
{
    (void)curve;
    return true;
}

size_t KeyVerifier::minSignatures(Curve curve)
{
    switch (curve) {
    case Curve::Secp256r1: return 4000;
    case Curve::Secp521r1: return 1000;
    default: return 150;
    }
}

KeyVerifier::KeyVerifier(const PublicKey& key, size_t expectedSignatures, Path path) : key_(key)
{
    const bool wanted = path == Path::Tables ||
                        (path == Path::Automatic && expectedSignatures >= minSignatures(key.curve()) &&
                         tablesPayOff(key.curve()));
    if (!wanted) return;

    auto tables = std::make_shared<Tables>();
    BnCtxPtr ctx(BN_CTX_new());
    tables->group.reset(EC_GROUP_new_by_curve_name(key.curveInfo().nid));
    const EC_GROUP* keyGroup = tables->group.get();
    EcPointPtr keyPointOwned(keyGroup ? EC_POINT_new(keyGroup) : nullptr);
    const EC_POINT* keyPoint =
        keyPointOwned && EC_POINT_oct2point(keyGroup, keyPointOwned.get(), key.point().data(), key.point().size(),
                                            ctx.get()) == 1
            ? keyPointOwned.get()
            : nullptr;
    tables->order.reset(keyGroup ? BN_dup(EC_GROUP_get0_order(keyGroup)) : nullptr);
    if (!ctx || !tables->group || !tables->order || keyPoint == nullptr) {
        ERR_clear_error();
        return;
    }
    const EC_GROUP* group = tables->group.get();
    tables->orderBits = BN_num_bits(tables->order.get());
    tables->orderBytes = static_cast<size_t>(BN_num_bytes(tables->order.get()));

    // An EC_POINT with three numbers of the field's size, and what the
    // allocator adds to each of the four allocations.
    const size_t words = (key.curveInfo().fieldSize + 7) / 8;
    const size_t perPoint = 64 + 3 * (32 + 16 * ((words * 8 + 8 + 15) / 16));
    // Digits as wide as the bound allows, G's first: it takes part in every
    // signature as much as Q does, and widening one by a bit at a time keeps
    // the two within one bit of each other.
    unsigned bitsG = MIN_DIGIT_BITS, bitsQ = MIN_DIGIT_BITS;
    const auto bytesFor = [&](unsigned g, unsigned q) {
        return (Comb(g, tables->orderBits).size() + Comb(q, tables->orderBits).size()) * perPoint;
    };
    for (bool grew = true; grew;) {
        grew = false;
        if (bitsG < MAX_DIGIT_BITS && bytesFor(bitsG + 1, bitsQ) <= MAX_TABLE_BYTES) ++bitsG, grew = true;
        if (bitsQ < bitsG && bytesFor(bitsG, bitsQ + 1) <= MAX_TABLE_BYTES) ++bitsQ, grew = true;
    }
    tables->bytes = bytesFor(bitsG, bitsQ);
    if (tables->bytes > MAX_TABLE_BYTES) return;

    const auto build = [&](const EC_POINT* base, Comb& comb) {
        std::vector<EcPointPtr> work;
        work.reserve(comb.size());
        EcPointPtr window(EC_POINT_dup(base, group));
        if (!window) return false;
        for (size_t i = 0; i < comb.windows(); ++i) {
            for (size_t d = 1; d <= comb.entries[i]; ++d) {
                EcPointPtr point(d == 1 ? EC_POINT_dup(window.get(), group) : EC_POINT_new(group));
                if (!point) return false;
                if (d > 1 && EC_POINT_add(group, point.get(), work.back().get(), window.get(), ctx.get()) != 1) {
                    return false;
                }
                work.push_back(std::move(point));
            }
            for (unsigned k = 0; k < comb.bits && i + 1 < comb.windows(); ++k) {
                if (EC_POINT_dbl(group, window.get(), window.get(), ctx.get()) != 1) return false;
            }
        }
        std::vector<EC_POINT*> raw;
        raw.reserve(work.size());
        for (EcPointPtr& point : work) raw.push_back(point.get());
        if (makeAffine(group, raw.size(), raw.data(), ctx.get()) != 1) return false;
        // Copies of the affine points take no more memory than they need;
        // the results of the field arithmetic keep room for twice as much.
        comb.points.reserve(work.size());
        for (EcPointPtr& point : work) {
            comb.points.emplace_back(EC_POINT_dup(point.get(), group));
            if (!comb.points.back()) return false;
            point.reset();
        }
        return true;
    };
    tables->g.emplace(bitsG, tables->orderBits);
    tables->q.emplace(bitsQ, tables->orderBits);
    if (!build(EC_GROUP_get0_generator(group), *tables->g) || !build(keyPoint, *tables->q)) {
        ERR_clear_error();
        return;
    }
    tables_ = std::move(tables);
}

size_t KeyVerifier::tableBytes() const
{
    return tables_ ? tables_->bytes : 0;
}

bool KeyVerifier::verify(const SignatureCheck& check, VerifyScratch& scratch) const
{
    bool verdict = false;
    verify(&check, 1, &verdict, scratch);
    return verdict;
}

void KeyVerifier::verify(const SignatureCheck* checks, size_t count, bool* verdicts, VerifyScratch& scratch) const
{
    if (!tables_) {
        for (size_t i = 0; i < count; ++i) {
            verdicts[i] = checks[i].prehashed ? verifyPrehashed(key_, checks[i].data, checks[i].signature)
                                              : verifyPlain(key_, checks[i].hash, checks[i].data, checks[i].signature);
        }
        return;
    }
    for (size_t done = 0; done < count; done += BLOCK) {
        verifyBlock(checks + done, std::min(BLOCK, count - done), verdicts + done, scratch);
    }
    ERR_clear_error();
}

// ECDSA as libcrypto does it: r and s in [1, n-1], e the leftmost bits of
// the hash as many as the order has, w = s^-1, u1 = e·w, u2 = r·w, and the
// signature holds iff R = u1·G + u2·Q is a point and x(R) mod n = r.
void KeyVerifier::verifyBlock(const SignatureCheck* checks, size_t count, bool* verdicts,
                              VerifyScratch& scratch) const
{
    VerifyScratch::State& st = *scratch.state_;
    const Tables& t = *tables_;
    const EC_GROUP* group = t.group.get();
    const BIGNUM* order = t.order.get();
    BN_CTX* ctx = st.ctx.get();
    st.useGroup(group);
    const size_t half = key_.curveInfo().fieldSize;

    // Which signatures reach the point arithmetic, in block order.
    std::array<size_t, BLOCK> live{};
    size_t liveCount = 0;
    for (size_t i = 0; i < count; ++i) {
        verdicts[i] = false;
        const SignatureCheck& check = checks[i];
        if (check.signature.size() != 2 * half) continue;
        BIGNUM* r = st.r[i].get();
        BIGNUM* s = st.s[i].get();
        if (!BN_bin2bn(check.signature.data(), static_cast<int>(half), r) ||
            !BN_bin2bn(check.signature.data() + half, static_cast<int>(half), s)) {
            continue;
        }
        if (BN_is_zero(r) || BN_is_zero(s) || BN_ucmp(r, order) >= 0 || BN_ucmp(s, order) >= 0) continue;
        unsigned char hashed[EVP_MAX_MD_SIZE];
        const unsigned char* digest = hashed;
        unsigned int digestSize = 0;
        if (check.prehashed) {
            if (check.data.size() > MAX_PREHASHED) continue;
            digest = check.data.data();
            digestSize = static_cast<unsigned int>(check.data.size());
        } else {
            const EVP_MD* md = st.hash(check.hash);
            if (md == nullptr || EVP_DigestInit_ex2(st.mdCtx.get(), md, nullptr) != 1 ||
                EVP_DigestUpdate(st.mdCtx.get(), check.data.data(), check.data.size()) != 1 ||
                EVP_DigestFinal_ex(st.mdCtx.get(), hashed, &digestSize) != 1) {
                continue;
            }
        }
        int used = static_cast<int>(digestSize);
        if (8 * used > t.orderBits) used = (t.orderBits + 7) / 8;
        BIGNUM* e = st.e[i].get();
        if (!BN_bin2bn(digest, used, e)) continue;
        if (8 * used > t.orderBits && !BN_rshift(e, e, 8 - (t.orderBits & 7))) continue;
        live[liveCount++] = i;
    }
    if (liveCount == 0) return;

    // Montgomery's trick: one inversion for the whole block. product[k] is
    // s of the first k+1 live signatures multiplied.
    for (size_t k = 0; k < liveCount; ++k) {
        const BIGNUM* s = st.s[live[k]].get();
        if (k == 0 ? !BN_copy(st.product[0].get(), s)
                   : !BN_mod_mul(st.product[k].get(), st.product[k - 1].get(), s, order, ctx)) {
            return;
        }
    }
    BIGNUM* inverse = st.inverse.get();
    if (!BN_mod_inverse(inverse, st.product[liveCount - 1].get(), order, ctx)) return;
    for (size_t k = liveCount; k-- > 0;) {
        BIGNUM* s = st.s[live[k]].get();
        // inverse is 1/(s_0···s_k) here; w_k = inverse · (s_0···s_{k-1}).
        if (k > 0) {
            if (!BN_mod_mul(st.product[k].get(), inverse, st.product[k - 1].get(), order, ctx) ||
                !BN_mod_mul(inverse, inverse, s, order, ctx)) {
                return;
            }
            if (!BN_copy(s, st.product[k].get())) return;
        } else if (!BN_copy(s, inverse)) {
            return;
        }
    }

    const size_t scalarBytes = t.orderBytes;
    const Comb& g = *t.g;
    const Comb& q = *t.q;
    st.bytes.resize(scalarBytes);
    st.digits1.resize(g.windows());
    st.digits2.resize(q.windows());
    std::array<EC_POINT*, BLOCK> sums{};
    std::array<size_t, BLOCK> owner{};
    size_t sumCount = 0;
    for (size_t k = 0; k < liveCount; ++k) {
        const size_t i = live[k];
        const BIGNUM* w = st.s[i].get();
        BIGNUM* u1 = st.e[i].get();
        BIGNUM* u2 = st.u2.get();
        if (!BN_mod_mul(u1, u1, w, order, ctx) || !BN_mod_mul(u2, st.r[i].get(), w, order, ctx)) continue;
        if (BN_bn2binpad(u1, st.bytes.data(), static_cast<int>(scalarBytes)) < 0) continue;
        signedDigits(st.bytes.data(), scalarBytes, g.bits, st.digits1.data(), g.windows());
        if (BN_bn2binpad(u2, st.bytes.data(), static_cast<int>(scalarBytes)) < 0) continue;
        signedDigits(st.bytes.data(), scalarBytes, q.bits, st.digits2.data(), q.windows());

        EC_POINT* sum = st.sums[i].get();
        bool empty = true, failed = false;
        const auto add = [&](const Comb& comb, size_t window, int digit) {
            if (digit == 0 || failed) return;
            const EC_POINT* point = comb.entry(window, digit < 0 ? -digit : digit);
            if (empty) {
                failed = EC_POINT_copy(sum, point) != 1 || (digit < 0 && EC_POINT_invert(group, sum, ctx) != 1);
                empty = false;
                return;
            }
            // sum - P is -((-sum) + P): two negations, which cost next to
            // nothing, instead of a table of negative multiples.
            if (digit < 0) failed = EC_POINT_invert(group, sum, ctx) != 1;
            failed = failed || EC_POINT_add(group, sum, sum, point, ctx) != 1;
            if (digit < 0) failed = failed || EC_POINT_invert(group, sum, ctx) != 1;
        };
        for (size_t window = 0; window < g.windows(); ++window) add(g, window, st.digits1[window]);
        for (size_t window = 0; window < q.windows(); ++window) add(q, window, st.digits2[window]);
        // Both scalars zero, or a sum that lands on the point at infinity:
        // no x to compare, so no valid signature.
        if (failed || empty || EC_POINT_is_at_infinity(group, sum)) continue;
        owner[sumCount] = i;
        sums[sumCount++] = sum;
    }
    if (sumCount == 0) return;
    // One inversion in the field for the whole block, too.
    if (makeAffine(group, sumCount, sums.data(), ctx) != 1) return;
    BIGNUM* x = st.x.get();
    for (size_t k = 0; k < sumCount; ++k) {
        if (EC_POINT_get_affine_coordinates(group, sums[k], x, nullptr, ctx) != 1) continue;
        if (!BN_nnmod(x, x, order, ctx)) continue;
        verdicts[owner[k]] = BN_cmp(x, st.r[owner[k]].get()) == 0;
    }
}

namespace {

std::string pointKey(const PublicKey& key)
{
    return std::string(key.point().begin(), key.point().end());
}

}  // namespace

void KeyVerifierSet::count(const PublicKey& key)
{
    auto [entry, added] = keys_.try_emplace(pointKey(key), Counted{key, 0, nullptr});
    (void)added;
    ++entry->second.signatures;
}

void KeyVerifierSet::build(unsigned jobs)
{
    std::vector<Counted*> chosen;
    for (auto& entry : keys_) {
        Counted& counted = entry.second;
        if (chosen.size() < MAX_KEYS && KeyVerifier::tablesPayOff(counted.key.curve()) &&
            counted.signatures >= KeyVerifier::minSignatures(counted.key.curve())) {
            chosen.push_back(&counted);
        }
    }
    parallelFor(chosen.size(), jobs, [&](size_t i) {
        auto verifier = std::make_unique<KeyVerifier>(chosen[i]->key, chosen[i]->signatures);
        if (verifier->usesTables()) chosen[i]->verifier = std::move(verifier);
    });
}

const KeyVerifier* KeyVerifierSet::find(const PublicKey& key) const
{
    const auto found = keys_.find(pointKey(key));
    return found == keys_.end() ? nullptr : found->second.verifier.get();
}

}  // namespace tse
