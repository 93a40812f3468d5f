// The per-key verifier against libcrypto on signatures the fuzzer shapes:
// its first octets choose the curve, the hash and how the signature is
// made (signed and then altered, or taken from the input as it is), the
// rest is the message and the alteration. Any verdict that differs from
// libcrypto's aborts.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "signature_cases.h"

namespace {

struct CurveKeys {
    tse::Signer signer;
    tse::KeyVerifier fast;

    explicit CurveKeys(tse::Curve curve) : signer(curve), fast(signer.publicKey(), 0, tse::KeyVerifier::Path::Tables) {}
};

CurveKeys& keys(size_t index)
{
    static const tse::Curve curves[] = {tse::Curve::BrainpoolP256r1, tse::Curve::BrainpoolP384r1,
                                        tse::Curve::BrainpoolP512r1, tse::Curve::Secp256r1,
                                        tse::Curve::Secp384r1,       tse::Curve::Secp521r1};
    static std::vector<std::unique_ptr<CurveKeys>> all(6);
    if (!all[index]) all[index] = std::make_unique<CurveKeys>(curves[index]);
    return *all[index];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4) return 0;
    CurveKeys& key = keys(data[0] % 6);
    const size_t half = key.signer.publicKey().curveInfo().fieldSize;
    tse::SignatureCase c;
    c.kind = "fuzzed";
    c.hash = static_cast<tse::Hash>(data[1] % 8);
    const unsigned mode = data[2] % 4;
    const size_t split = data[3] % (size - 3);  // message | alteration
    c.data.assign(data + 4, data + 4 + std::min(split, size - 4));
    const tse::ByteView tail(data + 4 + c.data.size(), size - 4 - c.data.size());
    switch (mode) {
    case 0:  // signed, then octets flipped by the tail
        c.signature = key.signer.signPlain(c.hash, c.data);
        for (size_t i = 0; i < tail.size() && i < c.signature.size(); ++i) c.signature[i] ^= tail[i];
        break;
    case 1:  // r || s as given, any length
        c.signature = tail.copy();
        break;
    case 2:  // a hash value of the fuzzer's, signed, then altered
        c.prehashed = true;
        c.signature = key.signer.signDigestPlain(c.data);
        for (size_t i = 0; i < tail.size() && i < c.signature.size(); ++i) c.signature[i] ^= tail[i];
        break;
    default:  // a hash value of the fuzzer's with r || s as given
        c.prehashed = true;
        c.signature = tail.copy();
        break;
    }
    if (c.signature.size() > 4 * half) return 0;
    tse::VerifyScratch scratch;
    const bool fast = key.fast.verify(c.check(), scratch);
    const bool expected = tse::referenceVerdict(key.signer.publicKey(), c);
    if (fast != expected) {
        std::fprintf(stderr, "key verifier says %d, libcrypto %d, on %s\n%s", fast, expected,
                     std::string(key.signer.publicKey().curveInfo().displayName).c_str(),
                     key.signer.privateKeyPem().c_str());
        std::abort();
    }
    return 0;
}
