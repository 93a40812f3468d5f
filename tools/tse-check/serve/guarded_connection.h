#ifndef TSE_CHECK_SERVE_GUARDED_CONNECTION_H
#define TSE_CHECK_SERVE_GUARDED_CONNECTION_H

// The HTTP library bounds the time of a single read and the length of a
// header line, not the number of header lines nor the time a whole request
// takes: a client could send headers without end, filling memory, or one
// byte every few seconds, holding a thread for ever. So the server reads
// and writes its connections through this stream, which the library's
// request parser uses as it uses its own: at most HEADER_BYTES before a
// request's headers are complete, and at least ACTIVE_BYTES in and out in
// every idle period, or the connection ends.

#include <httplib.h>

#include <chrono>
#include <cstddef>

namespace tsecheck::serve {

constexpr size_t HEADER_BYTES = 64 * 1024;

class GuardedStream : public httplib::Stream {
public:
    GuardedStream(socket_t sock, std::chrono::milliseconds idle, time_t readTimeout, time_t writeTimeout);

    // A new request starts: its headers are bounded again.
    void beginRequest();
    // The request line and headers are read; the handler runs.
    void headersRead() { inHeaders_ = false; }
    bool buffered() const { return position_ < filled_; }

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* ptr, size_t size) override;
    ssize_t write(const char* ptr, size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return sock_; }

private:
    // Waits for the socket until the read or write timeout or the idle
    // deadline, whichever comes first.
    bool ready(short events, time_t timeout) const;
    void count(size_t bytes);

    socket_t sock_;
    std::chrono::milliseconds idle_;
    time_t readTimeout_, writeTimeout_;
    std::chrono::steady_clock::time_point deadline_;
    size_t sinceActive_ = 0, headerBytes_ = 0;
    bool inHeaders_ = true;
    char buffer_[4096];
    size_t position_ = 0, filled_ = 0;
};

// cpp-httplib's server with every connection read through a GuardedStream.
class GuardedServer : public httplib::Server {
public:
    explicit GuardedServer(std::chrono::milliseconds idle) : idle_(idle) {}
    // Called from the pre-routing handler, on the connection's thread.
    static void headersRead();

private:
    bool process_and_close_socket(socket_t sock) override;
    bool waitForRequest(socket_t sock, const GuardedStream& stream) const;

    std::chrono::milliseconds idle_;
};

}  // namespace tsecheck::serve

#endif
