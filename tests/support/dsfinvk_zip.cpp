#include "dsfinvk_zip.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace fixtures {

void writeZip(const std::string& path, const std::vector<Member>& members, bool encrypted)
{
    std::unique_ptr<archive, int (*)(archive*)> a(archive_write_new(), archive_write_free);
    archive_write_set_format_zip(a.get());
    if (encrypted) {
        ASSERT_EQ(archive_write_set_options(a.get(), "zip:encryption=zipcrypt"), ARCHIVE_OK)
            << archive_error_string(a.get());
        archive_write_set_passphrase(a.get(), "secret");
    }
    ASSERT_EQ(archive_write_open_filename(a.get(), path.c_str()), ARCHIVE_OK);
    for (const Member& m : members) {
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname_utf8(entry.get(), m.name.c_str());
        if (!m.link.empty()) {
            archive_entry_set_filetype(entry.get(), AE_IFLNK);
            archive_entry_set_symlink(entry.get(), m.link.c_str());
            archive_entry_set_size(entry.get(), 0);
        } else {
            archive_entry_set_filetype(entry.get(), AE_IFREG);
            archive_entry_set_size(entry.get(), static_cast<la_int64_t>(m.data.size()));
        }
        archive_entry_set_perm(entry.get(), 0644);
        ASSERT_EQ(archive_write_header(a.get(), entry.get()), ARCHIVE_OK) << archive_error_string(a.get());
        if (m.link.empty()) archive_write_data(a.get(), m.data.data(), m.data.size());
    }
    ASSERT_EQ(archive_write_close(a.get()), ARCHIVE_OK) << archive_error_string(a.get());
}

std::vector<Member> realTables(const TempDir& dir, const std::string& folder)
{
    const std::string cloud = realExportsFolder() + "2021-09-30_63641_TSE.tar";
    const RunResult made = run(toolPath("make-dsfinvk"), {"--tse", cloud, "--out", dir.path("books")}, {}, {120, 0});
    EXPECT_EQ(made.status, 0) << made.err;
    std::vector<Member> members;
    for (const std::filesystem::directory_entry& e : std::filesystem::directory_iterator(dir.path("books"))) {
        members.push_back({folder + e.path().filename().string(), fileText(e.path().string()), "", false});
    }
    return members;
}

Member& memberNamed(std::vector<Member>& members, const std::string& suffix)
{
    for (Member& m : members) {
        if (m.name.size() >= suffix.size() && m.name.compare(m.name.size() - suffix.size(), suffix.size(), suffix) == 0)
            return m;
    }
    throw std::runtime_error("no member " + suffix);
}

}  // namespace fixtures
