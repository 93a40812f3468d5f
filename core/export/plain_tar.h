#ifndef TSE_CORE_PLAIN_TAR_H
#define TSE_CORE_PLAIN_TAR_H

#include <cstddef>
#include <cstdint>

#include "export_reader.h"

namespace tse {

// How far the short way through a TAR got.
struct PlainTarRead {
    bool complete = false;    // read to the end-of-archive marker
    bool compressed = false;  // the TAR came through a decompressing filter
    size_t handed = 0;        // members handed to the visitor, all regular files
    uint64_t tarBytes = 0;    // TAR bytes read, the end-of-archive marker included
};

// The exports TSEs write are TARs of plain ustar members, hundreds of
// thousands of them, and libarchive's TAR reader spends more on each
// member's header (it converts every name to wide characters, whatever the
// caller asks for) than the audit on everything else but the signature.
// This reads such an archive's members from libarchive's decompressed
// stream: regular files and directories with well-formed headers. It stops
// at the first thing it does not read exactly as libarchive would (any
// other member type, an extended header, a checksum that does not add up, a
// size in base 256, a stream that ends early or fails) and says how many
// members it handed on, so that the caller reads the archive again with
// libarchive's reader and skips those.
PlainTarRead readPlainTar(const ExportSource& source, size_t maxMemberSize, const MemberVisitor& visit,
                          const ByteProgress& progress);

}  // namespace tse

#endif
