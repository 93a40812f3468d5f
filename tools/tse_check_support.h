#ifndef TSE_CHECK_SUPPORT_H
#define TSE_CHECK_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace tsecheck {

using Bytes = std::vector<uint8_t>;

constexpr int EXIT_OK = 0;
constexpr int EXIT_NOT_VERIFIED = 1;
constexpr int EXIT_BAD_INPUT = 2;

// Ends a command: main prints the line on standard error and exits with the
// status.
struct Refusal {
    int status;
    std::string line;
};
[[noreturn]] void refuse(int status, const std::string& reason);

// The library reports through the console; the commands speak for
// themselves, so they silence it while they call in.
class QuietLibrary {
public:
    QuietLibrary();
    ~QuietLibrary();
    QuietLibrary(const QuietLibrary&) = delete;
    QuietLibrary& operator=(const QuietLibrary&) = delete;
};

// The whole file; refuses with a readable reason for anything that is not a
// readable file of plausible size. `what` names the file in messages.
Bytes readInputFile(const std::string& path, const std::string& what);

// The EC public key of the first PEM certificate in the file, as the
// uncompressed point. Refuses unless the key lies on brainpoolP384r1, the
// only curve a TSE uses.
Bytes certificatePublicKey(const std::string& path);

std::string toBase64(const Bytes& data);
std::string toUpperHex(const Bytes& data);
Bytes sha256(const Bytes& data);

}  // namespace tsecheck

#endif
