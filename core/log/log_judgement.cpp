#include "log_judgement.h"

#include "algorithms.h"
#include "log_verify.h"

namespace tse {

std::string_view logVerdictName(LogVerdict verdict)
{
    switch (verdict) {
    case LogVerdict::Valid: return "valid";
    case LogVerdict::Invalid: return "invalid";
    case LogVerdict::NoCertificate: return "no-certificate";
    case LogVerdict::Unreadable: return "unreadable";
    }
    return "";
}

LogJudgement unreadableLog(const Error& error)
{
    return LogJudgement{LogVerdict::Unreadable,
                        error.message + " (at byte " + std::to_string(error.offset.value_or(0)) + ")"};
}

LogJudgement judgeLog(const LogMessage& message, const PublicKey* key)
{
    if (key == nullptr) {
        return LogJudgement{LogVerdict::NoCertificate, "no certificate has a key whose SHA-256 is the serial number " +
                                                           toHex(message.serialNumber)};
    }
    return judgeVerification(message, verifyLog(message, *key));
}

LogJudgement judgeVerification(const LogMessage& message, Verification verification)
{
    return judgeVerification(algorithmByOid(message.signatureAlgorithmOid), std::move(verification));
}

LogJudgement judgeVerification(const SignatureAlgorithm* algorithm, Verification verification)
{
    switch (verification.verdict) {
    case Verdict::Valid: return LogJudgement{LogVerdict::Valid, {}};
    case Verdict::Invalid:
    case Verdict::Malformed:
    case Verdict::WrongKey: break;
    case Verdict::UnsupportedAlgorithm:
        // A known algorithm this system cannot check leaves the signature
        // unproven, and the reason says why; an unknown one is no TSE log.
        if (algorithm == nullptr) {
            return LogJudgement{LogVerdict::Unreadable, std::move(verification.reason)};
        }
        break;
    }
    return LogJudgement{LogVerdict::Invalid, std::move(verification.reason)};
}

}  // namespace tse
