#ifndef TSE_CHECK_SERVE_SERVE_FOLDER_H
#define TSE_CHECK_SERVE_SERVE_FOLDER_H

#include <string>

namespace tsecheck::serve {

// The server's private temporary folder (mode 0700), named after its
// process: tse-check-serve-PID-XXXXXX in $TMPDIR or /tmp. Deleted with
// everything in it when the server ends; folders that a server which is no
// longer running left behind (after a crash or SIGKILL) are deleted when
// the next one starts.
class ServeFolder {
public:
    ServeFolder();
    ~ServeFolder();
    ServeFolder(const ServeFolder&) = delete;
    ServeFolder& operator=(const ServeFolder&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace tsecheck::serve

#endif
