#ifndef TSE_CORE_LOG_JUDGEMENT_H
#define TSE_CORE_LOG_JUDGEMENT_H

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>

#include "bytes.h"
#include "log_message.h"
#include "log_verify.h"
#include "public_key.h"

namespace tse {

// What every subcommand says of one log. verify, audit and the bookkeeping
// check all judge through judgeLog, so one log gets one verdict and one
// reason wherever it is looked at.
enum class LogVerdict { Valid, Invalid, NoCertificate, Unreadable };
std::string_view logVerdictName(LogVerdict verdict);  // "valid", "invalid", "no-certificate", "unreadable"

struct LogJudgement {
    LogVerdict verdict = LogVerdict::Unreadable;
    std::string reason;  // one line a user understands; empty when valid
};

// The keys at hand, found by the serial number a log names (the SHA-256 of
// the key's point). The first key added for a serial number stays. An entry
// may carry what its user keeps per key (the audit keeps there the tables
// that check the key's many logs fast), so that there is one lookup.
template <typename Extra = std::monostate>
class BasicKeyIndex {
public:
    struct Entry {
        PublicKey key;
        std::string source;  // the file it came from
        Extra extra;
    };

    // False when a key of that serial number is known already.
    bool add(const PublicKey& key, std::string source, Extra extra = Extra())
    {
        return entries_.emplace(serialKey(key.serialNumber()), Entry{key, std::move(source), std::move(extra)}).second;
    }
    // nullptr when no key has that serial number. Entries never move, so
    // the pointer stays good while keys are added.
    const Entry* find(ByteView serialNumber) const
    {
        const auto found = entries_.find(serialKey(serialNumber));
        return found == entries_.end() ? nullptr : &found->second;
    }
    size_t size() const { return entries_.size(); }

private:
    static std::string serialKey(ByteView serialNumber)
    {
        return std::string(serialNumber.begin(), serialNumber.end());
    }

    std::unordered_map<std::string, Entry> entries_;  // by the raw serial number
};
using KeyIndex = BasicKeyIndex<>;

// A log whose bytes do not parse: the parser's words and where it stopped.
LogJudgement unreadableLog(const Error& error);

// Judges a readable log against the key its serial number names, or
// nullptr when no such key is at hand.
LogJudgement judgeLog(const LogMessage& message, const PublicKey* key);

// The judgement of a log whose signature was checked already (by a faster
// path, or many at once): the same words judgeLog gives.
LogJudgement judgeVerification(const LogMessage& message, Verification verification);
// The same for a log rebuilt from what a receipt or a bookkeeping row
// states, signed under the algorithm it names (nullptr: none known).
LogJudgement judgeVerification(const SignatureAlgorithm* algorithm, Verification verification);

}  // namespace tse

#endif
