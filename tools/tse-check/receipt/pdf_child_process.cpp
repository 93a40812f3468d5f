// PDFs are rendered by a child process of tse-check under limits of memory
// and processor time. Poppler decodes a page's streams whole before any
// bound of ours can apply, so a small file that inflates to gigabytes, or a
// page that takes minutes to draw, can only be stopped from outside.
#include "receipt/pdf_child_process.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define TSE_CLANG_SANITIZER 1
#endif
#endif
#ifndef TSE_CLANG_SANITIZER
#define TSE_CLANG_SANITIZER 0
#endif

namespace tsecheck {
namespace {

// What the child sends: per page 'P' and four little-endian 32-bit numbers
// (page, pages, width, height), then the grey pixels; at the end 'E', the
// length of the error text and the text (empty when every page rendered).
constexpr char PAGE_TAG = 'P';
constexpr char END_TAG = 'E';
constexpr uint32_t MAX_ERROR_TEXT = 4096;
// The file's largest PDF as tse-check reads pictures.
constexpr size_t MAX_PDF_INPUT = 64u << 20;
// The child rounds a page's size; the parent allows for that and no more.
constexpr int64_t PIXEL_SLACK = 20'000;
// Beyond the processor time: a renderer that waits on nothing for this long
// is stopped.
constexpr int WALL_SECONDS = 2 * PDF_SECONDS_PER_FILE;

// ---- the child ----------------------------------------------------------

bool writeAll(int fd, const void* data, size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t wrote = ::write(fd, bytes, size);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return false;
        bytes += wrote;
        size -= static_cast<size_t>(wrote);
    }
    return true;
}

void putNumber(std::string& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>((value >> shift) & 0xFF);
}

rlim_t cpuSecondsUsed()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<rlim_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + 1);
}

// The next page may take PDF_SECONDS_PER_PAGE from now, the file no more
// than PDF_SECONDS_PER_FILE in all; past the soft limit the kernel sends
// SIGXCPU, which ends the child.
void allowNextPage()
{
    const rlim_t hard = PDF_SECONDS_PER_FILE;
    const rlimit cpu{std::min<rlim_t>(hard, cpuSecondsUsed() + PDF_SECONDS_PER_PAGE), hard};
    setrlimit(RLIMIT_CPU, &cpu);
}

std::optional<tse::Bytes> readInput()
{
    tse::Bytes data;
    uint8_t chunk[1 << 16];
    while (data.size() <= MAX_PDF_INPUT) {
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) return data;
        data.insert(data.end(), chunk, chunk + got);
    }
    return std::nullopt;
}

// ---- the parent ---------------------------------------------------------

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1)
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// The child until it is reaped; one that is still running then is killed
// first, so that no way out of the parent leaves it behind.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child()
    {
        if (pid_ > 0) {
            kill();
            wait();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    void kill() { ::kill(pid_, SIGKILL); }
    int wait()
    {
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_;
};

int64_t nowSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec);
}

enum class ReadEnd { Done, Closed, TimedOut };

