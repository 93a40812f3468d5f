#include "shared/options.h"

#include <unistd.h>

namespace tsecheck {

CLI::Option* addCertOption(CLI::App& app, std::vector<std::string>& files)
{
    return app.add_option("--cert", files, "TSE certificate (PEM or DER); repeatable")
        ->type_name("FILE")
        ->allow_extra_args(false);
}

CLI::Option* addTrustOption(CLI::App& app, std::vector<std::string>& directories)
{
    return app.add_option("--trust", directories, "Directory of trusted root certificates; repeatable")
        ->type_name("DIR")
        ->allow_extra_args(false);
}

CLI::Option* addJsonFlag(CLI::App& app, bool& json)
{
    return app.add_flag("--json", json, "Print the results as one JSON document instead of text");
}

void addReportOptions(CLI::App& app, ReportPaths& paths)
{
    app.add_option("--json", paths.json, "Write the report as JSON (- for standard output)")->type_name("FILE");
    app.add_option("--csv", paths.csv, "Write the report's rows as CSV (- for standard output)")->type_name("FILE");
    app.add_option("--html", paths.html,
                   "Write a report for people: one self-contained HTML file with charts, to read or print "
                   "(- for standard output)")
        ->type_name("FILE");
}

CLI::Option* addStrictOption(CLI::App& app, bool& strict)
{
    return app.add_flag("--strict", strict, "Count warnings as errors");
}

CLI::Option* addJobsOption(CLI::App& app, unsigned& jobs)
{
    return app.add_option("--jobs,-j", jobs, "Threads to verify with (default: every core)")
        ->check(CLI::Range(1u, 1024u));
}

CLI::Option* addJobsAtOnceOption(CLI::App& app, unsigned& jobs)
{
    return app.add_option("--jobs,-j", jobs, "Jobs that run at once (default: the number of cores)")
        ->check(CLI::Range(1u, 256u));
}

CLI::Option* addProgressOption(CLI::App& app, bool& progress)
{
    progress = isatty(STDERR_FILENO) != 0;
    return app.add_flag("--progress,!--no-progress", progress,
                        "Show progress on standard error (default: when it is a terminal)");
}

}  // namespace tsecheck
