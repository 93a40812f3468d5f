#include "copy_detection.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>

namespace tse {
namespace {

// The groups of ordinals whose logs may be copies of one another.
std::vector<std::vector<uint64_t>> possibleCopies(const LogTable& logs)
{
    std::vector<const LogTable::Row*> sorted;
    for (size_t i = 0; i < logs.size(); ++i) {
        const LogTable::Row& row = logs.row(i);
        if (row.hasCounter() || row.reason != 0) sorted.push_back(&row);
    }
    // Texts are pooled, so equal ids are equal texts.
    const auto key = [](const LogTable::Row* row) {
        return std::make_tuple(row->serialNumber, row->hasCounter(), row->counter,
                               row->serialNumber == 0 ? row->reason : 0u);
    };
    std::sort(sorted.begin(), sorted.end(),
              [&](const LogTable::Row* a, const LogTable::Row* b) { return key(a) < key(b); });
    std::vector<std::vector<uint64_t>> groups;
    for (size_t i = 0; i < sorted.size();) {
        size_t j = i + 1;
        while (j < sorted.size() && key(sorted[j]) == key(sorted[i])) ++j;
        if (j - i > 1) {
            groups.emplace_back();
            for (size_t k = i; k < j; ++k) groups.back().push_back(sorted[k]->ordinal);
        }
        i = j;
    }
    return groups;
}

}  // namespace

Digest digestOf(ByteView data)
{
    const Bytes hash = sha256(data);
    Digest digest;
    std::copy(hash.begin(), hash.end(), digest.begin());
    return digest;
}

size_t dropCopiedLogs(LogTable& logs, const std::vector<ExportSource>& sources, size_t maxMemberSize)
{
    const std::vector<std::vector<uint64_t>> groups = possibleCopies(logs);
    if (groups.empty()) return 0;
    std::unordered_map<uint64_t, size_t> groupOf;
    for (size_t g = 0; g < groups.size(); ++g) {
        for (const uint64_t ordinal : groups[g]) groupOf.emplace(ordinal, g);
    }
    std::vector<std::unordered_set<Digest, DigestHash>> seen(groups.size());
    std::unordered_set<uint64_t> copies;
    uint64_t ordinal = 0;
    for (const ExportSource& source : sources) {
        const Result<ExportRead> reread = readExportSource(source, maxMemberSize, [&](ExportMember&& member) {
            const auto found = groupOf.find(++ordinal);
            if (found == groupOf.end() || !member.contents) return;
            if (!seen[found->second].insert(digestOf(*member.contents)).second) copies.insert(ordinal);
        });
        // The first reading reported any failure; the copies met before it stand.
        if (!reread) break;
    }
    if (!copies.empty()) logs.removeOrdinals(copies);
    return copies.size();
}

}  // namespace tse
