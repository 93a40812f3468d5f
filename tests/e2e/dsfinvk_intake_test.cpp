// How `tse-check dsfinvk` reads what it is given: archive members that
// cannot be read are named as what they are, and a table's encoding is
// checked against its signatures. (What a ZIP of many rows costs in memory
// is measured in resource_bounds_test.)
#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "dsfinvk_tables.h"
#include "dsfinvk_zip.h"
#include "fixtures.h"

namespace {

using fixtures::fileText;
using fixtures::Member;
using fixtures::memberNamed;
using fixtures::realTables;
using fixtures::writeZip;
using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();
const std::string CLOUD = REAL + "2021-09-30_63641_TSE.tar";
const std::string INDEX_XML =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../data/dsfinvk/index.xml";

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
        check.report = json::parse(path == "-" ? r.out : fileText(path), nullptr, false);
    }
    return check;
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
    std::string xml = fileText(folder + "/index.xml");
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

}  // namespace
