#ifndef TSE_CHECK_SHARED_OPTIONS_H
#define TSE_CHECK_SHARED_OPTIONS_H

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tsecheck {

// Where a subcommand writes its reports: a path each, "-" for standard
// output, empty when not asked for.
struct ReportPaths {
    std::string json, csv, html;
};

// The options that several subcommands share, each defined here once with
// its help, so that it reads and behaves the same wherever it is offered.
// The documentation test holds every subcommand's help, the man page and
// the completion to these, and refuses a second definition elsewhere.

// --cert FILE, repeatable: TSE certificates in PEM or DER.
CLI::Option* addCertOption(CLI::App& app, std::vector<std::string>& files);
// --trust DIR, repeatable: trusted root certificates.
CLI::Option* addTrustOption(CLI::App& app, std::vector<std::string>& directories);
// --json alone: the results as one JSON document on standard output
// instead of text, for subcommands that print one line per item.
CLI::Option* addJsonFlag(CLI::App& app, bool& json);
// --json FILE, --csv FILE and --html FILE: reports written besides the text
// summary, for subcommands that judge a whole export.
void addReportOptions(CLI::App& app, ReportPaths& paths);
// --strict: warnings count as errors.
CLI::Option* addStrictOption(CLI::App& app, bool& strict);
// --jobs N, -j N: threads, one per core unless given.
CLI::Option* addJobsOption(CLI::App& app, unsigned& jobs);
// --jobs N, -j N of a server: checks that run at once, each on threads of
// its own; another form of --jobs, so defined here beside it.
CLI::Option* addJobsAtOnceOption(CLI::App& app, unsigned& jobs);
// --progress / --no-progress; shown by default when standard error is a
// terminal, which this sets.
CLI::Option* addProgressOption(CLI::App& app, bool& progress);

}  // namespace tsecheck

#endif
