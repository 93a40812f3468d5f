#include "plain_tar.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include "utf8_names.h"

namespace tse {
namespace {

constexpr size_t BLOCK = 512;
constexpr size_t READ_SIZE = 256 * 1024;

struct ArchiveFree {
    void operator()(archive* a) const { archive_read_free(a); }
};

// The decompressed bytes of an archive as libarchive's "raw" format gives
// them, taken in pieces of any size.
class RawStream {
public:
    explicit RawStream(const ExportSource& source) : a_(archive_read_new())
    {
        archive_read_support_filter_all(a_.get());
        archive_read_support_format_raw(a_.get());
        std::vector<const char*> names;
        for (const std::string& path : source.paths) names.push_back(path.c_str());
        names.push_back(nullptr);
        archive_entry* entry = nullptr;
        open_ = archive_read_open_filenames(a_.get(), names.data(), 64 * 1024) == ARCHIVE_OK &&
                archive_read_next_header(a_.get(), &entry) == ARCHIVE_OK;
    }

    bool open() const { return open_; }
    bool compressed() { return archive_filter_count(a_.get()) > 1; }
    uint64_t fileBytes() { return static_cast<uint64_t>(archive_filter_bytes(a_.get(), -1)); }
    uint64_t taken() const { return taken_; }

    // The next n bytes, or nullptr when the stream ends or fails before.
    const uint8_t* take(size_t n)
    {
        if (end_ - begin_ < n && !fill(n)) return nullptr;
        const uint8_t* at = buffer_.data() + begin_;
        begin_ += n;
        taken_ += n;
        return at;
    }

    // Passes over n bytes without holding them.
    bool skip(uint64_t n)
    {
        while (n > 0) {
            const size_t step = static_cast<size_t>(std::min<uint64_t>(n, READ_SIZE));
            if (take(step) == nullptr) return false;
            n -= step;
        }
        return true;
    }

private:
    bool fill(size_t n)
    {
        if (!open_) return false;
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
        end_ -= begin_;
        begin_ = 0;
        while (end_ < n) {
            if (buffer_.size() < std::max(end_ + READ_SIZE, n)) buffer_.resize(std::max(end_ + READ_SIZE, n));
            const la_ssize_t got = archive_read_data(a_.get(), buffer_.data() + end_, buffer_.size() - end_);
            if (got <= 0) return false;
            end_ += static_cast<size_t>(got);
        }
        return true;
    }

