#include "log_verify.h"

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

Verification judgeLog(const LogMessage& message, const PublicKey& key, const KeyVerifier* verifier,
                      VerifyScratch* scratch)
{
    if (ByteView(message.serialNumber) != ByteView(key.serialNumber())) {
        return outcome(Verdict::WrongKey, "the key's SHA-256 " + toHex(key.serialNumber()) +
                                              " is not the log's serial number " + toHex(message.serialNumber));
    }
    const SignatureAlgorithm* algorithm = algorithmByOid(message.signatureAlgorithmOid);
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
        return outcome(Verdict::Malformed, "the signature has " + std::to_string(message.signatureValue.size()) +
                                               " bytes; r and s on " + std::string(key.curveInfo().displayName) +
                                               " make " + std::to_string(expected));
    }
    const bool holds =
        verifier ? verifier->verify(SignatureCheck{algorithm->hash, message.signedOctets, message.signatureValue}, *scratch)
                 : verifyPlain(key, algorithm->hash, message.signedOctets, message.signatureValue);
    if (!holds) {
        return outcome(Verdict::Invalid, "the signature does not match the signed data (" +
                                             std::string(algorithm->name) + " on " +
                                             std::string(key.curveInfo().displayName) + ")");
    }
    return outcome(Verdict::Valid);
}

}  // namespace

Verification verifyLog(const LogMessage& message, const PublicKey& key)
{
    return judgeLog(message, key, nullptr, nullptr);
}

Verification verifyLog(const LogMessage& message, const KeyVerifier& verifier, VerifyScratch& scratch)
{
    return judgeLog(message, verifier.key(), &verifier, &scratch);
}

}  // namespace tse
