// tse-check: reads exported TSE transaction log messages and turns them into
// the receipt QR code text that the signature-verification tool accepts.
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tse_check_commands.h"
#include "tse_check_support.h"

namespace {

using tsecheck::EXIT_BAD_INPUT;

// Usage faults get the same tagged line as every other refusal.
std::string usageFailure(const CLI::App* /*app*/, const CLI::Error& error)
{
    return std::string("[ERROR] ") + error.what() + "\nRun with --help for more information.\n";
}

int runGuarded(const std::function<int()>& command)
{
    try {
        return command();
    } catch (const tsecheck::Refusal& refusal) {
        std::cerr << refusal.line << std::endl;
        return refusal.status;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Reads exported TSE transaction log messages and makes receipt QR codes from them.\n"
                 "Exit status: 0 success, 1 signature does not verify, 2 bad input or usage.",
                 "tse-check"};
    app.require_subcommand(1);
    app.failure_message(usageFailure);
    app.set_version_flag("--version", std::string("tse-check ") + TSE_CHECK_VERSION);

    std::string readPath;
    CLI::App* read = app.add_subcommand("read", "Print the fields of an exported transaction log message");
    read->add_option("LOGFILE", readPath, "Exported transaction log message (DER)")->required()->type_name("FILE");

    tsecheck::ToQrOptions toQr;
    std::string startTime;
    CLI::App* qr = app.add_subcommand(
        "to-qr", "Verify an exported transaction log message and print the receipt QR code text for it");
    qr->add_option("LOGFILE", toQr.logPath, "Exported transaction log message (DER)")->required()->type_name("FILE");
    qr->add_option("--cert", toQr.certPath, "Certificate of the TSE (PEM)")->required()->type_name("FILE");
    CLI::Option* startOption =
        qr->add_option("--start-time", startTime, "Start time of the transaction (default: the log time)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // The parser may stop at a missing subcommand or option first; the
        // user learns more from the word it did not take.
        const std::vector<std::string> unknown = app.remaining(true);
        if (error.get_exit_code() != 0 && !unknown.empty()) {
            const std::string& word = unknown.front();
            const char* kind = word.rfind('-', 0) == 0     ? "option"
                               : app.get_subcommands().empty() ? "subcommand"
                                                               : "argument";
            std::cerr << "[ERROR] Unknown " << kind << ": " << word << "\nRun with --help for more information."
                      << std::endl;
            return EXIT_BAD_INPUT;
        }
        return app.exit(error) == 0 ? 0 : EXIT_BAD_INPUT;
    }
    if (read->parsed()) {
        return runGuarded([&] { return tsecheck::readCommand(readPath); });
    }
    if (startOption->count() > 0) {
        toQr.startTime = startTime;
    }
    return runGuarded([&] { return tsecheck::toQrCommand(toQr); });
}
