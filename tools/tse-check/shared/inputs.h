#ifndef TSE_CHECK_SHARED_INPUTS_H
#define TSE_CHECK_SHARED_INPUTS_H

#include <cstddef>
#include <string>
#include <vector>

#include "bytes.h"
#include "certificate.h"
#include "log_message.h"

namespace tsecheck {

using tse::Bytes;

constexpr int EXIT_OK = 0;
constexpr int EXIT_NOT_VERIFIED = 1;
constexpr int EXIT_BAD_INPUT = 2;

// Inputs above these sizes are refused before they are held in memory: a
// log message of a real TSE stays far below, a wrong path such as a disk
// image or /dev/zero does not.
constexpr size_t MAX_LOG_SIZE = 16u << 20;
constexpr size_t MAX_CERTIFICATE_SIZE = 1u << 20;

// Ends a command: main prints the line on standard error and exits with the
// status.
struct Refusal {
    int status;
    std::string line;
};
[[noreturn]] void refuse(int status, const std::string& reason);

// The whole file, read once (FIFOs and /dev/fd/N work); refuses with a
// reason that names the file. `what` is "Log file", "Certificate", ...
Bytes readInputFile(const std::string& path, const std::string& what, size_t maxSize);

// A log message, or a refusal that names the file, the problem and the byte.
tse::LogMessage readLogFile(const std::string& path);
std::vector<tse::Certificate> readCertificateFile(const std::string& path);

}  // namespace tsecheck

#endif
