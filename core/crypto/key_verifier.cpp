#include "key_verifier.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include <openssl/err.h>

#include "parallel.h"
#include "point_tables.h"
#include "signature.h"

namespace tse {
namespace {

// A hash value given as such may be as long as the largest order; only the
// order's length of it counts.
constexpr size_t MAX_PREHASHED = 1024;

using LiveChecks = std::array<size_t, VERIFY_BLOCK>;

// libcrypto's own check of r || s over a given hash value.
bool verifyPrehashed(const PublicKey& key, ByteView digest, ByteView signature)
{
    const size_t half = key.curveInfo().fieldSize;
    if (signature.size() != 2 * half || digest.size() > MAX_PREHASHED) return false;
    EcdsaSigPtr object(ECDSA_SIG_new());
    BignumPtr r(BN_bin2bn(signature.data(), static_cast<int>(half), nullptr));
    BignumPtr s(BN_bin2bn(signature.data() + half, static_cast<int>(half), nullptr));
    if (!object || !r || !s || ECDSA_SIG_set0(object.get(), r.get(), s.get()) != 1) return false;
    (void)r.release();  // the signature object owns them now
    (void)s.release();
    unsigned char* der = nullptr;
    const int derSize = i2d_ECDSA_SIG(object.get(), &der);
    if (derSize <= 0) return false;
    const std::unique_ptr<unsigned char, void (*)(void*)> owned(der, [](void* p) { OPENSSL_free(p); });
    EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key.evpKey(), nullptr));
    const int result =
        context && EVP_PKEY_verify_init(context.get()) == 1
            ? EVP_PKEY_verify(context.get(), der, static_cast<size_t>(derSize), digest.data(), digest.size())
            : 0;
    ERR_clear_error();
    return result == 1;
}

// Digits as wide as MAX_TABLE_BYTES allows, G's first: it takes part in
// every signature as much as Q does, and widening one by a bit at a time
// keeps the two within one bit of each other.
std::pair<unsigned, unsigned> digitWidths(int orderBits, size_t perPoint)
{
    unsigned bitsG = MIN_DIGIT_BITS, bitsQ = MIN_DIGIT_BITS;
    const auto bytesFor = [&](unsigned g, unsigned q) {
        return (Comb(g, orderBits).size() + Comb(q, orderBits).size()) * perPoint;
    };
    for (bool grew = true; grew;) {
        grew = false;
        if (bitsG < MAX_DIGIT_BITS && bytesFor(bitsG + 1, bitsQ) <= KeyVerifier::MAX_TABLE_BYTES) ++bitsG, grew = true;
        if (bitsQ < bitsG && bytesFor(bitsG, bitsQ + 1) <= KeyVerifier::MAX_TABLE_BYTES) ++bitsQ, grew = true;
    }
    return {bitsG, bitsQ};
}

// r, s and e of one check into the scratch's slot i; false when the
// signature cannot hold (a size or a number out of range) or libcrypto fails.
bool decodeCheck(const CurveGroup& curve, size_t half, const SignatureCheck& check, VerifyScratch::State& st, size_t i)
{
    if (check.signature.size() != 2 * half) return false;
    BIGNUM* r = st.r[i].get();
    BIGNUM* s = st.s[i].get();
    if (!BN_bin2bn(check.signature.data(), static_cast<int>(half), r) ||
        !BN_bin2bn(check.signature.data() + half, static_cast<int>(half), s)) {
        return false;
    }
    const BIGNUM* order = curve.order.get();
    if (BN_is_zero(r) || BN_is_zero(s) || BN_ucmp(r, order) >= 0 || BN_ucmp(s, order) >= 0) return false;
    unsigned char hashed[EVP_MAX_MD_SIZE];
    const unsigned char* digest = hashed;
    unsigned int digestSize = 0;
    if (check.prehashed) {
        if (check.data.size() > MAX_PREHASHED) return false;
        digest = check.data.data();
        digestSize = static_cast<unsigned int>(check.data.size());
    } else if (!st.digest(check.hash, check.data, hashed, digestSize)) {
        return false;
    }
    return curve.hashNumber(digest, digestSize, st.e[i].get());
}

