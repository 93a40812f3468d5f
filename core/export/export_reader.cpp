#include "export_reader.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>

#include <archive.h>
#include <archive_entry.h>

#include "export_names.h"
#include "file_reader.h"

namespace tse {
namespace {

namespace fs = std::filesystem;

constexpr size_t READ_BLOCK = 64 * 1024;
constexpr int MAX_SPLIT_PARTS = 999;

struct ArchiveFree {
    void operator()(archive* a) const { archive_read_free(a); }
};
using ArchivePtr = std::unique_ptr<archive, ArchiveFree>;

// "X.tar.001" -> "X.tar"; "" when the path is not the first part of a split archive.
std::string splitBase(const std::string& path)
{
    if (path.size() < 5 || path.compare(path.size() - 4, 4, ".001") != 0) return {};
    return path.substr(0, path.size() - 4);
}

std::string partName(const std::string& base, int number)
{
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".%03d", number);
    return base + suffix;
}

std::vector<std::string> splitParts(const std::string& base)
{
    std::vector<std::string> parts;
    std::error_code error;
    for (int n = 1; n <= MAX_SPLIT_PARTS && fs::is_regular_file(partName(base, n), error); ++n) {
        parts.push_back(partName(base, n));
    }
    return parts;
}

std::string archiveError(archive* a)
{
    const char* text = archive_error_string(a);
    return text ? text : "unknown archive error";
}

// Reads one member's data, at most `limit` bytes; a larger member is drained
// in blocks, never held.
void readMemberData(archive* a, archive_entry* entry, size_t limit, ExportMember& member)
{
    if (archive_entry_size_is_set(entry) && archive_entry_size(entry) > static_cast<la_int64_t>(limit)) {
        member.error = "is larger than " + std::to_string(limit >> 20) + " MiB (" +
                       std::to_string(archive_entry_size(entry)) + " bytes)";
        archive_read_data_skip(a);
        return;
    }
    Bytes data;
    uint8_t block[READ_BLOCK];
    while (true) {
        const la_ssize_t got = archive_read_data(a, block, sizeof block);
        if (got < 0) {
            member.error = "cannot be read: " + archiveError(a);
            return;
        }
        if (got == 0) break;
        if (data.size() + static_cast<size_t>(got) > limit) {
            member.error = "is larger than " + std::to_string(limit >> 20) + " MiB";
            archive_read_data_skip(a);
            return;
        }
        data.insert(data.end(), block, block + got);
    }
    member.contents = std::move(data);
}

ExportRead readArchive(const ExportSource& source, size_t limit, const MemberVisitor& visit,
                       const ByteProgress& progress)
{
    ArchivePtr a(archive_read_new());
    archive_read_support_filter_all(a.get());
    archive_read_support_format_tar(a.get());
    if (source.zip) archive_read_support_format_zip(a.get());
    std::vector<const char*> names;
    for (const std::string& path : source.paths) names.push_back(path.c_str());
    names.push_back(nullptr);
    ExportRead result;
    if (archive_read_open_filenames(a.get(), names.data(), READ_BLOCK) != ARCHIVE_OK) {
        result.error = source.label() + " cannot be opened as a TAR archive: " + archiveError(a.get());
        return result;
    }
    archive_entry* entry = nullptr;
    size_t members = 0;
    while (true) {
        const int status = archive_read_next_header(a.get(), &entry);
        if (status == ARCHIVE_EOF) break;
        if (status < ARCHIVE_WARN) {
            result.opened = members > 0;
            result.error = source.label() + (members > 0 ? " breaks off after " + std::to_string(members) + " members: "
                                                         : " is not a TAR archive: ") +
                           archiveError(a.get());
            return result;
        }
        ++members;
        if (archive_entry_filetype(entry) == AE_IFDIR) continue;
        ExportMember member;
        const char* name = archive_entry_pathname(entry);
        member.name = name ? name : "";
        member.source = source.label();
        if (archive_entry_filetype(entry) != AE_IFREG) {
            member.error = "is not a regular file";
            archive_read_data_skip(a.get());
        } else {
            readMemberData(a.get(), entry, limit, member);
        }
        visit(std::move(member));
        if (progress) progress(static_cast<uint64_t>(archive_filter_bytes(a.get(), -1)));
    }
    result.opened = true;
    return result;
}

ExportRead readDirectory(const ExportSource& source, size_t limit, const MemberVisitor& visit,
                         const ByteProgress& progress)
{
    const fs::path root(source.paths.front());
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
        if (it->is_regular_file(error)) files.push_back(it->path());
    }
    if (error) return ExportRead{false, source.label() + " cannot be listed: " + error.message()};
    std::sort(files.begin(), files.end());
    uint64_t done = 0;
    for (const fs::path& file : files) {
        ExportMember member;
        member.name = file.lexically_relative(root).generic_string();
        member.source = source.label();
        FileRead read = readFileBounded(file.string(), limit);
        if (read.contents) done += read.contents->size();
        member.contents = std::move(read.contents);
        member.error = read.error;
        visit(std::move(member));
        if (progress) progress(done);
    }
    return ExportRead{true, {}};
}

ExportRead readSingleFile(const ExportSource& source, size_t limit, const MemberVisitor& visit)
{
    ExportMember member;
    member.name = source.label();
    member.source = source.label();
    member.standalone = true;
    FileRead read = readFileBounded(member.name, limit);
    member.contents = std::move(read.contents);
    member.error = read.error;
    visit(std::move(member));
    return ExportRead{true, {}};
}

}  // namespace

std::string ExportSource::label() const
{
    return paths.empty() ? std::string() : paths.front();
}

ExportGrouping groupExportPaths(const std::vector<std::string>& paths)
{
    ExportGrouping grouping;
    std::set<std::string> taken;
    for (const std::string& path : paths) {
        if (taken.count(path)) continue;
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (!fs::exists(status)) {
            grouping.error = path + " does not exist";
            return grouping;
        }
        ExportSource source;
        source.paths = {path};
        const std::string base = splitBase(path);
        if (fs::is_directory(status)) {
            source.kind = ExportSource::Kind::Directory;
        } else if (!base.empty()) {
            source.kind = ExportSource::Kind::Archive;
            source.paths = splitParts(base);
        } else if (classifyMember(path) == MemberKind::Other) {
            source.kind = ExportSource::Kind::Archive;
        }
        taken.insert(source.paths.begin(), source.paths.end());
        grouping.sources.push_back(std::move(source));
    }
    return grouping;
}

uint64_t sourceSize(const ExportSource& source)
{
    std::error_code error;
    uint64_t total = 0;
    if (source.kind == ExportSource::Kind::Directory) {
        for (fs::recursive_directory_iterator it(source.paths.front(), error), end; !error && it != end;
             it.increment(error)) {
            if (it->is_regular_file(error)) total += it->file_size(error);
        }
        return total;
    }
    for (const std::string& path : source.paths) {
        const auto size = fs::file_size(path, error);
        if (!error) total += size;
    }
    return total;
}

ExportRead readExportSource(const ExportSource& source, size_t maxMemberSize, const MemberVisitor& visit,
                            const ByteProgress& progress)
{
    switch (source.kind) {
    case ExportSource::Kind::Archive: return readArchive(source, maxMemberSize, visit, progress);
    case ExportSource::Kind::Directory: return readDirectory(source, maxMemberSize, visit, progress);
    case ExportSource::Kind::File: return readSingleFile(source, maxMemberSize, visit);
    }
    return ExportRead{};
}

}  // namespace tse