ReadEnd readExact(int fd, void* into, size_t size, int64_t deadline)
{
    auto* bytes = static_cast<uint8_t*>(into);
    while (size > 0) {
        const int64_t left = deadline - nowSeconds();
        if (left <= 0) return ReadEnd::TimedOut;
        pollfd wait{fd, POLLIN, 0};
        const int ready = ::poll(&wait, 1, static_cast<int>(std::min<int64_t>(left, 60) * 1000));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return ReadEnd::Closed;
        if (ready == 0) continue;
        const ssize_t got = ::read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return ReadEnd::Closed;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return ReadEnd::Done;
}

uint32_t numberAt(const uint8_t* bytes)
{
    return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

std::string signalName(int signal)
{
    const char* name = sigabbrev_np(signal);
    return name ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

std::string pageWords(int page)
{
    return "page " + std::to_string(page) + " of the PDF";
}

// Why the child ended without its closing record.
std::string failure(int status, int page, bool timedOut)
{
    const std::string where = pageWords(page);
    if (timedOut) return where + " was not rendered within " + std::to_string(WALL_SECONDS) + " s";
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        if (signal == SIGXCPU || signal == SIGKILL) {
            return where + " could not be rendered within its processor time (" + std::to_string(PDF_SECONDS_PER_PAGE) +
                   " s a page, " + std::to_string(PDF_SECONDS_PER_FILE) + " s a file)";
        }
        return "the PDF renderer stopped with " + signalName(signal) + " on " + where + " (it may use " +
               std::to_string(PDF_MEMORY_LIMIT >> 20) + " MiB of memory)";
    }
    return "the PDF renderer ended on " + where + " without a result (exit status " +
           std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")";
}

tse::Error spawnError(const char* step, int error)
{
    return tse::Error{std::string("the PDF cannot be rendered: ") + step + " failed: " + std::strerror(error)};
}

// Starts the renderer on the PDF; the pages come out of `output`.
tse::Result<pid_t> startRenderer(tse::ByteView data, Fd& output)
{
    // The PDF reaches the child as a file in memory: a pipe would make the
    // parent wait for a child that may never read, or die of SIGPIPE.
    Fd input(memfd_create("tse-check-pdf", MFD_CLOEXEC));
    if (input.get() < 0) return spawnError("memfd_create", errno);
    if (!writeAll(input.get(), data.data(), data.size()) || ::lseek(input.get(), 0, SEEK_SET) != 0) {
        return spawnError("writing the PDF for the renderer", errno);
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return spawnError("pipe2", errno);
    output.reset(ends[0]);
    const Fd childEnd(ends[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char program[] = "tse-check";
    char word[64];
    std::strncpy(word, RENDER_PDF_WORD, sizeof word - 1);
    word[sizeof word - 1] = '\0';
    char* arguments[] = {program, word, nullptr};
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return spawnError("starting the renderer", spawned);
    return pid;
}

// What the parent knows while it reads the renderer's records.
struct Reading {
    int fd;
    Child& child;
    int64_t deadline;
    int lastPage = 0;
    int64_t pixelsSoFar = 0;

    // The pipe closed or the time ran out: why the child ended.
    tse::Error broken(ReadEnd end)
    {
        child.kill();
        return tse::Error{failure(child.wait(), lastPage + 1, end == ReadEnd::TimedOut)};
    }
    tse::Error garbled()
    {
        child.kill();
        child.wait();
        return tse::Error{"the PDF renderer sent something other than pages after " + pageWords(lastPage)};
    }
};

// The closing record: the renderer's own error, no text when every page
// rendered.
tse::Result<void> readEnd(Reading& r)
{
    uint8_t size[4];
    if (const ReadEnd end = readExact(r.fd, size, 4, r.deadline); end != ReadEnd::Done) return r.broken(end);
    const uint32_t length = numberAt(size);
    if (length > MAX_ERROR_TEXT) return r.garbled();
    std::string text(length, '\0');
    if (const ReadEnd end = readExact(r.fd, text.data(), length, r.deadline); end != ReadEnd::Done) {
        return r.broken(end);
    }
    r.child.wait();
    if (!text.empty()) return tse::Error{text};
    return {};
}

// A page record after its tag. The child's numbers are never trusted: it
// renders untrusted input.
tse::Result<void> readPage(Reading& r, const tse::PdfPageHandler& onPage)
{
    uint8_t head[16];
    if (const ReadEnd end = readExact(r.fd, head, sizeof head, r.deadline); end != ReadEnd::Done) {
        return r.broken(end);
    }
    const int64_t page = numberAt(head), pages = numberAt(head + 4);
    const int64_t width = numberAt(head + 8), height = numberAt(head + 12);
    if (pages < 1 || pages > tse::maxPdfPages || page != r.lastPage + 1 || page > pages || width < 1 || height < 1 ||
        width * height > tse::maxPageRenderPixels + PIXEL_SLACK ||
        r.pixelsSoFar + width * height > tse::maxPdfRenderPixels + pages * PIXEL_SLACK) {
        return r.garbled();
    }
    tse::GreyImage image{static_cast<int>(width), static_cast<int>(height),
                         std::vector<uint8_t>(static_cast<size_t>(width * height))};
    if (const ReadEnd end = readExact(r.fd, image.pixels.data(), image.pixels.size(), r.deadline);
        end != ReadEnd::Done) {
        return r.broken(end);
    }
    r.pixelsSoFar += width * height;
    r.lastPage = static_cast<int>(page);
    onPage(r.lastPage, static_cast<int>(pages), image);
    return {};
}

tse::Result<void> readPages(Reading& r, const tse::PdfPageHandler& onPage)
{
    while (true) {
        char tag = 0;
        if (const ReadEnd end = readExact(r.fd, &tag, 1, r.deadline); end != ReadEnd::Done) return r.broken(end);
        if (tag == END_TAG) return readEnd(r);
        if (tag != PAGE_TAG) return r.garbled();
        if (const tse::Result<void> page = readPage(r, onPage); !page) return page;
    }
}

}  // namespace

int renderPdfChild()
{
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    // The sanitizers reserve terabytes of address space for their shadow
    // memory; under them only the time is bounded.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !TSE_CLANG_SANITIZER
    const rlimit memory{PDF_MEMORY_LIMIT, PDF_MEMORY_LIMIT};
    setrlimit(RLIMIT_AS, &memory);
#endif
    allowNextPage();
    std::string error;
    const std::optional<tse::Bytes> data = readInput();
    if (!data) {
        error = "the PDF could not be handed to its renderer";
    } else {
        try {
            const tse::Result<void> rendered =
                tse::renderPdfPages(*data, [](int page, int pages, const tse::GreyImage& image) {
                    std::string head(1, PAGE_TAG);
                    for (const int value : {page, pages, image.width, image.height}) {
                        putNumber(head, static_cast<uint32_t>(value));
                    }
                    if (!writeAll(STDOUT_FILENO, head.data(), head.size()) ||
                        !writeAll(STDOUT_FILENO, image.pixels.data(), image.pixels.size())) {
                        std::_Exit(1);
                    }
                    allowNextPage();
                });
            if (!rendered) error = rendered.error().message;
        } catch (const std::bad_alloc&) {
            error = "the PDF could not be rendered within " + std::to_string(PDF_MEMORY_LIMIT >> 20) + " MiB of memory";
        }
    }
    if (error.size() > MAX_ERROR_TEXT) error.resize(MAX_ERROR_TEXT);
    std::string end(1, END_TAG);
    putNumber(end, static_cast<uint32_t>(error.size()));
    end += error;
    return writeAll(STDOUT_FILENO, end.data(), end.size()) ? 0 : 1;
}

tse::Result<void> renderPdfOutOfProcess(tse::ByteView data, const tse::PdfPageHandler& onPage)
{
    Fd output;
    const tse::Result<pid_t> pid = startRenderer(data, output);
    if (!pid) return pid.error();
    Child child(*pid);
    Reading reading{output.get(), child, nowSeconds() + WALL_SECONDS};
    return readPages(reading, onPage);
}

}  // namespace tsecheck
