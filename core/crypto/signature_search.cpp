#include "signature_search.h"

#include <stdexcept>
#include <string>

#include <openssl/err.h>

#include "point_tables.h"

namespace tse {

struct GeneratorTable {
    CurveGroup curve;
    std::optional<Comb> g;
};

struct SignatureSearch::Found {
    CurveGroup curve;
    std::shared_ptr<const GeneratorTable> table;
    size_t signatures = 0;
    // e·G must be one of these for the signature to hold: s·R - r·Q for
    // each point R with x(R) ≡ r (mod n).
    struct Target {
        size_t signature;
        EcPointPtr point;
    };
    std::vector<Target> targets;  // in the order of the signatures
};

namespace {

[[noreturn]] void checkFailed(const char* step)
{
    ERR_clear_error();
    throw std::runtime_error(std::string("libcrypto could not ") + step);
}

// OpenSSL 3 marks the question deprecated without a replacement; it is the
// only way to learn whether libcrypto multiplies G from a table of its own.
bool libcryptoHasTableOfG(const EC_GROUP* group)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return EC_GROUP_have_precompute_mult(group) == 1;
#pragma GCC diagnostic pop
}

// The widest digits whose table fits MAX_TABLE_BYTES.
unsigned generatorDigitBits(const CurveInfo& info, int orderBits)
{
    unsigned bits = MIN_DIGIT_BITS;
    while (bits < MAX_DIGIT_BITS &&
           Comb(bits + 1, orderBits).size() * bytesPerPoint(info) <= KeyVerifier::MAX_TABLE_BYTES) {
        ++bits;
    }
    return bits;
}

// Each point R with x(R) = r + k·n below the field's prime p (r and r + n:
// p < 2n on every supported curve), both signs of y, as s·R - r·Q.
void addTargets(SignatureSearch::Found& found, size_t index, const BIGNUM* r, const BIGNUM* s, const EC_POINT* q,
                BN_CTX* ctx)
{
    const EC_GROUP* group = found.curve.group.get();
    BignumPtr p = newBignum(), x = newBignum();
    EcPointPtr minusRQ = newPoint(group), point = newPoint(group);
    if (EC_GROUP_get_curve(group, p.get(), nullptr, nullptr, ctx) != 1 ||
        EC_POINT_mul(group, minusRQ.get(), nullptr, q, r, ctx) != 1 ||
        EC_POINT_invert(group, minusRQ.get(), ctx) != 1 || !BN_copy(x.get(), r)) {
        checkFailed("prepare a signature's points");
    }
    while (BN_cmp(x.get(), p.get()) < 0) {
        for (const int odd : {0, 1}) {
            if (EC_POINT_set_compressed_coordinates(group, point.get(), x.get(), odd, ctx) != 1) {
                ERR_clear_error();  // no point has this x
                break;
            }
            EcPointPtr target = newPoint(group);
            if (EC_POINT_mul(group, target.get(), nullptr, point.get(), s, ctx) != 1 ||
                EC_POINT_add(group, target.get(), target.get(), minusRQ.get(), ctx) != 1) {
                checkFailed("prepare a signature's points");
            }
            found.targets.push_back({index, std::move(target)});
        }
        if (!BN_add(x.get(), x.get(), found.curve.order.get())) checkFailed("add the order");
    }
}

// r and s of r || s when both lie in [1, n-1], the only ones that can hold.
bool decodeSignature(const CurveGroup& curve, ByteView octets, size_t half, BIGNUM* r, BIGNUM* s)
{
    if (octets.size() != 2 * half || !BN_bin2bn(octets.data(), static_cast<int>(half), r) ||
        !BN_bin2bn(octets.data() + half, static_cast<int>(half), s)) {
        return false;
    }
    const BIGNUM* n = curve.order.get();
    return !BN_is_zero(r) && !BN_is_zero(s) && BN_ucmp(r, n) < 0 && BN_ucmp(s, n) < 0;
}

// e·G for the data's hash, into the scratch's first sum.
void multipleOfG(const SignatureSearch::Found& found, Hash hash, ByteView data, VerifyScratch::State& st)
{
    const CurveGroup& curve = found.curve;
    const EC_GROUP* group = curve.group.get();
    BN_CTX* ctx = st.ctx.get();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    BIGNUM* e = st.e[0].get();
    EC_POINT* sum = st.sums[0].get();
    if (!st.digest(hash, data, digest, size) || !curve.hashNumber(digest, size, e) ||
        !BN_nnmod(e, e, curve.order.get(), ctx)) {
        checkFailed("hash a message");
    }
    if (!found.table) {
        if (EC_POINT_mul(group, sum, e, nullptr, nullptr, ctx) != 1) checkFailed("multiply G");
        return;
    }
    const Comb& g = *found.table->g;
    st.bytes.resize(curve.orderBytes);
    st.digits1.resize(g.windows());
    if (BN_bn2binpad(e, st.bytes.data(), static_cast<int>(curve.orderBytes)) < 0) checkFailed("write a scalar");
    signedDigits(st.bytes.data(), curve.orderBytes, g.bits, st.digits1.data(), g.windows());
    bool empty = true;
    if (!g.addTo(group, st.digits1.data(), sum, empty, ctx) || (empty && EC_POINT_set_to_infinity(group, sum) != 1)) {
        checkFailed("multiply G");
    }
}

}  // namespace

