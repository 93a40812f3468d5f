// Export reading: every member arrives, named in UTF-8 whatever the
// locale, with its bytes or the reason there are none, and reading goes on
// after a member that cannot be read where the format allows.
#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>

#include <map>

#include "export_reader.h"
#include "fixtures.h"

namespace tse {
namespace {

constexpr size_t LIMIT = 1u << 20;

struct Planted {
    std::string name;
    std::string data;
    mode_t type;
    std::string target;  // of a link
    bool hardLink;
};

Planted file(std::string name, std::string data)
{
    return Planted{std::move(name), std::move(data), AE_IFREG, "", false};
}
Planted link(std::string name, std::string target, bool hard = false)
{
    return Planted{std::move(name), "", hard ? AE_IFREG : AE_IFLNK, std::move(target), hard};
}
Planted fifo(std::string name)
{
    return Planted{std::move(name), "", AE_IFIFO, "", false};
}

struct Arrived {
    std::string contents;  // or the reason
    bool read, special, utf8;
};

Arrived bytes(std::string contents, bool utf8Name = true)
{
    return Arrived{std::move(contents), true, false, utf8Name};
}
Arrived refused(std::string reason, bool special = false)
{
    return Arrived{std::move(reason), false, special, true};
}

// A ZIP is encrypted as a whole or not at all: libarchive takes the option
// only before the first member.
void writeArchive(const std::string& path, bool zip, bool encrypted, const std::vector<Planted>& members)
{
    archive* a = archive_write_new();
    if (zip) {
        archive_write_set_format_zip(a);
        archive_write_set_format_option(a, "zip", "hdrcharset", "UTF-8");
        if (encrypted) {
            archive_write_set_format_option(a, "zip", "encryption", "zipcrypt");
            archive_write_set_passphrase(a, "secret");
        }
    } else {
        archive_write_set_format_ustar(a);
    }
    archive_write_open_filename(a, path.c_str());
    for (const Planted& m : members) {
        archive_entry* entry = archive_entry_new();
        // A TAR stores the name's bytes as they are; a ZIP says they are UTF-8.
        if (zip) archive_entry_set_pathname_utf8(entry, m.name.c_str());
        else archive_entry_set_pathname(entry, m.name.c_str());
        archive_entry_set_filetype(entry, m.type);
        archive_entry_set_perm(entry, 0644);
        if (m.hardLink) archive_entry_set_hardlink(entry, m.target.c_str());
        if (m.type == AE_IFLNK) archive_entry_set_symlink(entry, m.target.c_str());
        if (m.type == AE_IFREG && !m.hardLink) archive_entry_set_size(entry, static_cast<la_int64_t>(m.data.size()));
        EXPECT_GE(archive_write_header(a, entry), ARCHIVE_WARN) << m.name << ": " << archive_error_string(a);
        if (!m.data.empty()) archive_write_data(a, m.data.data(), m.data.size());
        archive_entry_free(entry);
    }
    archive_write_close(a);
    archive_write_free(a);
}

std::map<std::string, Arrived> readAll(const std::string& path, bool zip, std::optional<std::string>& truncation)
{
    ExportSource source;
    source.kind = ExportSource::Kind::Archive;
    source.paths = {path};
    source.zip = zip;
    std::map<std::string, Arrived> arrived;
    const Result<ExportRead> read = readExportSource(source, LIMIT, [&](ExportMember&& member) {
        const bool held = static_cast<bool>(member.contents);
        arrived[member.name] = Arrived{held ? std::string(member.contents->begin(), member.contents->end())
                                            : member.contents.error().message,
                                       held, member.special, member.nameIsUtf8};
    });
    EXPECT_TRUE(read) << path;
    if (read) truncation = read->truncation;
    return arrived;
}

TEST(ExportReader, EveryMemberArrivesWithItsBytesOrItsReason)
{
    const std::string large(LIMIT + 1, 'x');
    struct Case {
        bool zip, encrypted;
        std::vector<Planted> planted;
        std::map<std::string, Arrived> expected;
    };
    const std::vector<Case> cases = {
        {false,
         false,
         {file("first.log", "abc"), file("large.log", large), link("symbolic.log", "/etc/passwd"),
          link("hard.log", "first.log", true), fifo("fifo.log"), file("caf\xE9.csv", "latin-1 name"),
          file("last.log", "xyz")},
         {{"first.log", bytes("abc")},
          {"large.log", refused("is larger than 1 MiB (1048577 bytes)")},
          {"symbolic.log", refused("is a symbolic link to /etc/passwd", true)},
          {"hard.log", refused("is a hard link to first.log", true)},
          {"fifo.log", refused("is not a regular file", true)},
          {"caf\xE9.csv", bytes("latin-1 name", false)},
          {"last.log", bytes("xyz")}}},
        {true,
         false,
         {file("Kassenabschl\xC3\xBCsse/transactions.csv", "1;2"), file("large.csv", large), file("plain.csv", "4;5")},
         {{"Kassenabschl\xC3\xBCsse/transactions.csv", bytes("1;2")},
          {"large.csv", refused("is larger than 1 MiB (1048577 bytes)")},
          {"plain.csv", bytes("4;5")}}},
        {true,
         true,
         {file("secret.csv", "hidden"), file("also secret.csv", "more")},
         {{"secret.csv", refused("is encrypted")}, {"also secret.csv", refused("is encrypted")}}},
    };
    fixtures::TempDir dir;
    for (const Case& c : cases) {
        const std::string path = dir.path(c.zip ? (c.encrypted ? "secret.zip" : "export.zip") : "export.tar");
        writeArchive(path, c.zip, c.encrypted, c.planted);
        std::optional<std::string> truncation;
        const std::map<std::string, Arrived> arrived = readAll(path, c.zip, truncation);
        EXPECT_EQ(truncation, std::nullopt) << path;
        EXPECT_EQ(arrived.size(), c.expected.size()) << path;
        for (const auto& [name, want] : c.expected) {
            SCOPED_TRACE(name);
            const auto found = arrived.find(name);
            if (found == arrived.end()) {
                ADD_FAILURE() << "did not arrive from " << path;
                continue;
            }
            EXPECT_EQ(found->second.contents, want.contents);
            EXPECT_EQ(found->second.read, want.read);
            EXPECT_EQ(found->second.special, want.special);
            EXPECT_EQ(found->second.utf8, want.utf8);
        }
    }
}

// TAR headers written byte by byte, in the variants TSEs and tar programs
// write: the export reader takes plain ones its own way and must read them
// exactly as libarchive's TAR reader does, and give every other case to it.
struct TarHeader {
    std::string name;
    size_t size = 0;
    char type = '0';
    std::string magic = std::string("ustar\0"
                                    "00",
                                    8);
    std::string prefix;
    std::string sizeField;  // as written, when not the usual octal
    bool signedChecksum = false;
};

std::string block(const TarHeader& h)
{
    std::string b(512, '\0');
    const auto put = [&](size_t at, const std::string& text) { b.replace(at, text.size(), text); };
    put(0, h.name.substr(0, 100));
    put(100, "0000644");
    put(108, "0001750");
    put(116, "0001750");
    char size[16];
    std::snprintf(size, sizeof size, "%011zo", h.size);
    put(124, h.sizeField.empty() ? std::string(size) : h.sizeField);
    put(136, "14521044671");
    b[156] = h.type;
    put(257, h.magic);
    put(345, h.prefix);
    put(148, "        ");
    long sum = 0;
    for (const char c : b) sum += h.signedChecksum ? static_cast<signed char>(c) : static_cast<unsigned char>(c);
    char checksum[8];
    std::snprintf(checksum, sizeof checksum, "%06lo", sum);
    put(148, std::string(checksum, 7));
    return b;
}

std::string member(const TarHeader& h, const std::string& data)
{
    return block(h) + data + std::string((512 - data.size() % 512) % 512, '\0');
}

std::string plain(const std::string& name, const std::string& data)
{
    TarHeader h;
    h.name = name;
    h.size = data.size();
    return member(h, data);
}

const std::string END(1024, '\0');

struct Reading {
    std::vector<std::pair<std::string, std::string>> members;  // name, bytes or reason
    std::string outcome;                                       // the error or the truncation; empty for a whole archive

