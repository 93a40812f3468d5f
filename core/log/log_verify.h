#ifndef TSE_CORE_LOG_VERIFY_H
#define TSE_CORE_LOG_VERIFY_H

#include <string>
#include <string_view>
#include <vector>

#include "key_verifier.h"
#include "log_message.h"
#include "public_key.h"
#include "signature.h"

namespace tse {

enum class Verdict { Valid, Invalid, WrongKey, UnsupportedAlgorithm, Malformed };

// "valid", "invalid", "wrong-key", "unsupported-algorithm", "malformed"
std::string_view verdictName(Verdict verdict);

struct Verification {
    Verdict verdict = Verdict::Malformed;
    std::string reason;  // one line a user understands; empty when valid

    bool valid() const { return verdict == Verdict::Valid; }
};

// Checks that the key is the TSE's (its hash is the serial number), that the
// algorithm is one this tool verifies, and then the signature itself.
Verification verifyLog(const LogMessage& message, const PublicKey& key);
// The same through a verifier of the key, for the many logs of one TSE.
Verification verifyLog(const LogMessage& message, const KeyVerifier& verifier, VerifyScratch& scratch);
// Many logs of the verifier's key at once, which shares the inversions
// among them; one verification per message, in their order.
std::vector<Verification> verifyLogs(const std::vector<const LogMessage*>& messages, const KeyVerifier& verifier,
                                     VerifyScratch& scratch);

}  // namespace tse

#endif
