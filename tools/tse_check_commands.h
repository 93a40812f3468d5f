#ifndef TSE_CHECK_COMMANDS_H
#define TSE_CHECK_COMMANDS_H

#include <optional>
#include <string>

namespace tsecheck {

struct ToQrOptions {
    std::string certPath;
    std::string logPath;
    std::optional<std::string> startTime;  // the log time when not given
};

// Each prints its result on standard output and returns the exit status;
// a refusal leaves them as a Refusal.
int readCommand(const std::string& logPath);
int toQrCommand(const ToQrOptions& options);

}  // namespace tsecheck

#endif