std::shared_ptr<const GeneratorTable> generatorTable(Curve curve)
{
    const CurveInfo& info = curveInfo(curve);
    std::optional<CurveGroup> group = CurveGroup::of(info);
    BnCtxPtr ctx(BN_CTX_new());
    if (!group || !ctx || libcryptoHasTableOfG(group->group.get())) return nullptr;
    auto table = std::make_shared<GeneratorTable>();
    table->curve = std::move(*group);
    table->g.emplace(generatorDigitBits(info, table->curve.orderBits), table->curve.orderBits);
    const EC_GROUP* g = table->curve.group.get();
    if (!table->g->build(g, EC_GROUP_get0_generator(g), ctx.get())) {
        ERR_clear_error();
        return nullptr;
    }
    return table;
}

SignatureSearch::SignatureSearch(const PublicKey& key, const std::vector<Bytes>& signatures,
                                 std::shared_ptr<const GeneratorTable> table)
{
    std::optional<CurveGroup> curve = CurveGroup::of(key.curveInfo());
    BnCtxPtr ctx(BN_CTX_new());
    if (!curve || !ctx) checkFailed("make the curve's group");
    auto found = std::make_shared<Found>();
    found->curve = std::move(*curve);
    found->table = std::move(table);
    found->signatures = signatures.size();
    const EC_GROUP* group = found->curve.group.get();
    EcPointPtr q = newPoint(group);
    if (EC_POINT_oct2point(group, q.get(), key.point().data(), key.point().size(), ctx.get()) != 1) {
        checkFailed("read the key's point");
    }
    BignumPtr r = newBignum(), s = newBignum();
    for (size_t i = 0; i < signatures.size(); ++i) {
        if (decodeSignature(found->curve, signatures[i], key.curveInfo().fieldSize, r.get(), s.get())) {
            addTargets(*found, i, r.get(), s.get(), q.get(), ctx.get());
        }
    }
    found_ = std::move(found);
}

std::optional<size_t> SignatureSearch::find(Hash hash, ByteView data, VerifyScratch& scratch,
                                            const Gate& mayCheck) const
{
    VerifyScratch::State& st = *scratch.state_;
    const EC_GROUP* group = found_->curve.group.get();
    st.useGroup(group);
    bool multiplied = false;
    auto target = found_->targets.begin();
    for (size_t i = 0; i < found_->signatures; ++i) {
        if (mayCheck && !mayCheck()) return std::nullopt;
        for (; target != found_->targets.end() && target->signature == i; ++target) {
            if (!multiplied) multipleOfG(*found_, hash, data, st);
            multiplied = true;
            const int compared = EC_POINT_cmp(group, st.sums[0].get(), target->point.get(), st.ctx.get());
            if (compared < 0) checkFailed("compare two points");
            if (compared == 0) return i;
        }
    }
    return std::nullopt;
}

}  // namespace tse
