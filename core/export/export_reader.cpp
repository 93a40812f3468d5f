#include "export_reader.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include "export_names.h"
#include "file_reader.h"
#include "plain_tar.h"
#include "text.h"
#include "utf8_names.h"

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

std::string tooLarge(size_t limit)
{
    return "is larger than " + std::to_string(limit >> 20) + " MiB";
}

// Reads one member's data, at most `limit` bytes; a larger member is drained
// in blocks, never held. `intact` turns false when the archive itself
// breaks off inside the member.
Result<Bytes> readMemberData(archive* a, archive_entry* entry, size_t limit, bool& intact)
{
    const auto drain = [&](std::string why) -> Result<Bytes> {
        intact = archive_read_data_skip(a) >= ARCHIVE_WARN;
        if (!intact) why += " and breaks off: " + archiveError(a);
        return Error{why};
    };
    intact = true;
    const bool sized = archive_entry_size_is_set(entry) != 0;
    if (sized && archive_entry_size(entry) > static_cast<la_int64_t>(limit)) {
        return drain(tooLarge(limit) + " (" + std::to_string(archive_entry_size(entry)) + " bytes)");
    }
    Bytes data;
    if (sized) data.reserve(static_cast<size_t>(archive_entry_size(entry)));
    uint8_t block[READ_BLOCK];
    while (true) {
        const la_ssize_t got = archive_read_data(a, block, sizeof block);
        if (got < 0) {
            intact = false;
            return Error{"is cut off after " + counted(data.size(), "byte", "bytes") + ": " + archiveError(a)};
        }
        if (got == 0) return data;
        if (data.size() + static_cast<size_t>(got) > limit) return drain(tooLarge(limit));
        data.insert(data.end(), block, block + got);
    }
}

// The parts of a split archive that should lie between the first and the
// last one found, but do not, and a part shorter than the first (only the
// last may be): either cuts the archive's stream.
std::string splitProblem(const ExportSource& source)
{
    const std::string base = splitBase(source.paths.front());
    if (base.empty()) return {};
    std::error_code error;
    std::vector<std::string> missing;
    int last = static_cast<int>(source.paths.size());
    for (int n = last + 1; n <= MAX_SPLIT_PARTS; ++n) {
        if (fs::exists(partName(base, n), error)) last = n;
    }
    for (int n = static_cast<int>(source.paths.size()) + 1; n < last; ++n) {
        if (!fs::exists(partName(base, n), error)) missing.push_back(partName(base, n));
    }
    if (!missing.empty()) {
        std::string names;
        for (const std::string& name : missing) names += (names.empty() ? "" : ", ") + name;
        return "the split archive's part" + std::string(missing.size() > 1 ? "s " : " ") + names +
               (missing.size() > 1 ? " are" : " is") + " missing (parts up to " + partName(base, last) + " exist)";
    }
    const uintmax_t first = fs::file_size(source.paths.front(), error);
    for (size_t i = 1; !error && i + 1 < source.paths.size(); ++i) {
        const uintmax_t size = fs::file_size(source.paths[i], error);
        if (!error && size < first) {
            return "the split archive's part " + source.paths[i] + " holds " + counted(size, "byte", "bytes") +
                   ", fewer than the " + std::to_string(first) + " of " + source.paths.front() +
                   "; only the last part may be shorter";
        }
    }
    return {};
}

// The compression a file starts with, by its magic number; empty for none.
std::string compressionOf(const std::string& path)
{
    unsigned char head[6] = {};
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return {};
    const size_t got = std::fread(head, 1, sizeof head, file);
    std::fclose(file);
    if (got >= 2 && head[0] == 0x1F && head[1] == 0x8B) return "gzip";
    if (got >= 3 && head[0] == 'B' && head[1] == 'Z' && head[2] == 'h') return "bzip2";
    const unsigned char xz[6] = {0xFD, '7', 'z', 'X', 'Z', 0x00};
    if (got == 6 && std::equal(head, head + 6, xz)) return "xz";
    return {};
}

