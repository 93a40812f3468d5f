#include "serve/uploads.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "serve/serve_options.h"

namespace tsecheck::serve {

std::string storedName(std::string_view sent)
{
    // Some browsers send the whole path the file had on the client.
    const size_t slash = sent.find_last_of("/\\");
    if (slash != std::string_view::npos) sent = sent.substr(slash + 1);
    std::string name;
    for (const char c : sent.substr(0, 120)) {
        const bool safe = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
                          c == '_' || c == '-' || c == '+';
        name += safe ? c : '_';
    }
    while (!name.empty() && name.front() == '.') name.front() = '_';
    return name.empty() ? "upload" : name;
}

UploadFolder::UploadFolder(std::string folder, uint64_t maxBytes) : folder_(std::move(folder)), maxBytes_(maxBytes) {}

UploadFolder::~UploadFolder()
{
    if (fd_ >= 0) ::close(fd_);
}

bool UploadFolder::fail(int status, std::string problem)
{
    if (status_ == 0) {
        status_ = status;
        problem_ = std::move(problem);
    }
    return false;
}

// Two files of the same name: the later one goes to a numbered folder of
// its own, so that neither is overwritten and each keeps its name.
std::string UploadFolder::freePath(const std::string& name)
{
    namespace fs = std::filesystem;
    std::error_code error;
    for (size_t n = 1;; ++n) {
        const fs::path folder = n == 1 ? fs::path(folder_) : fs::path(folder_) / std::to_string(n);
        if (n > 1 && !fs::exists(folder, error)) ::mkdir(folder.c_str(), 0700);
        if (!fs::exists(folder / name, error)) return (folder / name).string();
    }
}

bool UploadFolder::closeFile()
{
    field_ = nullptr;
    if (fd_ < 0) return status_ == 0;
    const int result = ::close(fd_);
    fd_ = -1;
    if (result != 0) return fail(500, std::string("the upload could not be stored: ") + std::strerror(errno));
    return status_ == 0;
}

bool UploadFolder::begin(std::string_view field, std::string_view fileName)
{
    if (!closeFile()) return false;
    if (fileName.empty()) {
        if (++fieldCount_ > MAX_FIELDS)
            return fail(400, "the form has more than " + std::to_string(MAX_FIELDS) + " fields");
        field_ = &fields_.emplace(std::string(field), std::string())->second;
        return true;
    }
    if (files_.size() >= MAX_FILES_PER_UPLOAD) {
        return fail(400, "one upload holds at most " + std::to_string(MAX_FILES_PER_UPLOAD) + " files");
    }
    const std::string path = freePath(storedName(fileName));
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd_ < 0) return fail(500, std::string("the upload could not be stored: ") + std::strerror(errno));
    files_.push_back(StoredFile{std::string(field), std::string(fileName), path, 0});
    return true;
}

bool UploadFolder::append(const char* data, size_t size)
{
    if (status_ != 0) return false;
    if (field_) {
        fieldBytes_ += size;
        if (fieldBytes_ > MAX_FIELD_BYTES) {
            return fail(413, "the form's text fields hold more than " + std::to_string(MAX_FIELD_BYTES >> 20) + " MiB");
        }
        field_->append(data, size);
        return true;
    }
    if (fd_ < 0) return true;
    bytes_ += size;
    if (bytes_ > maxBytes_) {
        return fail(413, "the upload is larger than the server takes (--max-upload " + std::to_string(maxBytes_) +
                             " bytes)");
    }
    files_.back().size += size;
    while (size > 0) {
        const ssize_t written = ::write(fd_, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return fail(500, std::string("the upload could not be stored: ") + std::strerror(errno));
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool UploadFolder::finish()
{
    return closeFile();
}

std::vector<std::string> UploadFolder::fields(const std::string& name) const
{
    std::vector<std::string> values;
    const auto range = fields_.equal_range(name);
    for (auto it = range.first; it != range.second; ++it) values.push_back(it->second);
    return values;
}

}  // namespace tsecheck::serve
