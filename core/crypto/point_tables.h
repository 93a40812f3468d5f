#ifndef TSE_CORE_POINT_TABLES_H
#define TSE_CORE_POINT_TABLES_H

// Within the crypto part only: the tables of multiples of a point that the
// per-key verifier and the search of one signature over many messages
// share, and the scratch a thread reuses for them. The arithmetic is
// libcrypto's EC_POINT and BIGNUM arithmetic; nothing here touches field
// elements.

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

#include "key_verifier.h"
#include "openssl_ptr.h"

namespace tse {

// Signatures whose inversions of s share one BN_mod_inverse.
constexpr size_t VERIFY_BLOCK = 64;
// Signed digits of w bits run from 1 - 2^(w-1) to 2^(w-1), so a window
// needs the multiples 1..2^(w-1) of its base point; the sign costs a
// negation. Each bit more halves the additions' growth per bit of the
// scalar and doubles the table.
constexpr unsigned MIN_DIGIT_BITS = 8, MAX_DIGIT_BITS = 12;

using BnCtxPtr = OpenSslPtr<BN_CTX, BN_CTX_free>;
using EvpMdPtr = OpenSslPtr<EVP_MD, EVP_MD_free>;

BignumPtr newBignum();
EcPointPtr newPoint(const EC_GROUP* group);

// OpenSSL 3 marks the batch conversion to affine points deprecated without
// an EVP replacement: there is no other way to share one field inversion
// among many points, which is what makes the tables pay.
int makeAffine(const EC_GROUP* group, size_t count, EC_POINT** points, BN_CTX* ctx);

// The signed digits of a scalar below the order (big-endian bytes), least
// significant first: digit i stands for digit·2^(bits·i), the digits sum
// to the scalar, and the last one is the carry out of the others.
void signedDigits(const unsigned char* bigEndian, size_t size, unsigned bits, int* digits, size_t count);

// The multiples of one base point P that signed digits of `bits` bits ask
// for: window i holds d·2^(bits·i)·P for d = 1..entries[i], at
// offsets[i] + d - 1, as affine points.
struct Comb {
    unsigned bits = MIN_DIGIT_BITS;
    std::vector<size_t> offsets, entries;
    std::vector<EcPointPtr> points;

    // The windows of a scalar of orderBits bits. The top ones hold small
    // digits only: the last the carry, the one below it what bits remain.
    Comb(unsigned digitBits, int orderBits);
    size_t windows() const { return entries.size(); }
    size_t size() const { return offsets.back() + entries.back(); }

    // Computes the multiples of `base`; false when libcrypto fails.
    bool build(const EC_GROUP* group, const EC_POINT* base, BN_CTX* ctx);
    // sum += the multiple of the base the digits stand for; `empty` says
    // that sum holds nothing yet (and stays so while every digit is 0).
    bool addTo(const EC_GROUP* group, const int* digits, EC_POINT* sum, bool& empty, BN_CTX* ctx) const;
};

// What an EC_POINT of the curve takes in memory: three numbers of the
// field's size, and what the allocator adds to each of its four
// allocations.
size_t bytesPerPoint(const CurveInfo& curve);

// The group of a curve with its order, as the tables need them.
struct CurveGroup {
    EcGroupPtr group;
    BignumPtr order;
    size_t orderBytes = 0;
    int orderBits = 0;

    // nullopt when libcrypto cannot make the group.
    static std::optional<CurveGroup> of(const CurveInfo& curve);
    // e as ECDSA takes it from a hash value: its leftmost bits, as many as
    // the order has. False when libcrypto fails.
    bool hashNumber(const unsigned char* digest, size_t size, BIGNUM* e) const;
};

struct KeyVerifier::Tables {
    CurveGroup curve;
    std::optional<Comb> g, q;
    size_t bytes = 0;
};

struct VerifyScratch::State {
    BnCtxPtr ctx{BN_CTX_new()};
    EvpMdCtxPtr mdCtx{EVP_MD_CTX_new()};
    std::array<EvpMdPtr, 8> hashes;  // fetched once per thread, by Hash
    // Per signature of a block: r, s (then s's inverse), e (then u1), the
    // running product of the s, and the sum R.
    std::array<BignumPtr, VERIFY_BLOCK> r, s, e, product;
    // The curve the points below belong to: points of one named curve work
    // with every group of it (the address of a group proves nothing, as a
    // new one may take the place of one freed).
    int curve = NID_undef;
    std::array<EcPointPtr, VERIFY_BLOCK> sums;
    BignumPtr inverse = newBignum(), u2 = newBignum(), x = newBignum();
    std::vector<unsigned char> bytes;
    std::vector<int> digits1, digits2;

    State();
    const EVP_MD* hash(Hash which);
    // The hash of the data; false when libcrypto fails.
    bool digest(Hash which, ByteView data, unsigned char* out, unsigned int& size);
    void useGroup(const EC_GROUP* wanted);
};

}  // namespace tse

#endif