// Montgomery's trick: one inversion for the whole block. product[k] is s
// of the first k+1 live signatures multiplied; each s becomes its inverse.
bool invertAll(VerifyScratch::State& st, const LiveChecks& live, size_t liveCount, const BIGNUM* order)
{
    BN_CTX* ctx = st.ctx.get();
    for (size_t k = 0; k < liveCount; ++k) {
        const BIGNUM* s = st.s[live[k]].get();
        if (k == 0 ? !BN_copy(st.product[0].get(), s)
                   : !BN_mod_mul(st.product[k].get(), st.product[k - 1].get(), s, order, ctx)) {
            return false;
        }
    }
    BIGNUM* inverse = st.inverse.get();
    if (!BN_mod_inverse(inverse, st.product[liveCount - 1].get(), order, ctx)) return false;
    for (size_t k = liveCount; k-- > 0;) {
        BIGNUM* s = st.s[live[k]].get();
        // inverse is 1/(s_0···s_k) here; w_k = inverse · (s_0···s_{k-1}).
        if (k == 0) return BN_copy(s, inverse) != nullptr;
        if (!BN_mod_mul(st.product[k].get(), inverse, st.product[k - 1].get(), order, ctx) ||
            !BN_mod_mul(inverse, inverse, s, order, ctx) || !BN_copy(s, st.product[k].get())) {
            return false;
        }
    }
    return true;
}

// R = u1·G + u2·Q of the check in slot i, into its sum; false when there is
// no point to compare: both scalars zero, a sum at infinity, or libcrypto
// failing.
bool sumOf(const CurveGroup& curve, const Comb& g, const Comb& q, VerifyScratch::State& st, size_t i)
{
    const BIGNUM* order = curve.order.get();
    BN_CTX* ctx = st.ctx.get();
    const BIGNUM* w = st.s[i].get();
    BIGNUM* u1 = st.e[i].get();
    BIGNUM* u2 = st.u2.get();
    const int scalarBytes = static_cast<int>(curve.orderBytes);
    if (!BN_mod_mul(u1, u1, w, order, ctx) || !BN_mod_mul(u2, st.r[i].get(), w, order, ctx)) return false;
    if (BN_bn2binpad(u1, st.bytes.data(), scalarBytes) < 0) return false;
    signedDigits(st.bytes.data(), curve.orderBytes, g.bits, st.digits1.data(), g.windows());
    if (BN_bn2binpad(u2, st.bytes.data(), scalarBytes) < 0) return false;
    signedDigits(st.bytes.data(), curve.orderBytes, q.bits, st.digits2.data(), q.windows());
    const EC_GROUP* group = curve.group.get();
    EC_POINT* sum = st.sums[i].get();
    bool empty = true;
    if (!g.addTo(group, st.digits1.data(), sum, empty, ctx) || !q.addTo(group, st.digits2.data(), sum, empty, ctx)) {
        return false;
    }
    return !empty && EC_POINT_is_at_infinity(group, sum) == 0;
}

