#ifndef TSE_CORE_KEY_VERIFIER_H
#define TSE_CORE_KEY_VERIFIER_H

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "algorithms.h"
#include "bytes.h"
#include "public_key.h"

namespace tse {

// One signature to check under a verifier's key: plain r || s, each of the
// curve's field size, over the data's hash.
struct SignatureCheck {
    Hash hash = Hash::Sha256;
    ByteView data;
    ByteView signature;
    bool prehashed = false;  // data is the hash value itself
};

// What one thread reuses from signature to signature: a BN_CTX, numbers,
// points and digest contexts. Never shared between threads; one scratch
// serves verifiers and signature searches of any key and curve.
class VerifyScratch {
public:
    VerifyScratch();
    ~VerifyScratch();
    VerifyScratch(const VerifyScratch&) = delete;
    VerifyScratch& operator=(const VerifyScratch&) = delete;

    struct State;  // known inside the crypto part only

private:
    friend class KeyVerifier;
    friend class SignatureSearch;
    std::unique_ptr<State> state_;
};

// Checks many signatures under one key. An export or a batch of receipts
// holds thousands of signatures of one TSE, and libcrypto's ECDSA_do_verify
// computes u1·G + u2·Q from nothing each time, hundreds of doublings on
// every curve. Here the multiples of G and of Q that a radix-256 signed
// digit can ask for are computed once per key, as affine points, so each
// signature costs one table addition per scalar byte, no doubling; and the
// inversions of s are shared over a block. The arithmetic is libcrypto's
// EC_POINT and BIGNUM arithmetic; nothing here touches field elements.
//
// Copies share the tables, which are only ever read after they are built,
// so one verifier serves many threads, each with its own VerifyScratch.
class KeyVerifier {
public:
    enum class Path {
        Automatic,  // tables when they pay off for the curve and count
        Tables,     // always the tables (tests, benchmarks)
        Plain,      // always libcrypto's ECDSA_do_verify
    };
    // Below this many signatures under one key on the curve, building the
    // tables costs more than it saves.
    static size_t minSignatures(Curve curve);
    // What the two tables of one key may take at most.
    static constexpr size_t MAX_TABLE_BYTES = 8u << 20;

    // `expectedSignatures` is how many signatures the caller means to check
    // with it; few, and the plain path is taken.
    explicit KeyVerifier(const PublicKey& key, size_t expectedSignatures, Path path = Path::Automatic);

    const PublicKey& key() const { return key_; }
    bool usesTables() const { return tables_ != nullptr; }
    // What the tables take in memory, roughly; 0 on the plain path.
    size_t tableBytes() const;

    // verdicts[i] tells whether checks[i] verifies. Blocks of any size; the
    // longer, the more inversions are shared.
    void verify(const SignatureCheck* checks, size_t count, bool* verdicts, VerifyScratch& scratch) const;
    bool verify(const SignatureCheck& check, VerifyScratch& scratch) const;

    // Whether the tables beat libcrypto's own verification on the curve on
    // this build (P-256 has a dedicated implementation on x86-64).
    static bool tablesPayOff(Curve curve);

    struct Tables;  // known inside the crypto part only

private:
    static std::shared_ptr<const Tables> makeTables(const PublicKey& key);
    void verifyBlock(const SignatureCheck* checks, size_t count, bool* verdicts, VerifyScratch& scratch) const;

    PublicKey key_;
    std::shared_ptr<const Tables> tables_;
};

// The verifiers for a batch of signatures under a few keys, such as a file
// of receipts or a DSFinV-K export: count every signature's key first, then
// build, then find the verifier of each signature's key from any thread.
// Keys with too few signatures, and those beyond the first MAX_KEYS, get
// none (the plain path), so a batch of many keys cannot take gigabytes.
class KeyVerifierSet {
public:
    static constexpr size_t MAX_KEYS = 4;

    void count(const PublicKey& key);
    // Builds the tables on up to `jobs` threads, one key each.
    void build(unsigned jobs = 1);
    // nullptr when the key's signatures take the plain path.
    const KeyVerifier* find(const PublicKey& key) const;

private:
    struct Counted {
        PublicKey key;
        size_t signatures = 0;
        std::unique_ptr<KeyVerifier> verifier;
    };
    std::unordered_map<std::string, Counted> keys_;  // by the key's point
};

}  // namespace tse

#endif
