#ifndef TSE_CHECK_COMMANDS_H
#define TSE_CHECK_COMMANDS_H

#include <functional>

#include <CLI/CLI.hpp>

namespace tsecheck {

// A subcommand: its parser, and what runs when the user chose it. Each
// subcommand's file adds itself to the application and keeps its options
// in the closure.
struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;
};

Command addReadCommand(CLI::App& parent);
Command addReceiptCommand(CLI::App& parent);
Command addToQrCommand(CLI::App& parent);
Command addVerifyCommand(CLI::App& parent);
Command addAuditCommand(CLI::App& parent);
Command addDsfinvkCommand(CLI::App& parent);

}  // namespace tsecheck

#endif
