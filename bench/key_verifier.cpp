// The per-key verifier on its own. `key-verifier speed [N]` signs N
// messages per curve and prints how many signatures per second of process
// time libcrypto's path and the tables check, and what building the tables
// costs; `key-verifier differential N [SEED]` checks N generated cases (valid
// and broken signatures) against libcrypto's verdict and exits 1 on any
// difference.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <malloc.h>
#include <string>
#include <vector>

#include "signature_cases.h"

using namespace tse;

namespace {

const Curve CURVES[] = {Curve::BrainpoolP256r1, Curve::BrainpoolP384r1, Curve::BrainpoolP512r1,
                        Curve::Secp256r1,       Curve::Secp384r1,       Curve::Secp521r1};

double cpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int speed(size_t count)
{
    std::printf("%-16s %12s %12s %7s %10s %10s %10s\n", "curve", "plain/s", "tables/s", "ratio", "build ms",
                "table KiB", "(estimate)");
    for (Curve curve : CURVES) {
        const Signer signer(curve);
        std::vector<Bytes> messages, signatures;
        for (size_t i = 0; i < count; ++i) {
            messages.push_back(Bytes{static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8), 7, 7, 7});
            signatures.push_back(signer.signPlain(Hash::Sha384, messages.back()));
        }
        std::vector<SignatureCheck> checks;
        for (size_t i = 0; i < count; ++i) checks.push_back(SignatureCheck{Hash::Sha384, messages[i], signatures[i]});
        std::unique_ptr<bool[]> verdicts(new bool[count]);
        VerifyScratch scratch;
        const auto rate = [&](const KeyVerifier& verifier) {
            const double start = cpuSeconds();
            verifier.verify(checks.data(), count, verdicts.get(), scratch);
            const double seconds = cpuSeconds() - start;
            for (size_t i = 0; i < count; ++i) {
                if (!verdicts[i]) std::fprintf(stderr, "signature %zu failed\n", i), std::exit(2);
            }
            return static_cast<double>(count) / seconds;
        };
        const KeyVerifier plain(signer.publicKey(), count, KeyVerifier::Path::Plain);
        const size_t heapBefore = mallinfo2().uordblks;
        double start = cpuSeconds();
        const KeyVerifier tables(signer.publicKey(), count, KeyVerifier::Path::Tables);
        const double build = cpuSeconds() - start;
        const size_t heap = mallinfo2().uordblks - heapBefore;
        const double plainRate = rate(plain), tableRate = rate(tables);
        std::printf("%-16s %12.0f %12.0f %6.2fx %10.1f %10zu %10zu\n",
                    std::string(curveInfo(curve).displayName).c_str(), plainRate, tableRate, tableRate / plainRate,
                    build * 1000, heap / 1024, tables.tableBytes() / 1024);
    }
    return 0;
}

int differential(size_t count, uint64_t seed)
{
    std::mt19937_64 random(seed);
    VerifyScratch scratch;
    size_t done = 0, differences = 0, valid = 0;
    while (done < count) {
        for (Curve curve : CURVES) {
            const Signer signer(curve), other(curve);
            const KeyVerifier fast(signer.publicKey(), 0, KeyVerifier::Path::Tables);
            std::vector<SignatureCase> cases;
            for (int round = 0; round < 50; ++round) {
                for (SignatureCase& c : signatureCases(signer, other, random)) cases.push_back(std::move(c));
            }
            std::vector<SignatureCheck> checks;
            for (const SignatureCase& c : cases) checks.push_back(c.check());
            std::unique_ptr<bool[]> verdicts(new bool[checks.size()]);
            fast.verify(checks.data(), checks.size(), verdicts.get(), scratch);
            for (size_t i = 0; i < cases.size(); ++i) {
                const bool expected = referenceVerdict(signer.publicKey(), cases[i]);
                valid += expected;
                if (verdicts[i] != expected) {
                    ++differences;
                    std::printf("DIFFERENCE on %s: %s, libcrypto says %s\n",
                                std::string(curveInfo(curve).displayName).c_str(), cases[i].kind.c_str(),
                                expected ? "valid" : "invalid");
                }
            }
            done += cases.size();
        }
        // A line now and then, so that a long run shows where it is.
        std::printf("%zu cases, %zu differences so far\n", done, differences);
        std::fflush(stdout);
    }
    std::printf("%zu cases (%zu valid), %zu differences\n", done, valid, differences);
    return differences == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "speed") return speed(argc > 2 ? std::stoul(argv[2]) : 2000);
    if (mode == "differential" && argc > 2) {
        return differential(std::stoul(argv[2]), argc > 3 ? std::stoull(argv[3]) : 1);
    }
    std::fprintf(stderr, "usage: key-verifier speed [N] | differential N [SEED]\n");
    return 2;
}
