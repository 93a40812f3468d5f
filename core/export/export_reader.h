#ifndef TSE_CORE_EXPORT_READER_H
#define TSE_CORE_EXPORT_READER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bytes.h"
#include "result.h"

namespace tse {

// A member of a TSE export that is never unpacked to disk: the bytes stay
// in memory only as long as the visitor keeps them.
struct ExportMember {
    // As in the archive, relative to the directory, or the path given. An
    // archive's names arrive in UTF-8 whatever the process's locale; a name
    // whose bytes are no UTF-8 (a TAR written where another character set
    // was in use) keeps its bytes, for escapeText to show, and says so.
    std::string name;
    bool nameIsUtf8 = true;
    // The bytes, or why there are none, in words that follow the member's
    // name: "is larger than 16 MiB (B bytes)", "is cut off after ...", "is
    // encrypted", "is a symbolic link to T", "is not a regular file".
    Result<Bytes> contents = Error{"was not read"};
    bool standalone = false;  // a file given by itself, not a member of an archive or directory
    bool special = false;     // a link, device or FIFO in an archive: never read
};

// One thing to read: an archive (several files when it is split into
// X.tar.001, X.tar.002, ...), a directory, or a single file.
struct ExportSource {
    enum class Kind { Archive, Directory, File };
    Kind kind = Kind::File;
    std::vector<std::string> paths;
    bool zip = false;           // an archive may also be a ZIP file (bookkeeping exports often are)
    std::string label() const;  // the first path, as the user gave it
};

// The error names the first path that does not exist.
Result<std::vector<ExportSource>> groupExportPaths(const std::vector<std::string>& paths);

// The bytes on disk that reading the source will go through, for progress.
uint64_t sourceSize(const ExportSource& source);

// How reading a source that could be opened went. One that cannot be
// opened at all (no export) is an error instead.
struct ExportRead {
    size_t members = 0;  // regular members handed to the visitor
    // Set when the archive ends before its end: no end-of-archive marker,
    // cut inside a member, a split part missing or short, or a compressed
    // stream that stops early; it says what was read up to where. The
    // members before the break were handed on all the same.
    std::optional<std::string> truncation;
};

using MemberVisitor = std::function<void(ExportMember&&)>;
using ByteProgress = std::function<void(uint64_t bytesDone)>;

// Hands each regular member to the visitor in archive order, plain or
// compressed (gzip, bzip2, xz); directory entries are skipped. A member
// above maxMemberSize arrives without contents, and is never held whole.
Result<ExportRead> readExportSource(const ExportSource& source, size_t maxMemberSize, const MemberVisitor& visit,
                                    const ByteProgress& progress = {});

}  // namespace tse

#endif