// Whether the compressed stream around the TAR runs to its proper end: the
// TAR reader stops at the end-of-archive marker and never looks at the rest.
// Reading on is bounded: what follows a TAR's end is padding.
std::string compressedStreamProblem(const ExportSource& source, uint64_t tarBytes)
{
    constexpr uint64_t MAX_AFTER_END = 64u << 20;
    ArchivePtr a(archive_read_new());
    archive_read_support_filter_all(a.get());
    archive_read_support_format_raw(a.get());
    std::vector<const char*> names;
    for (const std::string& path : source.paths) names.push_back(path.c_str());
    names.push_back(nullptr);
    archive_entry* entry = nullptr;
    if (archive_read_open_filenames(a.get(), names.data(), READ_BLOCK) != ARCHIVE_OK ||
        archive_read_next_header(a.get(), &entry) != ARCHIVE_OK) {
        return {};  // the TAR reader got through it; nothing more to learn
    }
    uint8_t block[READ_BLOCK];
    uint64_t total = 0;
    while (total <= tarBytes + MAX_AFTER_END) {
        const la_ssize_t got = archive_read_data(a.get(), block, sizeof block);
        if (got == 0) return {};
        if (got < 0) {
            return "its compressed stream ends early after " + std::to_string(total) +
                   " decompressed bytes: " + archiveError(a.get());
        }
        total += static_cast<uint64_t>(got);
    }
    return {};
}

// Why an entry's bytes are not read, in the words that follow its name;
// nullopt for a regular file.
std::optional<std::string> notReadable(archive_entry* entry)
{
    if (const char* target = archive_entry_hardlink(entry))
        return "is a hard link to " + escapeText(std::string_view(target));
    if (archive_entry_filetype(entry) == AE_IFLNK) {
        const char* target = archive_entry_symlink(entry);
        return "is a symbolic link to " + escapeText(std::string_view(target ? target : ""));
    }
    if (archive_entry_filetype(entry) != AE_IFREG) return "is not a regular file";
    return std::nullopt;
}

ArchivePtr openArchive(const ExportSource& source, bool& opened)
{
    ArchivePtr a(archive_read_new());
    archive_read_support_filter_all(a.get());
    archive_read_support_format_tar(a.get());
    if (source.zip) archive_read_support_format_zip(a.get());
    std::vector<const char*> names;
    for (const std::string& path : source.paths) names.push_back(path.c_str());
    names.push_back(nullptr);
    opened = archive_read_open_filenames(a.get(), names.data(), READ_BLOCK) == ARCHIVE_OK;
    return a;
}

// One pass over an archive, member by member, keeping what it takes to say
// how far it got when the archive ends early.
class ArchivePass {
public:
    // The first `handed` members were handed on already, by the short way.
    ArchivePass(const ExportSource& source, size_t limit, const MemberVisitor& visit, const ByteProgress& progress,
                size_t handed)
        : source_(source), limit_(limit), visit_(visit), progress_(progress), handed_(handed),
          split_(splitProblem(source))
    {}

    Result<ExportRead> run();

private:
    Result<ExportRead> unopened(bool atOpen);
    ExportRead cut(const std::string& what);
    std::string readSoFar(la_int64_t at) const;
    std::optional<ExportRead> atEnd(la_int64_t position);
    std::optional<ExportRead> visitEntry(archive_entry* entry, la_int64_t position);
    ExportRead finished();

    const ExportSource& source_;
    const size_t limit_;
    const MemberVisitor& visit_;
    const ByteProgress& progress_;
    size_t handed_;
    const std::string split_;  // what is wrong with the parts of a split archive
    ArchivePtr a_;
    size_t headers_ = 0;  // entries read, directories included
    std::string lastMember_;
    ExportRead result_;
};

