#ifndef TSE_CORE_COPY_DETECTION_H
#define TSE_CORE_COPY_DETECTION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "audit_report.h"
#include "bytes.h"
#include "export_reader.h"

namespace tse {

// The SHA-256 of a member's or certificate's bytes, which tells copies apart
// from files that only share a name or a counter.
using Digest = std::array<uint8_t, 32>;
Digest digestOf(ByteView data);
struct DigestHash {
    size_t operator()(const Digest& d) const
    {
        size_t h;
        std::memcpy(&h, d.data(), sizeof h);
        return h;
    }
};

// The members other than logs (certificates, stray files) whose bytes came
// by before: a copy of one is not looked at again. Reading thread only.
class MemberDigests {
public:
    // True the first time these bytes come by.
    bool firstSighting(ByteView data) { return seen_.insert(digestOf(data)).second; }

private:
    std::unordered_set<Digest, DigestHash> seen_;
};

// A log whose bytes equal those of an earlier one counts once. Only the
// logs that may be copies (one TSE's with one signature counter, or
// unreadable ones that fail alike) are read a second time and hashed; every
// later copy is dropped from the table. Returns how many were dropped.
size_t dropCopiedLogs(LogTable& logs, const std::vector<ExportSource>& sources, size_t maxMemberSize);

}  // namespace tse

#endif
