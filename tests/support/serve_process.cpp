#include "serve_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>
#include <thread>

#include "fixtures.h"

extern char** environ;

namespace fixtures {
namespace {

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

ServeProcess::ServeProcess(const std::string& tmp, const std::vector<std::string>& options)
    : tmp_(tmp), out_(tmp + ".out"), err_(tmp + ".err")
{
    std::vector<std::string> arguments{tseCheckPath(), "serve"};
    if (std::find(options.begin(), options.end(), "--listen") == options.end()) {
        arguments.insert(arguments.end(), {"--listen", "127.0.0.1:0"});
    }
    arguments.insert(arguments.end(), options.begin(), options.end());
    std::vector<char*> argv;
    for (std::string& a : arguments) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> environment{"TMPDIR=" + tmp_};
    for (char** e = environ; *e; ++e) {
        if (std::string(*e).rfind("TMPDIR=", 0) != 0) environment.emplace_back(*e);
    }
    std::vector<char*> envp;
    for (std::string& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        pid_ = -1;
        return;
    }
    const std::regex address(R"(Serving tse-check at http://[^:/]+:(\d+)/)"), token(R"(Bearer\): ([0-9a-zA-Z]+))");
    for (int i = 0; i < 200 && port_ == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::string text = output();
        std::smatch found, key;
        if (std::regex_search(text, found, address) && std::regex_search(text, key, token)) {
            port_ = std::stoi(found[1]);
            token_ = key[1];
        }
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            break;
        }
    }
}

ServeProcess::~ServeProcess()
{
    stop();
}

std::string ServeProcess::output() const
{
    return fileText(out_);
}

std::string ServeProcess::log() const
{
    return fileText(err_);
}

long ServeProcess::peakKiB() const
{
    const std::string status = fileText("/proc/" + std::to_string(pid_) + "/status");
    const size_t at = status.find("VmHWM:");
    return at == std::string::npos ? 0 : std::stol(status.substr(at + 6));
}

int ServeProcess::stop()
{
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    int status = 0;
    for (int i = 0; i < 300; ++i) {
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return -1;
}

}  // namespace fixtures
