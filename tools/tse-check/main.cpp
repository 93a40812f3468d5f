// tse-check: verifies, reads and audits what German fiscal security devices
// (TSEs) sign: log messages of every type, whole exports and receipts.
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "parallel.h"

#include "commands.h"
#include "receipt/pdf_child_process.h"
#include "shared/inputs.h"
#include "shared/output.h"

namespace {

using tsecheck::EXIT_BAD_INPUT;

// Usage faults get the same tagged line as every other refusal.
std::string usageFailure(const CLI::App* /*app*/, const CLI::Error& error)
{
    return std::string("[ERROR] ") + error.what() + "\nRun with --help for more information.\n";
}

int runGuarded(const tsecheck::Command& command)
{
    try {
        if (command.reports) tsecheck::checkReportPaths(*command.reports);
        return command.run();
    } catch (const tsecheck::Refusal& refusal) {
        std::cerr << refusal.line << std::endl;
        return refusal.status;
    } catch (const std::exception& error) {
        std::cerr << "[ERROR] " << error.what() << std::endl;
        return EXIT_BAD_INPUT;
    }
}

int runProgram(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == tsecheck::RENDER_PDF_WORD) return tsecheck::renderPdfChild();
#if defined(__GLIBC__)
    // glibc gives every thread that allocates an arena of its own, each
    // reserving 64 MiB of address space, up to eight per core. With many
    // threads under an address-space limit those reservations, not the
    // work, exhaust it; the work here is arithmetic and gains nothing from
    // more arenas than cores.
    mallopt(M_ARENA_MAX, static_cast<int>(tse::defaultJobs()));
#endif
    CLI::App app{"Verifies what German fiscal security devices (TSEs) sign: log messages, exports and receipts.\n"
                 "Exit status: 0 success, 1 a signature does not verify, 2 bad input or usage.",
                 "tse-check"};
    app.require_subcommand(1);
    app.failure_message(usageFailure);
    app.set_version_flag("--version", std::string("tse-check ") + TSE_CHECK_VERSION);

    const std::vector<tsecheck::Command> commands = {
        tsecheck::addReadCommand(app),   tsecheck::addReceiptCommand(app), tsecheck::addToQrCommand(app),
        tsecheck::addVerifyCommand(app), tsecheck::addAuditCommand(app),   tsecheck::addDsfinvkCommand(app),
        tsecheck::addServeCommand(app),
    };

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // The parser may stop at a missing subcommand or option first; the
        // user learns more from the word it did not take.
        const std::vector<std::string> unknown = app.remaining(true);
        if (error.get_exit_code() != 0 && !unknown.empty()) {
            const std::string& word = unknown.front();
            const char* kind = word.rfind('-', 0) == 0         ? "option"
                               : app.get_subcommands().empty() ? "subcommand"
                                                               : "argument";
            std::cerr << "[ERROR] Unknown " << kind << ": " << word << "\nRun with --help for more information."
                      << std::endl;
            return EXIT_BAD_INPUT;
        }
        return app.exit(error) == 0 ? 0 : EXIT_BAD_INPUT;
    }
    for (const tsecheck::Command& command : commands) {
        if (command.app->parsed()) return runGuarded(command);
    }
    return EXIT_BAD_INPUT;
}

}  // namespace

// Whatever escapes the program (building the command line can throw, so can
// memory running out) still ends with a message and a defined status.
int main(int argc, char** argv)
{
    try {
        return runProgram(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "tse-check: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "tse-check: an unexpected error" << std::endl;
    }
    return EXIT_BAD_INPUT;
}