    bool operator==(const Reading& other) const { return members == other.members && outcome == other.outcome; }
};

std::ostream& operator<<(std::ostream& out, const Reading& r)
{
    for (const auto& [name, contents] : r.members) out << "[" << name << ": " << contents.size() << " bytes] ";
    return out << r.outcome;
}

// A source that may also be a ZIP is read by libarchive alone, member by
// member; a TAR that can only be a TAR may take the short way.
Reading readAs(const std::string& path, bool mayBeZip)
{
    ExportSource source;
    source.kind = ExportSource::Kind::Archive;
    source.paths = {path};
    source.zip = mayBeZip;
    Reading reading;
    const Result<ExportRead> read = readExportSource(source, LIMIT, [&](ExportMember&& m) {
        reading.members.emplace_back(m.name, m.contents ? std::string(m.contents->begin(), m.contents->end())
                                                        : m.contents.error().message);
    });
    reading.outcome = !read ? read.error().message : read->truncation.value_or("");
    return reading;
}

// What libarchive's TAR reader gives through its own interface: every
// regular member's name and bytes.
std::vector<std::pair<std::string, std::string>> libarchiveMembers(const std::string& path)
{
    std::vector<std::pair<std::string, std::string>> members;
    archive* a = archive_read_new();
    archive_read_support_format_tar(a);
    archive_entry* entry = nullptr;
    int status = archive_read_open_filename(a, path.c_str(), 65536);
    while (status == ARCHIVE_OK && (status = archive_read_next_header(a, &entry)) == ARCHIVE_OK) {
        if (archive_entry_filetype(entry) != AE_IFREG) continue;
        std::string data(static_cast<size_t>(archive_entry_size(entry)), '\0');
        archive_read_data(a, data.data(), data.size());
        members.emplace_back(archive_entry_pathname(entry), data);
    }
    archive_read_free(a);
    return members;
}

TEST(ExportReader, PlainTarsReadAsLibarchiveReadsThem)
{
    TarHeader prefixed{"name.log",
                       3,
                       '0',
                       std::string("ustar\0"
                                   "00",
                                   8),
                       "some/folder",
                       "",
                       false};
    TarHeader slashed = prefixed;
    slashed.prefix = "folder/";
    TarHeader gnu{"gnu.log", 3, '0', std::string("ustar  \0", 8), "ignored as times", "", false};
    TarHeader odd{"odd magic.log", 3, '0', std::string("ustar\0 \0", 8), "", "", false};
    TarHeader old{"old.log", 3, '0', "", "", "", false};
    TarHeader spaced{"spaced.log",
                     3,
                     '0',
                     std::string("ustar\0"
                                 "00",
                                 8),
                     "",
                     "      3 ",
                     false};
    TarHeader latin{"caf\xE9 signed.log",
                    3,
                    '0',
                    std::string("ustar\0"
                                "00",
                                8),
                    "",
                    "",
                    true};
    TarHeader directory{"folder/",
                        0,
                        '5',
                        std::string("ustar\0"
                                    "00",
                                    8),
                        "",
                        "",
                        false};
    TarHeader slashFile{"looks like a folder/",
                        0,
                        '0',
                        std::string("ustar\0"
                                    "00",
                                    8),
                        "",
                        "",
                        false};
    const std::string paxRecord = "27 path=renamed by pax.log\n";
    TarHeader pax{"././@PaxHeader",
                  paxRecord.size(),
                  'x',
                  std::string("ustar\0"
                              "00",
                              8),
                  "",
                  "",
                  false};
    std::string damaged = block(old);
    damaged[0] = 'D';
    const std::string every = member(prefixed, "abc") + member(slashed, "def") + member(gnu, "ghi") +
                              member(odd, "jkl") + member(old, "mno") + member(spaced, "pqr") + member(latin, "stu") +
                              member(directory, "") + member(slashFile, "") + plain("empty.log", "") +
                              plain("block.log", std::string(512, 'b')) +
                              plain("block and one.log", std::string(513, 'c'));
    const std::vector<std::pair<std::string, std::string>> archives = {
        {"every plain variant", every + END},
        {"one zero block at the end", plain("a.log", "1") + std::string(512, '\0')},
        {"garbage after one zero block", plain("a.log", "1") + std::string(512, '\0') + "garbage"},
        {"no end marker", plain("a.log", "1") + plain("b.log", "2")},
        {"a pax header in the middle",
         plain("a.log", "1") + member(pax, paxRecord) + plain("b.log", "2") + plain("c.log", "3") + END},
        {"a damaged header in the middle", plain("a.log", "1") + damaged + plain("c.log", "3") + END},
        {"cut inside a member", (plain("a.log", "1") + plain("b.log", std::string(2000, 'x'))).substr(0, 1500)},
        {"not a TAR at all", "just some text, no TAR header"},
    };
    fixtures::TempDir dir;
    for (const auto& [what, bytes] : archives) {
        SCOPED_TRACE(what);
        const std::string path = dir.path("crafted.tar");
        std::FILE* out = std::fopen(path.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), out);
        std::fclose(out);
        const Reading fast = readAs(path, false);
        EXPECT_EQ(fast, readAs(path, true));
        if (fast.outcome.empty()) {
            EXPECT_EQ(fast.members, libarchiveMembers(path));
        }
    }
    // The variants as the audit meets them: compressed.
    const std::string compressed = dir.path("every.tar.gz");
    archive* gz = archive_write_new();
    archive_write_add_filter_gzip(gz);
    archive_write_set_format_raw(gz);
    archive_write_open_filename(gz, compressed.c_str());
    archive_entry* entry = archive_entry_new();
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_write_header(gz, entry);
    archive_write_data(gz, (every + END).data(), every.size() + END.size());
    archive_entry_free(entry);
    archive_write_free(gz);
    EXPECT_EQ(readAs(compressed, false), readAs(compressed, true));
    EXPECT_EQ(readAs(compressed, false).members.size(), 10u);
}

}  // namespace
}  // namespace tse