Result<ExportRead> ArchivePass::run()
{
    bool opened = false;
    a_ = openArchive(source_, opened);
    if (!opened) return unopened(true);
    while (true) {
        archive_entry* entry = nullptr;
        const la_int64_t before = archive_filter_bytes(a_.get(), 0);
        const int status = archive_read_next_header(a_.get(), &entry);
        const la_int64_t position = status < ARCHIVE_WARN ? before : archive_read_header_position(a_.get());
        if (status == ARCHIVE_EOF) {
            if (std::optional<ExportRead> early = atEnd(position)) return *early;
            return finished();
        }
        if (status < ARCHIVE_WARN) {
            if (headers_ == 0) return unopened(false);
            return cut("breaks off after " + readSoFar(position) + ": " + archiveError(a_.get()));
        }
        ++headers_;
        if (archive_entry_filetype(entry) == AE_IFDIR) continue;
        if (std::optional<ExportRead> broken = visitEntry(entry, position)) return *broken;
    }
}

// A compressed file that breaks off before the first member fails as it is
// opened, or at its first header; a cut file, not a foreign one.
Result<ExportRead> ArchivePass::unopened(bool atOpen)
{
    const std::string compression = compressionOf(source_.paths.front());
    // An empty file: an export without members.
    if (compression.empty() && split_.empty() && sourceSize(source_) == 0) return result_;
    if (compression.empty() && split_.empty()) {
        return Error{source_.label() + (atOpen ? " cannot be opened as a TAR archive: " : " is not a TAR archive: ") +
                     archiveError(a_.get())};
    }
    result_.truncation =
        source_.label() +
        (compression.empty() ? " breaks off before its first member: "
                             : "'s " + compression + " stream ends early or is damaged before its first member: ") +
        archiveError(a_.get()) + (split_.empty() ? "" : "; " + split_);
    return result_;
}

// A split archive that ends early without a gap in its parts has most
// likely lost the part after its last one.
ExportRead ArchivePass::cut(const std::string& what)
{
    const std::string base = splitBase(source_.paths.front());
    const std::string afterLast = base.empty()
                                      ? std::string()
                                      : "; the part " + partName(base, static_cast<int>(source_.paths.size()) + 1) +
                                            " that would follow " + source_.paths.back() + " is probably missing";
    result_.truncation = source_.label() + " " + what + (split_.empty() ? afterLast : "; " + split_);
    return result_;
}

std::string ArchivePass::readSoFar(la_int64_t at) const
{
    return counted(headers_, "member was", "members were") + " read up to byte " + std::to_string(at) +
           " of the TAR stream" + (lastMember_.empty() ? "" : ", the last one " + lastMember_);
}

