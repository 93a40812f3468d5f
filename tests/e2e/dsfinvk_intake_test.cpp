// How `tse-check dsfinvk` reads what it is given: archive members that
// cannot be read are named as what they are, a table's encoding is checked
// against its signatures, and a ZIP of many rows takes memory in proportion
// to its rows, not ten times more.
#include <archive.h>
#include <archive_entry.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "dsfinvk_tables.h"
#include "fixtures.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();
const std::string CLOUD = REAL + "2021-09-30_63641_TSE.tar";
const std::string INDEX_XML =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../data/dsfinvk/index.xml";

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Member {
    std::string name, data;
    std::string link;        // a symbolic link to this target instead of data
    bool encrypted = false;  // in a ZIP of its own, read beside the others
};

// A ZIP of the members, encrypted with the traditional PKWARE cipher when asked.
void writeZip(const std::string& path, const std::vector<Member>& members, bool encrypted = false)
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

struct Check {
    int status = -1;
    json report;
    std::string err;
    long rssKiB = 0;

    std::vector<std::string> messages(const std::string& code) const
    {
        std::vector<std::string> out;
        for (const json& f : report["findings"]) {
            if (f["code"] == code) out.push_back(f["message"]);
        }
        return out;
    }
};

Check dsfinvk(std::vector<std::string> arguments, fixtures::RunLimits limits = {180, 0})
{
    arguments.insert(arguments.begin(), "dsfinvk");
    const fixtures::RunResult r = fixtures::run(fixtures::tseCheckPath(), arguments, {}, limits);
    Check check{r.status, nullptr, r.err, r.maxRssKiB};
    const auto option = std::find(arguments.begin(), arguments.end(), "--json");
    if (option != arguments.end() && option + 1 != arguments.end()) {
        const std::string path = *(option + 1);
        check.report = json::parse(path == "-" ? r.out : slurp(path), nullptr, false);
    }
    return check;
}

