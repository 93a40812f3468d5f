#include "serve/serve_folder.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace tsecheck::serve {
namespace {

namespace fs = std::filesystem;

constexpr const char* PREFIX = "tse-check-serve-";

fs::path temporaryRoot()
{
    const char* tmp = std::getenv("TMPDIR");
    return tmp && *tmp ? fs::path(tmp) : fs::path("/tmp");
}

// A folder of ours whose server no longer runs.
bool abandoned(const fs::directory_entry& entry)
{
    const std::string name = entry.path().filename().string();
    if (name.rfind(PREFIX, 0) != 0) return false;
    struct stat status {};
    if (::lstat(entry.path().c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != ::getuid())
        return false;
    const long pid = std::strtol(name.c_str() + std::strlen(PREFIX), nullptr, 10);
    return pid > 0 && pid != ::getpid() && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

void removeAbandoned(const fs::path& root)
{
    std::error_code error;
    std::vector<fs::path> old;
    for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
        if (abandoned(*it)) old.push_back(it->path());
    }
    for (const fs::path& path : old) fs::remove_all(path, error);
}

}  // namespace

ServeFolder::ServeFolder()
{
    const fs::path root = temporaryRoot();
    removeAbandoned(root);
    std::string pattern = (root / (PREFIX + std::to_string(::getpid()) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("Cannot serve: no private folder in " + root.string() + ": " + std::strerror(errno));
    }
    path_ = pattern;
}

ServeFolder::~ServeFolder()
{
    std::error_code error;
    fs::remove_all(path_, error);
}

}  // namespace tsecheck::serve
