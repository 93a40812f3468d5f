#ifndef TSE_CHECK_COMMANDS_H
#define TSE_CHECK_COMMANDS_H

#include <functional>

#include <CLI/CLI.hpp>

#include "shared/options.h"

namespace tsecheck {

// A subcommand: its parser, and what runs when the user chose it. Each
// subcommand's file adds itself to the application and keeps its options
// in the closure.
struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;
    // The report files it writes, when it has --json/--csv/--html FILE:
    // checked before it runs, so that no work is lost to a path that cannot
    // be written.
    const ReportPaths* reports = nullptr;
};

Command addReadCommand(CLI::App& parent);
Command addReceiptCommand(CLI::App& parent);
Command addToQrCommand(CLI::App& parent);
Command addVerifyCommand(CLI::App& parent);
Command addAuditCommand(CLI::App& parent);
Command addDsfinvkCommand(CLI::App& parent);
Command addServeCommand(CLI::App& parent);

}  // namespace tsecheck

#endif
