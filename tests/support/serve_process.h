#ifndef TESTS_SERVE_PROCESS_H
#define TESTS_SERVE_PROCESS_H

// A `tse-check serve` running beside a test: started on a free loopback
// port with its temporary folder in the test's own, stopped (SIGTERM,
// then SIGKILL after a bound) when the test is over.

#include <sys/types.h>

#include <string>
#include <vector>

namespace fixtures {

class ServeProcess {
public:
    // `tmp` becomes the server's TMPDIR; output goes to files beside it.
    ServeProcess(const std::string& tmp, const std::vector<std::string>& options);
    ~ServeProcess();
    ServeProcess(const ServeProcess&) = delete;
    ServeProcess& operator=(const ServeProcess&) = delete;

    bool started() const { return port_ > 0; }
    int port() const { return port_; }
    const std::string& token() const { return token_; }
    std::string output() const;  // what it printed on standard output
    std::string log() const;     // standard error: one line per request and job
    pid_t pid() const { return pid_; }
    long peakKiB() const;  // VmHWM while it runs
    // SIGTERM and the exit status (128 + N after signal N; -1 when it had
    // to be killed).
    int stop();

private:
    std::string tmp_, out_, err_;
    pid_t pid_ = -1;
    int port_ = 0;
    std::string token_;
};

}  // namespace fixtures

#endif
