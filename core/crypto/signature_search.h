#ifndef TSE_CORE_SIGNATURE_SEARCH_H
#define TSE_CORE_SIGNATURE_SEARCH_H

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "key_verifier.h"

namespace tse {

// The multiples of a curve's generator G that signed digits ask for, built
// once and then only read: one serves every search on the curve, on any
// number of threads.
struct GeneratorTable;

// The table of G for the curve; nullptr where libcrypto keeps a table of G
// of its own (P-256 on x86-64), which is faster than one of EC_POINT
// additions, or when libcrypto fails. Takes tens of milliseconds and up to
// KeyVerifier::MAX_TABLE_BYTES.
std::shared_ptr<const GeneratorTable> generatorTable(Curve curve);

// The few readings of one signature checked against many messages under
// one key, as the search for why a receipt fails does it. ECDSA holds for
// a hash value e exactly when e·G = s·R - r·Q for a point R whose x is r
// modulo n (multiply R = u1·G + u2·Q by s). Those points are found once
// per signature, so that a message then costs its hash and one multiple of
// G instead of a whole verification; the verdicts are libcrypto's.
// Copies share what was found, which is only ever read.
class SignatureSearch {
public:
    // Each signature is r || s of the key's field size each; one of another
    // size or with r or s out of range never holds. `table` is the curve's
    // generatorTable(), or nullptr for libcrypto's multiplication.
    SignatureSearch(const PublicKey& key, const std::vector<Bytes>& signatures,
                    std::shared_ptr<const GeneratorTable> table = nullptr);

    // Called before each signature is checked against a message; false
    // ends the search.
    using Gate = std::function<bool()>;

    // The first signature, in their order, that holds over the data's
    // hash; nullopt when none does or the gate ended the search. Throws
    // std::runtime_error when libcrypto fails: a check not done is no
    // verdict.
    std::optional<size_t> find(Hash hash, ByteView data, VerifyScratch& scratch, const Gate& mayCheck = {}) const;

    struct Found;  // known inside the crypto part only

private:
    std::shared_ptr<const Found> found_;
};

}  // namespace tse

#endif
