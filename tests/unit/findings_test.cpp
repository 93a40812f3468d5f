// The one catalogue of finding codes against the documentation that lists
// them: the README's tables and the man page name exactly its codes, each
// with its severity.
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "findings.h"

namespace {

const std::string ROOT = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../../";

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(FindingCatalogue, CodesAreDeclaredOnceAndFindable)
{
    std::set<std::string_view> names;
    for (const tse::FindingInfo& info : tse::findingCatalogue()) {
        EXPECT_TRUE(names.insert(info.name).second) << info.name;
        EXPECT_TRUE(std::regex_match(std::string(info.name), std::regex("[a-z]+(-[a-z]+)+"))) << info.name;
        EXPECT_EQ(tse::findingByName(info.name), info.code);
        EXPECT_EQ(tse::findingName(info.code), info.name);
        EXPECT_FALSE(info.meaning.empty());
        EXPECT_TRUE(info.parts.find("audit") != std::string_view::npos ||
                    info.parts.find("bookkeeping") != std::string_view::npos)
            << info.name;
    }
    EXPECT_FALSE(tse::findingByName("transaction-open"));
}

// "| `code` | severity | when |" rows of the README, by code.
std::map<std::string, std::set<std::string>> readmeTables()
{
    std::map<std::string, std::set<std::string>> out;
    const std::regex row(R"(^\| `([a-z-]+)` \| (error|warning) \|)");
    std::istringstream lines(slurp(ROOT + "README.md"));
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_search(line, m, row)) out[m[1]].insert(m[2]);
    }
    return out;
}

TEST(FindingCatalogue, TheReadmeListsExactlyItsCodes)
{
    const std::map<std::string, std::set<std::string>> listed = readmeTables();
    for (const tse::FindingInfo& info : tse::findingCatalogue()) {
        const auto found = listed.find(std::string(info.name));
        ASSERT_NE(found, listed.end()) << info.name << " is not in the README";
        EXPECT_EQ(found->second, std::set<std::string>{std::string(tse::severityName(info.severity))}) << info.name;
    }
    for (const auto& [code, severities] : listed) EXPECT_TRUE(tse::findingByName(code)) << code << " is no finding";
}

TEST(FindingCatalogue, TheManPageListsExactlyItsCodes)
{
    std::string man = slurp(ROOT + "man/tse-check.1");
    for (size_t at; (at = man.find("\\-")) != std::string::npos;) man.replace(at, 2, "-");
    for (const tse::FindingInfo& info : tse::findingCatalogue()) {
        EXPECT_NE(man.find(std::string(info.name)), std::string::npos) << info.name << " is not in the man page";
    }
    // What the man page calls a finding in its lists is a code of the catalogue.
    const std::regex lists(R"((Findings:|grouped by\s+code \()([^.]*)\.)");
    const std::regex code(R"([a-z]+(-[a-z]+)+)");
    for (std::sregex_iterator list(man.begin(), man.end(), lists), end; list != end; ++list) {
        const std::string text = (*list)[2];
        for (std::sregex_iterator c(text.begin(), text.end(), code); c != end; ++c) {
            EXPECT_TRUE(tse::findingByName(c->str())) << c->str() << " is no finding";
        }
    }
}

// Each code is a finding some end-to-end test expects from a planted fault.
TEST(FindingCatalogue, EveryCodeIsExpectedBySomeTest)
{
    std::string tests;
    for (const char* file :
         {"audit_test.cpp", "audit_hostile_test.cpp", "dsfinvk_test.cpp", "dsfinvk_reconcile_test.cpp",
          "dsfinvk_intake_test.cpp", "dsfinvk_books_test.cpp", "tse_check_test.cpp"}) {
        tests += slurp(ROOT + "tests/e2e/" + file);
    }
    for (const tse::FindingInfo& info : tse::findingCatalogue()) {
        EXPECT_NE(tests.find("\"" + std::string(info.name) + "\""), std::string::npos)
            << info.name << " is expected by no test";
    }
}

}  // namespace