// The TAR reader takes a stream that stops at a member boundary for a
// proper end; only the marker's zero blocks tell them apart. A ZIP ends with
// its central directory instead, which its reader checks itself.
std::optional<ExportRead> ArchivePass::atEnd(la_int64_t position)
{
    const bool tar = (archive_format(a_.get()) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_TAR;
    if (tar && archive_filter_bytes(a_.get(), 0) == position && headers_ > 0) {
        return cut("ends without the TAR end-of-archive marker: " + readSoFar(position) +
                   "; any members after it are missing");
    }
    return std::nullopt;
}

// Hands one entry to the visitor; the truncated result when the archive
// breaks off inside it.
std::optional<ExportRead> ArchivePass::visitEntry(archive_entry* entry, la_int64_t position)
{
    ExportMember member;
    const char* name = archive_entry_pathname(entry);
    member.name = name ? name : "";
    member.nameIsUtf8 = name == nullptr || isUtf8(name);
    bool intact = true;
    if (std::optional<std::string> reason = notReadable(entry)) {
        member.contents = Error{std::move(*reason)};
        member.special = true;
        intact = archive_read_data_skip(a_.get()) >= ARCHIVE_WARN;
    } else if (archive_entry_is_data_encrypted(entry)) {
        member.contents = Error{"is encrypted"};
        intact = archive_read_data_skip(a_.get()) >= ARCHIVE_WARN;
        ++result_.members;
    } else {
        member.contents = readMemberData(a_.get(), entry, limit_, intact);
        ++result_.members;
    }
    if (intact) {
        lastMember_ = member.name;
        if (handed_ > 0) {
            --handed_;
            return std::nullopt;
        }
        visit_(std::move(member));
        if (progress_) progress_(static_cast<uint64_t>(archive_filter_bytes(a_.get(), -1)));
        return std::nullopt;
    }
    const std::string broken = member.name.empty() ? "without a name" : member.name;
    const std::string reason = member.contents ? std::string() : member.contents.error().message;
    visit_(std::move(member));
    if (progress_) progress_(static_cast<uint64_t>(archive_filter_bytes(a_.get(), -1)));
    --headers_;
    return cut("breaks off inside the member " + broken + ", which " + reason + "; " + readSoFar(position) +
               " before it");
}

ExportRead ArchivePass::finished()
{
    if (!split_.empty()) return cut("is incomplete: " + split_);
    if (archive_filter_count(a_.get()) > 1) {
        const std::string problem =
            compressedStreamProblem(source_, static_cast<uint64_t>(archive_filter_bytes(a_.get(), 0)));
        if (!problem.empty()) return cut(problem + "; its TAR content was read to the end-of-archive marker");
    }
    return result_;
}

// TSEs write plain TARs, which take the short way; libarchive's reader takes
// whatever that leaves, and says what is wrong with an archive.
Result<ExportRead> readArchive(const ExportSource& source, size_t limit, const MemberVisitor& visit,
                               const ByteProgress& progress)
{
    if (source.zip || !splitProblem(source).empty()) return ArchivePass(source, limit, visit, progress, 0).run();
    const PlainTarRead plain = readPlainTar(source, limit, visit, progress);
    if (plain.complete && (!plain.compressed || compressedStreamProblem(source, plain.tarBytes).empty())) {
        return ExportRead{plain.handed, std::nullopt};
    }
    return ArchivePass(source, limit, visit, progress, plain.handed).run();
}

Result<ExportRead> readDirectory(const ExportSource& source, size_t limit, const MemberVisitor& visit,
                                 const ByteProgress& progress)
{
    const fs::path root(source.paths.front());
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
        if (it->is_regular_file(error)) files.push_back(it->path());
    }
    if (error) return Error{source.label() + " cannot be listed: " + error.message()};
    std::sort(files.begin(), files.end());
    uint64_t done = 0;
    for (const fs::path& file : files) {
        ExportMember member;
        member.name = file.lexically_relative(root).generic_string();
        member.nameIsUtf8 = isUtf8(member.name.c_str());
        member.contents = readFileBounded(file.string(), limit);
        if (member.contents) done += member.contents->size();
        visit(std::move(member));
        if (progress) progress(done);
    }
    return ExportRead{files.size(), std::nullopt};
}

Result<ExportRead> readSingleFile(const ExportSource& source, size_t limit, const MemberVisitor& visit)
{
    ExportMember member;
    member.name = source.label();
    member.nameIsUtf8 = isUtf8(member.name.c_str());
    member.standalone = true;
    member.contents = readFileBounded(member.name, limit);
    visit(std::move(member));
    return ExportRead{1, std::nullopt};
}

}  // namespace

std::string ExportSource::label() const
{
    return paths.empty() ? std::string() : paths.front();
}

Result<std::vector<ExportSource>> groupExportPaths(const std::vector<std::string>& paths)
{
    std::vector<ExportSource> sources;
    std::set<std::string> taken;
    for (const std::string& path : paths) {
        if (taken.count(path)) continue;
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (!fs::exists(status)) return Error{path + " does not exist"};
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
        sources.push_back(std::move(source));
    }
    return sources;
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

Result<ExportRead> readExportSource(const ExportSource& source, size_t maxMemberSize, const MemberVisitor& visit,
                                    const ByteProgress& progress)
{
    const Utf8Names utf8;
    switch (source.kind) {
    case ExportSource::Kind::Archive: return readArchive(source, maxMemberSize, visit, progress);
    case ExportSource::Kind::Directory: return readDirectory(source, maxMemberSize, visit, progress);
    case ExportSource::Kind::File: return readSingleFile(source, maxMemberSize, visit);
    }
    return Error{source.label() + " is of no kind an export comes in", {}};
}

}  // namespace tse
