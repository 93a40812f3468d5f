#include "serve/guarded_connection.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "serve/serve_options.h"

namespace tsecheck::serve {
namespace {

// The stream of the request this thread answers, for the pre-routing
// handler to say that the headers are in.
thread_local GuardedStream* current = nullptr;

void addressOf(const sockaddr_storage& address, std::string& ip, int& port)
{
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        const auto* a = reinterpret_cast<const sockaddr_in*>(&address);
        inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
        port = ntohs(a->sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto* a = reinterpret_cast<const sockaddr_in6*>(&address);
        inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
        port = ntohs(a->sin6_port);
    }
    ip = text;
}

}  // namespace

GuardedStream::GuardedStream(socket_t sock, std::chrono::milliseconds idle, time_t readTimeout, time_t writeTimeout)
    : sock_(sock), idle_(idle), readTimeout_(readTimeout), writeTimeout_(writeTimeout)
{
    beginRequest();
}

void GuardedStream::beginRequest()
{
    inHeaders_ = true;
    headerBytes_ = 0;
    sinceActive_ = 0;
    deadline_ = std::chrono::steady_clock::now() + idle_;
}

void GuardedStream::count(size_t bytes)
{
    if (inHeaders_) headerBytes_ += bytes;
    sinceActive_ += bytes;
    if (!inHeaders_ && sinceActive_ >= ACTIVE_BYTES) {
        sinceActive_ = 0;
        deadline_ = std::chrono::steady_clock::now() + idle_;
    }
}

bool GuardedStream::ready(short events, time_t timeout) const
{
    const auto now = std::chrono::steady_clock::now();
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - now).count();
    const long long wait = std::min<long long>(left, static_cast<long long>(timeout) * 1000);
    if (wait <= 0) return false;
    pollfd entry{sock_, events, 0};
    int result = 0;
    do {
        result = ::poll(&entry, 1, static_cast<int>(wait));
    } while (result < 0 && errno == EINTR);
    return result > 0;
}

bool GuardedStream::is_readable() const
{
    return buffered() || ready(POLLIN, readTimeout_);
}

bool GuardedStream::is_writable() const
{
    return ready(POLLOUT, writeTimeout_);
}

ssize_t GuardedStream::read(char* ptr, size_t size)
{
    if (inHeaders_ && headerBytes_ > HEADER_BYTES) return -1;
    if (!buffered()) {
        if (!ready(POLLIN, readTimeout_)) return -1;
        ssize_t got = 0;
        do {
            got = ::recv(sock_, buffer_, sizeof buffer_, 0);
        } while (got < 0 && errno == EINTR);
        if (got <= 0) return got;
        position_ = 0;
        filled_ = static_cast<size_t>(got);
    }
    const size_t n = std::min(size, filled_ - position_);
    std::copy(buffer_ + position_, buffer_ + position_ + n, ptr);
    position_ += n;
    count(n);
    return static_cast<ssize_t>(n);
}

ssize_t GuardedStream::write(const char* ptr, size_t size)
{
    if (!ready(POLLOUT, writeTimeout_)) return -1;
    ssize_t sent = 0;
    do {
        sent = ::send(sock_, ptr, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent > 0) count(static_cast<size_t>(sent));
    return sent;
}

void GuardedStream::get_remote_ip_and_port(std::string& ip, int& port) const
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getpeername(sock_, reinterpret_cast<sockaddr*>(&address), &length) == 0) addressOf(address, ip, port);
}

void GuardedStream::get_local_ip_and_port(std::string& ip, int& port) const
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(sock_, reinterpret_cast<sockaddr*>(&address), &length) == 0) addressOf(address, ip, port);
}

void GuardedServer::headersRead()
{
    if (current) current->headersRead();
}

bool GuardedServer::waitForRequest(socket_t sock, const GuardedStream& stream) const
{
    if (stream.buffered()) return true;
    pollfd entry{sock, POLLIN, 0};
    int result = 0;
    do {
        result = ::poll(&entry, 1, static_cast<int>(keep_alive_timeout_sec_ * 1000));
    } while (result < 0 && errno == EINTR);
    return result > 0;
}

// The library's own loop over the requests of a kept-alive connection,
// reading through the guarded stream.
bool GuardedServer::process_and_close_socket(socket_t sock)
{
    GuardedStream stream(sock, idle_, read_timeout_sec_, write_timeout_sec_);
    bool answered = false;
    for (size_t left = keep_alive_max_count_; svr_sock_ != INVALID_SOCKET && left > 0; --left) {
        if (!waitForRequest(sock, stream)) break;
        stream.beginRequest();
        bool closed = false;
        current = &stream;
        answered = process_request(stream, left == 1, closed, nullptr);
        current = nullptr;
        if (!answered || closed) break;
    }
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return answered;
}

}  // namespace tsecheck::serve
