#include "log_verify.h"

#include <memory>
#include <optional>

#include "text.h"

namespace tse {
namespace {

Verification outcome(Verdict verdict, std::string reason = {})
{
    return Verification{verdict, std::move(reason)};
}

}  // namespace

std::string_view verdictName(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Valid: return "valid";
    case Verdict::Invalid: return "invalid";
    case Verdict::WrongKey: return "wrong-key";
    case Verdict::UnsupportedAlgorithm: return "unsupported-algorithm";
    case Verdict::Malformed: return "malformed";
    }
    return "unknown";
}

namespace {

// Everything but the signature: the key is the TSE's, the algorithm one this
// tool verifies, the signature of the curve's size. Sets `algorithm` when
// only the signature is left to check.
std::optional<Verification> judgeAllButSignature(const LogMessage& message, const PublicKey& key,
                                                 const SignatureAlgorithm*& algorithm)
{
    if (ByteView(message.serialNumber) != ByteView(key.serialNumber())) {
        return outcome(Verdict::WrongKey, "the key's SHA-256 " + toHex(key.serialNumber()) +
                                              " is not the log's serial number " + toHex(message.serialNumber));
    }
    algorithm = algorithmByOid(message.signatureAlgorithmOid);
    if (algorithm == nullptr) {
        return outcome(Verdict::UnsupportedAlgorithm,
                       "unsupported algorithm: the OID " + message.signatureAlgorithmOid + " is unknown");
    }
    if (!algorithm->supported) {
        return outcome(Verdict::UnsupportedAlgorithm, "unsupported algorithm: " + std::string(algorithm->name) +
                                                          " is recognised but not verified by this tool");
    }
    const size_t expected = 2 * key.curveInfo().fieldSize;
    if (message.signatureValue.size() != expected) {
        return outcome(Verdict::Malformed, "the signature has " +
                                               counted(message.signatureValue.size(), "byte", "bytes") +
                                               "; r and s on " + std::string(key.curveInfo().displayName) + " make " +
                                               std::to_string(expected));
    }
    return std::nullopt;
}

Verification signatureOutcome(bool holds, const SignatureAlgorithm& algorithm, const PublicKey& key)
{
    if (!holds) {
        return outcome(Verdict::Invalid, "the signature does not match the signed data (" +
                                             std::string(algorithm.name) + " on " +
                                             std::string(key.curveInfo().displayName) + ")");
    }
    return outcome(Verdict::Valid);
}

}  // namespace

Verification verifyLog(const LogMessage& message, const PublicKey& key)
{
    const SignatureAlgorithm* algorithm = nullptr;
    if (std::optional<Verification> early = judgeAllButSignature(message, key, algorithm)) return *early;
    return signatureOutcome(verifyPlain(key, algorithm->hash, message.signedOctets, message.signatureValue), *algorithm,
                            key);
}

Verification verifyLog(const LogMessage& message, const KeyVerifier& verifier, VerifyScratch& scratch)
{
    return std::move(verifyLogs({&message}, verifier, scratch).front());
}

std::vector<Verification> verifyLogs(const std::vector<const LogMessage*>& messages, const KeyVerifier& verifier,
                                     VerifyScratch& scratch)
{
    const PublicKey& key = verifier.key();
    std::vector<Verification> out(messages.size());
    std::vector<const SignatureAlgorithm*> algorithms(messages.size(), nullptr);
    std::vector<SignatureCheck> checks;
    std::vector<size_t> checked;
    for (size_t i = 0; i < messages.size(); ++i) {
        if (std::optional<Verification> early = judgeAllButSignature(*messages[i], key, algorithms[i])) {
            out[i] = std::move(*early);
            continue;
        }
        checks.push_back(SignatureCheck{algorithms[i]->hash, messages[i]->signedOctets, messages[i]->signatureValue});
        checked.push_back(i);
    }
    std::unique_ptr<bool[]> holds(new bool[checks.size() + 1]);
    verifier.verify(checks.data(), checks.size(), holds.get(), scratch);
    for (size_t k = 0; k < checked.size(); ++k) {
        out[checked[k]] = signatureOutcome(holds[k], *algorithms[checked[k]], key);
    }
    return out;
}

}  // namespace tse
