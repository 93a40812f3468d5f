// The report files of the subcommands that write them (--json, --csv,
// --html FILE): every path is checked before the work starts, and a file
// that fails while being written is named with the system's reason.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fixtures.h"

namespace {

using Args = std::vector<std::string>;

const std::string HERE = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/'));
const std::string REAL_EXPORT = HERE + "/../data/real-exports/logMessages1.tar";
const std::string SAMPLE_DSFINVK = HERE + "/../../samples/demo-dsfinvk.zip";
// An input that cannot be read: a refusal that names the report path
// instead of it proves the path was checked first.
const std::string NO_INPUT = "/nonexistent/export.tar";

struct Subcommand {
    std::string name;
    Args input;  // what it checks, when the work is to run
};

const std::vector<Subcommand> WRITERS = {
    {"audit", {"audit", "--no-progress", REAL_EXPORT}},
    {"dsfinvk", {"dsfinvk", "--no-progress", SAMPLE_DSFINVK}},
};

Args with(const std::string& subcommand, const std::string& input, const Args& reports)
{
    Args arguments{subcommand, "--no-progress", input};
    arguments.insert(arguments.end(), reports.begin(), reports.end());
    return arguments;
}

TEST(ReportOutputs, EveryPathIsCheckedBeforeTheWork)
{
    fixtures::TempDir dir;
    const std::string folder = dir.path("folder");
    std::filesystem::create_directory(folder);
    struct Case {
        std::string name;
        Args reports;
        std::string error;  // the whole of standard error
    };
    const std::vector<Case> cases = {
        {"two to standard output",
         {"--json", "-", "--csv", "-"},
         "[ERROR] --json, --csv and --html cannot share standard output; write all but one to files\n"
         "Run with --help for more information.\n"},
        {"two to one file",
         {"--json", dir.path("r"), "--html", dir.path("r")},
         "[ERROR] --json, --csv and --html cannot share the file " + dir.path("r") +
             "\nRun with --help for more information.\n"},
        {"a missing folder",
         {"--json", dir.path("fine.json"), "--csv", dir.path("missing/r.csv")},
         "[ERROR] Cannot write " + dir.path("missing/r.csv") + ": No such file or directory\n"},
        {"a folder", {"--html", folder}, "[ERROR] Cannot write " + folder + ": Is a directory\n"},
        {"a name with a line end",
         {"--csv", dir.path("no\nsuch/r.csv")},
         "[ERROR] Cannot write " + dir.path("no\\nsuch/r.csv") + ": No such file or directory\n"},
    };
    for (const Subcommand& subcommand : WRITERS) {
        for (const Case& c : cases) {
            const fixtures::RunResult result =
                fixtures::run(fixtures::tseCheckPath(), with(subcommand.name, NO_INPUT, c.reports));
            EXPECT_EQ(result.status, 2) << subcommand.name << ", " << c.name;
            EXPECT_EQ(result.err, c.error) << subcommand.name << ", " << c.name;
            EXPECT_EQ(result.out, "") << subcommand.name << ", " << c.name;
        }
        EXPECT_FALSE(std::filesystem::exists(dir.path("fine.json"))) << subcommand.name;
    }
}

// A report that fails while written, after the work: the file and why, and
// status 2 whatever the verdict; the report that went to standard output
// before it stays whole.
TEST(ReportOutputs, AFailedWriteNamesTheFileAndTheReason)
{
    for (const Subcommand& subcommand : WRITERS) {
        Args arguments = subcommand.input;
        arguments.insert(arguments.end(), {"--json", "-", "--csv", "/dev/full"});
        const fixtures::RunResult result = fixtures::run(fixtures::tseCheckPath(), arguments);
        EXPECT_EQ(result.status, 2) << subcommand.name;
        EXPECT_EQ(result.err, "[ERROR] Cannot write /dev/full: No space left on device\n") << subcommand.name;
        EXPECT_TRUE(nlohmann::json::parse(result.out).contains("summary")) << subcommand.name;
    }
}

}  // namespace
