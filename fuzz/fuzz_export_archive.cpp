// Bytes read as a TSE export archive (TAR, compressed or not) member by
// member, through an in-memory file so that the reader sees a path as it
// does for a user's archive.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "export_reader.h"

namespace {

constexpr size_t MAX_MEMBER_SIZE = 1 << 20;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int fd = memfd_create("export", MFD_CLOEXEC);
    if (fd < 0) return 0;
    if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    tse::ExportSource source;
    source.kind = tse::ExportSource::Kind::Archive;
    source.paths = {"/proc/self/fd/" + std::to_string(fd)};
    size_t members = 0;
    const tse::Result<tse::ExportRead> read =
        tse::readExportSource(source, MAX_MEMBER_SIZE, [&](tse::ExportMember&& member) {
            ++members;
            if (!member.contents && member.contents.error().message.empty()) std::abort();
            if (member.contents && member.contents->size() > MAX_MEMBER_SIZE) std::abort();
        });
    if (!read && read.error().message.empty()) std::abort();
    if (read && read->members > members) std::abort();
    close(fd);
    return 0;
}