    std::unique_ptr<archive, ArchiveFree> a_;
    bool open_ = false;
    std::vector<uint8_t> buffer_;
    size_t begin_ = 0, end_ = 0;
    uint64_t taken_ = 0;
};

// A number in octal as libarchive's TAR reader reads it: blanks before it,
// digits up to the first other byte. Nothing for what it reads otherwise (a
// sign, base 256) or a value past 2^62.
std::optional<uint64_t> octal(const uint8_t* field, size_t size)
{
    size_t i = 0;
    while (i < size && (field[i] == ' ' || field[i] == '\t')) ++i;
    if (i < size && (field[i] == '-' || (field[i] & 0x80) != 0)) return std::nullopt;
    uint64_t value = 0;
    for (; i < size && field[i] >= '0' && field[i] <= '7'; ++i) {
        if (value >> 59) return std::nullopt;
        value = value * 8 + static_cast<uint64_t>(field[i] - '0');
    }
    return value;
}

// The header's checksum with the bytes taken unsigned, as the format says,
// or signed, as some old tar programs wrote it; the field holds octal
// digits, blanks and NULs only.
bool checksumHolds(const uint8_t* h)
{
    if (!std::all_of(h + 148, h + 156, [](uint8_t c) { return c == ' ' || c == 0 || (c >= '0' && c <= '7'); })) {
        return false;
    }
    const std::optional<uint64_t> stored = octal(h + 148, 8);
    if (!stored) return false;
    // The field itself counts as eight blanks.
    int64_t unsignedSum = 8 * ' ', signedSum = 8 * ' ';
    for (size_t i = 0; i < BLOCK; ++i) unsignedSum += h[i];
    for (size_t i = 148; i < 156; ++i) unsignedSum -= h[i];
    if (static_cast<int64_t>(*stored) == unsignedSum) return true;
    for (size_t i = 0; i < BLOCK; ++i) signedSum += static_cast<signed char>(h[i]);
    for (size_t i = 148; i < 156; ++i) signedSum -= static_cast<signed char>(h[i]);
    return static_cast<int64_t>(*stored) == signedSum;
}

std::string_view field(const uint8_t* at, size_t size)
{
    const auto* text = reinterpret_cast<const char*>(at);
    return std::string_view(text, strnlen(text, size));
}

struct Header {
    std::string name;
    uint64_t size = 0;
    bool directory = false;
};

// A regular file's or directory's header as libarchive reads it; nothing
// for any other.
std::optional<Header> plainHeader(const uint8_t* h)
{
    const uint8_t type = h[156];
    if ((type != '0' && type != 0 && type != '5') || !checksumHolds(h)) return std::nullopt;
    // libarchive takes no archive whose mode does not start like a number.
    const uint8_t mode = h[100];
    if (mode != 0 && mode != 255 && mode != ' ' && (mode < '0' || mode > '7')) return std::nullopt;
    const std::optional<uint64_t> size = octal(h + 124, 12);
    if (!size) return std::nullopt;
    Header header;
    header.size = *size;
    // GNU tar's magic says the prefix field holds times; POSIX ustar's
    // says it holds the front of the name.
    const bool gnu = std::memcmp(h + 257, "ustar  \0", 8) == 0;
    const std::string_view prefix =
        !gnu && std::memcmp(h + 257, "ustar", 5) == 0 ? field(h + 345, 155) : std::string_view();
    const std::string_view name = field(h, 100);
    header.name.reserve(prefix.size() + 1 + name.size());
    header.name = prefix;
    if (!prefix.empty() && prefix.back() != '/') header.name += '/';
    header.name += name;
    if (header.name.empty()) return std::nullopt;
    // A regular file whose name ends in '/' is a directory to libarchive.
    header.directory = type == '5' || (!header.name.empty() && header.name.back() == '/');
    if (header.directory && header.size != 0) return std::nullopt;
    return header;
}

bool zeroBlock(const uint8_t* h)
{
    return std::all_of(h, h + BLOCK, [](uint8_t b) { return b == 0; });
}

// The member's data, or why it is not held; false when the stream ends
// before the data and its padding.
bool readData(RawStream& stream, const Header& header, size_t limit, ExportMember& member)
{
    const uint64_t padding = (BLOCK - header.size % BLOCK) % BLOCK;
    if (header.size > limit) {
        member.contents =
            Error{"is larger than " + std::to_string(limit >> 20) + " MiB (" + std::to_string(header.size) + " bytes)"};
        return stream.skip(header.size + padding);
    }
    const uint8_t* data = stream.take(static_cast<size_t>(header.size));
    if (data == nullptr) return false;
    member.contents = Bytes(data, data + header.size);
    return stream.skip(padding);
}

}  // namespace

PlainTarRead readPlainTar(const ExportSource& source, size_t maxMemberSize, const MemberVisitor& visit,
                          const ByteProgress& progress)
{
    PlainTarRead read;
    RawStream stream(source);
    while (const uint8_t* h = stream.take(BLOCK)) {
        if (zeroBlock(h)) {
            // libarchive takes a second zero block along when there is one.
            const uint8_t* next = stream.take(BLOCK);
            read.complete = true;
            read.compressed = stream.compressed();
            read.tarBytes = stream.taken() - (next && !zeroBlock(next) ? BLOCK : 0);
            break;
        }
        std::optional<Header> header = plainHeader(h);
        if (!header) break;
        if (header->directory) continue;
        ExportMember member;
        member.name = std::move(header->name);
        member.nameIsUtf8 = isUtf8(member.name.c_str());
        if (!readData(stream, *header, maxMemberSize, member)) break;
        visit(std::move(member));
        ++read.handed;
        if (progress) progress(stream.fileBytes());
    }
    return read;
}

}  // namespace tse
