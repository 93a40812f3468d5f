// The per-key verifier against libcrypto's own verification: on every curve
// with random keys, messages and hashes, valid signatures and every kind of
// broken one must get libcrypto's verdict, one by one and in blocks.
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "signature_cases.h"
#include "signature_search.h"

namespace tse {
namespace {

class KeyVerifierTest : public ::testing::TestWithParam<Curve> {};

TEST_P(KeyVerifierTest, AgreesWithLibcryptoOnValidAndBrokenSignatures)
{
    std::mt19937_64 random(static_cast<uint64_t>(GetParam()) * 7919 + 17);
    VerifyScratch scratch;
    std::map<std::string, int> validByKind;
    size_t checked = 0;
    for (int keyRound = 0; keyRound < 3; ++keyRound) {
        const Signer signer(GetParam()), other(GetParam());
        const KeyVerifier fast(signer.publicKey(), 0, KeyVerifier::Path::Tables);
        ASSERT_TRUE(fast.usesTables());
        EXPECT_LE(fast.tableBytes(), KeyVerifier::MAX_TABLE_BYTES);
        const KeyVerifier plain(signer.publicKey(), 0, KeyVerifier::Path::Plain);
        std::vector<SignatureCase> cases;
        for (int round = 0; round < 12; ++round) {
            for (SignatureCase& c : signatureCases(signer, other, random)) cases.push_back(std::move(c));
        }
        std::vector<SignatureCheck> checks;
        for (const SignatureCase& c : cases) checks.push_back(c.check());
        // Blocks of the verifier's own size and beyond, with the broken
        // cases between the valid ones.
        std::unique_ptr<bool[]> inBlocks(new bool[checks.size()]);
        fast.verify(checks.data(), checks.size(), inBlocks.get(), scratch);
        for (size_t i = 0; i < cases.size(); ++i) {
            const bool expected = referenceVerdict(signer.publicKey(), cases[i]);
            EXPECT_EQ(inBlocks[i], expected) << cases[i].kind;
            EXPECT_EQ(fast.verify(checks[i], scratch), expected) << cases[i].kind << " (alone)";
            EXPECT_EQ(plain.verify(checks[i], scratch), expected) << cases[i].kind << " (plain)";
            validByKind[cases[i].kind] += expected;
            ++checked;
        }
    }
    // The generator's cases mean what they say: the valid kinds verify and
    // the broken ones do not.
    const int rounds = 3 * 12;
    EXPECT_EQ(validByKind["valid"], rounds);
    EXPECT_EQ(validByKind["s replaced by n - s (also valid)"], rounds);
    EXPECT_EQ(validByKind["u1 = 0 (e = 0), valid"], rounds);
    EXPECT_EQ(validByKind["u1 = 0 (e = n), valid"], rounds);
    for (const char* broken : {"r = 0", "s = n", "r + n", "s - 1", "another key", "sum at infinity"}) {
        EXPECT_EQ(validByKind[broken], 0) << broken;
    }
    EXPECT_GE(checked, 700u);
}

// r is x(R) mod n, and an x(R) in [n, p) leaves r = x(R) - n: a verifier
// that compares x(R) itself, unreduced, refuses what libcrypto accepts.
// The key is made for the signature, so each case has a key of its own.
TEST_P(KeyVerifierTest, AgreesWithLibcryptoWhenXOfRIsAboveTheOrder)
{
    std::mt19937_64 random(static_cast<uint64_t>(GetParam()) * 104729 + 3);
    VerifyScratch scratch;
    for (int round = 0; round < 2; ++round) {
        const CraftedSignature crafted = signatureWithLargeX(GetParam(), random);
        SignatureCase otherMessage = crafted.signatureCase;
        otherMessage.data.push_back(0x01);
        const KeyVerifier fast(crafted.key, 0, KeyVerifier::Path::Tables);
        const KeyVerifier plain(crafted.key, 0, KeyVerifier::Path::Plain);
        const std::vector<SignatureCheck> block = {crafted.signatureCase.check(), otherMessage.check()};
        bool inBlock[2] = {};
        fast.verify(block.data(), block.size(), inBlock, scratch);
        const bool cases[][2] = {{referenceVerdict(crafted.key, crafted.signatureCase), true},
                                 {referenceVerdict(crafted.key, otherMessage), false}};
        for (size_t i = 0; i < 2; ++i) {
            ASSERT_EQ(cases[i][0], cases[i][1]) << "libcrypto's verdict on case " << i;
            EXPECT_EQ(inBlock[i], cases[i][1]) << "in a block, case " << i;
            EXPECT_EQ(fast.verify(block[i], scratch), cases[i][1]) << "alone, case " << i;
            EXPECT_EQ(plain.verify(block[i], scratch), cases[i][1]) << "plain, case " << i;
        }
    }
}

// One signature against many messages: for each valid and broken case,
// and the crafted x(R) >= n, the search finds what libcrypto says, with
// the curve's table of G (none on P-256, where libcrypto has its own) and
// with libcrypto's multiplication; of several readings it names the first
// that holds; a gate that closes ends it.
TEST_P(KeyVerifierTest, SignatureSearchAgreesWithLibcrypto)
{
    std::mt19937_64 random(static_cast<uint64_t>(GetParam()) * 31 + 7);
    const std::shared_ptr<const GeneratorTable> table = generatorTable(GetParam());
    VerifyScratch scratch;
    const Signer signer(GetParam()), other(GetParam());
    std::vector<std::pair<PublicKey, SignatureCase>> cases;
    for (int round = 0; round < 2; ++round) {
        for (SignatureCase& c : signatureCases(signer, other, random)) {
            if (!c.prehashed) cases.emplace_back(signer.publicKey(), std::move(c));
        }
    }
    const CraftedSignature crafted = signatureWithLargeX(GetParam(), random);
    cases.emplace_back(crafted.key, crafted.signatureCase);
    for (const auto& [key, c] : cases) {
        const bool expected = referenceVerdict(key, c);
        for (const std::shared_ptr<const GeneratorTable>& multiples :
             {table, std::shared_ptr<const GeneratorTable>()}) {
            const SignatureSearch search(key, {c.signature}, multiples);
            EXPECT_EQ(search.find(c.hash, c.data, scratch).has_value(), expected)
                << c.kind << (multiples ? " (table)" : "");
        }
    }
    const Bytes message = {1, 2, 3};
    const Bytes valid = signer.signPlain(Hash::Sha256, message);
    const SignatureSearch search(signer.publicKey(),
                                 {other.signPlain(Hash::Sha256, message), Bytes(3, 0), valid, valid}, table);
    EXPECT_EQ(search.find(Hash::Sha256, message, scratch), std::optional<size_t>(2));
    EXPECT_EQ(search.find(Hash::Sha384, message, scratch), std::nullopt);
    int gates = 0;
    EXPECT_EQ(search.find(Hash::Sha256, message, scratch, [&] { return ++gates <= 2; }), std::nullopt);
    EXPECT_EQ(gates, 3);
}

INSTANTIATE_TEST_SUITE_P(EveryCurve, KeyVerifierTest,
                         ::testing::Values(Curve::BrainpoolP256r1, Curve::BrainpoolP384r1, Curve::BrainpoolP512r1,
                                           Curve::Secp256r1, Curve::Secp384r1, Curve::Secp521r1),
                         [](const ::testing::TestParamInfo<Curve>& param) {
                             return std::string(curveInfo(param.param).displayName);
                         });

// One verifier, its tables read by several threads at once, each with its
// own scratch.
TEST(KeyVerifier, ServesManyThreads)
{
    const Signer signer(Curve::BrainpoolP384r1), other(Curve::BrainpoolP384r1);
    const KeyVerifier fast(signer.publicKey(), 0, KeyVerifier::Path::Tables);
    std::mt19937_64 random(5);
    std::vector<SignatureCase> cases;
    for (int round = 0; round < 8; ++round) {
        for (SignatureCase& c : signatureCases(signer, other, random)) cases.push_back(std::move(c));
    }
    std::vector<bool> expected;
    for (const SignatureCase& c : cases) expected.push_back(referenceVerdict(signer.publicKey(), c));
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&, t] {
            VerifyScratch scratch;
            for (int pass = 0; pass < 3; ++pass) {
                for (size_t i = 0; i < cases.size(); ++i)
                    mismatches[t] += fast.verify(cases[i].check(), scratch) != expected[i];
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int count : mismatches) EXPECT_EQ(count, 0);
}

// One scratch for keys on different curves, in turn.
TEST(KeyVerifier, OneScratchServesKeysOnDifferentCurves)
{
    VerifyScratch scratch;
    for (int pass = 0; pass < 2; ++pass) {
        for (Curve curve : {Curve::BrainpoolP256r1, Curve::Secp521r1}) {
            const Signer signer(curve);
            const KeyVerifier fast(signer.publicKey(), 0, KeyVerifier::Path::Tables);
            const Bytes message = {1, 2, 3};
            const Bytes signature = signer.signPlain(Hash::Sha384, message);
            EXPECT_TRUE(fast.verify(SignatureCheck{Hash::Sha384, message, signature}, scratch));
            EXPECT_FALSE(fast.verify(SignatureCheck{Hash::Sha256, message, signature}, scratch));
        }
    }
}

TEST(KeyVerifier, FewSignaturesTakeThePlainPath)
{
    const Signer signer(Curve::BrainpoolP256r1);
    EXPECT_FALSE(KeyVerifier(signer.publicKey(), 3).usesTables());
    EXPECT_EQ(KeyVerifier(signer.publicKey(), KeyVerifier::minSignatures(Curve::BrainpoolP256r1)).usesTables(),
              KeyVerifier::tablesPayOff(Curve::BrainpoolP256r1));
}

}  // namespace
}  // namespace tse
