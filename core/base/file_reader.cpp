#include "file_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

#include <openssl/evp.h>

namespace tse {
namespace {

Result<Bytes> fail(std::string error)
{
    return Error{std::move(error), std::nullopt};
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string openError(int error)
{
    if (error == ENOENT || error == ENOTDIR) return "does not exist";
    return std::string("cannot be read: ") + std::strerror(error);
}

}  // namespace

Result<Bytes> readFileBounded(const std::string& path, size_t maxSize)
{
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) return fail(openError(errno));
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) return fail(openError(errno));
    if (S_ISDIR(info.st_mode)) return fail("is a directory");
    if (S_ISREG(info.st_mode) && static_cast<uint64_t>(info.st_size) > maxSize) {
        return fail("is larger than " + std::to_string(maxSize) + " bytes");
    }
    Bytes contents;
    if (S_ISREG(info.st_mode)) contents.reserve(static_cast<size_t>(info.st_size));
    uint8_t chunk[1 << 16];
    while (true) {
        const size_t wanted = std::min(sizeof(chunk), maxSize + 1 - contents.size());
        const ssize_t got = ::read(file.get(), chunk, wanted);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return fail(std::string("cannot be read: ") + std::strerror(errno));
        if (got == 0) break;
        contents.insert(contents.end(), chunk, chunk + got);
        if (contents.size() > maxSize) return fail("is larger than " + std::to_string(maxSize) + " bytes");
    }
    return contents;
}

Result<Bytes> sha256OfFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!in || !context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        return fail("cannot be read");
    }
    std::vector<char> piece(size_t{1} << 16);
    while (in) {
        in.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        const std::streamsize got = in.gcount();
        if (got > 0 && EVP_DigestUpdate(context.get(), piece.data(), static_cast<size_t>(got)) != 1) {
            return fail("cannot be hashed");
        }
    }
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (in.bad() || EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1) return fail("cannot be read");
    digest.resize(length);
    return digest;
}

}  // namespace tse