// The signature holds iff x(R) mod n = r; one inversion in the field for
// the whole block turns the sums affine.
void compareAll(const CurveGroup& curve, VerifyScratch::State& st, const LiveChecks& live, size_t liveCount,
                bool* verdicts)
{
    std::array<EC_POINT*, VERIFY_BLOCK> sums{};
    LiveChecks owner{};
    size_t sumCount = 0;
    for (size_t k = 0; k < liveCount; ++k) {
        owner[sumCount] = live[k];
        sums[sumCount++] = st.sums[live[k]].get();
    }
    const EC_GROUP* group = curve.group.get();
    BN_CTX* ctx = st.ctx.get();
    if (sumCount == 0 || makeAffine(group, sumCount, sums.data(), ctx) != 1) return;
    BIGNUM* x = st.x.get();
    for (size_t k = 0; k < sumCount; ++k) {
        if (EC_POINT_get_affine_coordinates(group, sums[k], x, nullptr, ctx) != 1) continue;
        if (!BN_nnmod(x, x, curve.order.get(), ctx)) continue;
        verdicts[owner[k]] = BN_cmp(x, st.r[owner[k]].get()) == 0;
    }
}

}  // namespace

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
    const bool wanted =
        path == Path::Tables ||
        (path == Path::Automatic && expectedSignatures >= minSignatures(key.curve()) && tablesPayOff(key.curve()));
    if (wanted) tables_ = makeTables(key);
}

// nullptr when libcrypto fails: the plain path then.
std::shared_ptr<const KeyVerifier::Tables> KeyVerifier::makeTables(const PublicKey& key)
{
    std::optional<CurveGroup> curve = CurveGroup::of(key.curveInfo());
    BnCtxPtr ctx(BN_CTX_new());
    if (!curve || !ctx) return nullptr;
    auto tables = std::make_shared<Tables>();
    tables->curve = std::move(*curve);
    const EC_GROUP* group = tables->curve.group.get();
    EcPointPtr keyPoint(EC_POINT_new(group));
    if (!keyPoint ||
        EC_POINT_oct2point(group, keyPoint.get(), key.point().data(), key.point().size(), ctx.get()) != 1) {
        ERR_clear_error();
        return nullptr;
    }
    const size_t perPoint = bytesPerPoint(key.curveInfo());
    const int orderBits = tables->curve.orderBits;
    const auto [bitsG, bitsQ] = digitWidths(orderBits, perPoint);
    tables->g.emplace(bitsG, orderBits);
    tables->q.emplace(bitsQ, orderBits);
    tables->bytes = (tables->g->size() + tables->q->size()) * perPoint;
    if (tables->bytes > MAX_TABLE_BYTES) return nullptr;
    if (!tables->g->build(group, EC_GROUP_get0_generator(group), ctx.get()) ||
        !tables->q->build(group, keyPoint.get(), ctx.get())) {
        ERR_clear_error();
        return nullptr;
    }
    return tables;
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
    for (size_t done = 0; done < count; done += VERIFY_BLOCK) {
        verifyBlock(checks + done, std::min(VERIFY_BLOCK, count - done), verdicts + done, scratch);
    }
    ERR_clear_error();
}

// ECDSA as libcrypto does it: r and s in [1, n-1], e the leftmost bits of
// the hash as many as the order has, w = s^-1, u1 = e·w, u2 = r·w, and the
// signature holds iff R = u1·G + u2·Q is a point and x(R) mod n = r.
void KeyVerifier::verifyBlock(const SignatureCheck* checks, size_t count, bool* verdicts, VerifyScratch& scratch) const
{
    VerifyScratch::State& st = *scratch.state_;
    const Tables& t = *tables_;
    st.useGroup(t.curve.group.get());
    const size_t half = key_.curveInfo().fieldSize;
    LiveChecks live{};
    size_t liveCount = 0;
    for (size_t i = 0; i < count; ++i) {
        verdicts[i] = false;
        if (decodeCheck(t.curve, half, checks[i], st, i)) live[liveCount++] = i;
    }
    if (liveCount == 0 || !invertAll(st, live, liveCount, t.curve.order.get())) return;
    st.bytes.resize(t.curve.orderBytes);
    st.digits1.resize(t.g->windows());
    st.digits2.resize(t.q->windows());
    size_t sums = 0;
    for (size_t k = 0; k < liveCount; ++k) {
        if (sumOf(t.curve, *t.g, *t.q, st, live[k])) live[sums++] = live[k];
    }
    compareAll(t.curve, st, live, sums, verdicts);
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
