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
        {false, false,
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
        {true, false,
         {file("Kassenabschl\xC3\xBCsse/transactions.csv", "1;2"), file("large.csv", large), file("plain.csv", "4;5")},
         {{"Kassenabschl\xC3\xBCsse/transactions.csv", bytes("1;2")},
          {"large.csv", refused("is larger than 1 MiB (1048577 bytes)")},
          {"plain.csv", bytes("4;5")}}},
        {true, true,
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

}  // namespace
}  // namespace tse
