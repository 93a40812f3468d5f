#ifndef TSE_CHECK_SERVE_UPLOADS_H
#define TSE_CHECK_SERVE_UPLOADS_H

// Uploaded files go straight to disk, block by block, into the job's
// private folder; nothing holds a whole file in memory. The name a browser
// sends is shown (escaped) but never chooses where a file is written: the
// file is kept under a name made of safe characters only, which keeps what
// the checks read from a name (a log's counter, X.tar.001, _X509.pem).

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tsecheck::serve {

struct StoredFile {
    std::string field;      // the form field: "export", "dsfinvk", "image", ...
    std::string shownName;  // as the browser sent it; escape before showing
    std::string path;       // where it is kept
    uint64_t size = 0;
};

// The safe name a file is kept under: the last component of what was sent,
// with every byte outside [A-Za-z0-9._+-] made '_', no leading dot,
// at most 120 bytes; "upload" when nothing is left.
std::string storedName(std::string_view sent);

class UploadFolder {
public:
    // `folder` exists and is private to the server (mode 0700).
    UploadFolder(std::string folder, uint64_t maxBytes);
    ~UploadFolder();
    UploadFolder(const UploadFolder&) = delete;
    UploadFolder& operator=(const UploadFolder&) = delete;

    // Each part of the form, as it arrives: a file (non-empty file name)
    // or a text field. False once a bound is crossed: see status().
    bool begin(std::string_view field, std::string_view fileName);
    bool append(const char* data, size_t size);
    bool finish();  // after the last part

    // 413 over the byte bound, 400 for too many files or fields, 500 when
    // the disk refuses; 0 while all is well.
    int status() const { return status_; }
    const std::string& problem() const { return problem_; }
    uint64_t bytes() const { return bytes_; }

    const std::vector<StoredFile>& files() const { return files_; }
    std::vector<std::string> fields(const std::string& name) const;

private:
    bool fail(int status, std::string problem);
    bool closeFile();
    std::string freePath(const std::string& name);

    std::string folder_;
    uint64_t maxBytes_, bytes_ = 0;
    size_t fieldBytes_ = 0, fieldCount_ = 0;
    std::vector<StoredFile> files_;
    std::multimap<std::string, std::string> fields_;
    std::string* field_ = nullptr;  // the text field being filled
    int fd_ = -1;
    int status_ = 0;
    std::string problem_;
};

}  // namespace tsecheck::serve

#endif