// The tables of the real cloud export's bookkeeping, to pack as members.
std::vector<Member> realTables(const fixtures::TempDir& dir, const std::string& folder)
{
    const fixtures::RunResult made =
        fixtures::run(fixtures::toolPath("make-dsfinvk"), {"--tse", CLOUD, "--out", dir.path("books")}, {}, {120, 0});
    EXPECT_EQ(made.status, 0) << made.err;
    std::vector<Member> members;
    for (const fs::directory_entry& e : fs::directory_iterator(dir.path("books"))) {
        members.push_back({folder + e.path().filename().string(), slurp(e.path().string()), "", false});
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

TEST(DsfinvkIntake, MembersThatCannotBeReadAreNamed)
{
    struct Case {
        std::string name;
        std::function<void(std::vector<Member>&)> change;
        std::string code, words;  // the finding about the member, and words it must hold
    };
    const std::vector<Case> cases = {
        {"encrypted", [](std::vector<Member>& m) { memberNamed(m, "/datapayment.csv").encrypted = true; },
         "member-unreadable", "encrypted"},
        {"a link",
         [](std::vector<Member>& m) {
             Member& payments = memberNamed(m, "/datapayment.csv");
             payments.data.clear();
             payments.link = "/etc/passwd";
         },
         "member-unreadable", "link"},
        {"leading outside",
         [](std::vector<Member>& m) { memberNamed(m, "/references.csv").name = "../references.csv"; },
         "unexpected-member", "../references.csv"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fixtures::TempDir dir;
        std::vector<Member> members = realTables(dir, "Kassenabschlüsse/");
        c.change(members);
        std::vector<Member> plain, secret;
        for (const Member& m : members) (m.encrypted ? secret : plain).push_back(m);
        writeZip(dir.path("books.zip"), plain);
        std::vector<std::string> arguments = {dir.path("books.zip"), "--tse", CLOUD, "--json", "-"};
        if (!secret.empty()) {
            writeZip(dir.path("secret.zip"), secret, true);
            arguments.insert(arguments.begin() + 1, dir.path("secret.zip"));
        }
        const Check check = dsfinvk(arguments);
        ASSERT_FALSE(check.report.is_discarded()) << check.err;
        EXPECT_EQ(check.report["summary"]["matched"], 51) << check.report["findings"].dump(1);
        const std::vector<std::string> found = check.messages(c.code);
        ASSERT_EQ(found.size(), 1u) << check.report["findings"].dump(1);
        EXPECT_NE(found.front().find(c.words), std::string::npos) << found.front();
    }
}

// index.xml that declares every table ANSI.
void declareAnsi(const std::string& folder)
{
    std::string xml = slurp(folder + "/index.xml");
    for (size_t at; (at = xml.find("<UTF8 />")) != std::string::npos;) xml.replace(at, 8, "<ANSI />");
    std::ofstream(folder + "/index.xml", std::ios::binary | std::ios::trunc) << xml;
}

TEST(DsfinvkIntake, EncodingThatTheSignaturesContradict)
{
    fixtures::TempDir dir;
    auto made = fixtures::run(
        fixtures::toolPath("make-export"),
        {"--out", dir.path("tse.tar"), "-n", "6", "--curve", "secp256r1", "--client", "Kasse-Müller"}, {}, {120, 0});
    ASSERT_EQ(made.status, 0) << made.err;
    made = fixtures::run(fixtures::toolPath("make-dsfinvk"), {"--tse", dir.path("tse.tar"), "--out", dir.path("books")},
                         {}, {120, 0});
    ASSERT_EQ(made.status, 0) << made.err;
    declareAnsi(dir.path("books"));
    const Check check = dsfinvk({dir.path("books"), "--json", "-"});
    const std::vector<std::string> found = check.messages("encoding-mismatch");
    ASSERT_EQ(found.size(), 1u) << check.report["findings"].dump(1);
    EXPECT_NE(found.front().find("ANSI"), std::string::npos);
    EXPECT_NE(found.front().find("UTF-8"), std::string::npos);
    EXPECT_EQ(check.status, 1);
    EXPECT_TRUE(check.messages("signature-invalid").empty());
}

// A ZIP that inflates to 32 MiB of TSE failure rows: the check takes
// memory in proportion to the rows (at most twice their bytes and 100 MiB),
// measured, not guessed.
TEST(DsfinvkIntake, ManyRowsInASmallZipTakeBoundedMemory)
{
    fixtures::TempDir dir;
    std::vector<Member> members = realTables(dir, "");
    std::string& rows = memberNamed(members, "transactions_tse.csv").data;
    rows = rows.substr(0, rows.find("\r\n") + 2);
    constexpr size_t TABLE = 32u << 20;
    for (size_t n = 0; rows.size() < TABLE; ++n) {
        rows += "Kasse 1;2021-07-28T13:17:12Z;1;F" + std::to_string(n) + ";1;;;;;;;TSE ausgefallen;\r\n";
    }
    writeZip(dir.path("many.zip"), members);
    EXPECT_LT(fs::file_size(dir.path("many.zip")), 2u << 20);
    // The text report: a JSON document of half a million findings would
    // measure the test's disk, not the check.
    const fixtures::RunResult r =
        fixtures::run(fixtures::tseCheckPath(), {"dsfinvk", dir.path("many.zip")}, {}, {300, 0});
    EXPECT_EQ(r.status, 1) << r.err;  // the failure rows name no receipt
    // AddressSanitizer's shadow and quarantine are no measure of the check.
#if !defined(ADDRESS_SANITIZER)
    const long boundKiB = static_cast<long>((2 * (TABLE >> 20) + 100) << 10);
    EXPECT_LT(r.maxRssKiB, boundKiB) << "peak " << (r.maxRssKiB >> 10) << " MiB";
#endif
    const size_t rowsChecked = std::stoul(r.out.substr(r.out.find(": ") + 2));
    EXPECT_GT(rowsChecked, 500000u) << r.out.substr(0, 200);
}

}  // namespace
