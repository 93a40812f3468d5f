#include "connection_watch.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <set>

namespace tsecheck::serve {
namespace {

// The peer of a socket accepted on `port`; empty for any other descriptor.
std::string acceptedPeer(int fd, int port)
{
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode)) return {};
    sockaddr_storage local{}, peer{};
    socklen_t localLength = sizeof local, peerLength = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) return {};
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) return {};
    char text[INET6_ADDRSTRLEN] = {};
    int localPort = 0, peerPort = 0;
    if (local.ss_family == AF_INET) {
        localPort = ntohs(reinterpret_cast<const sockaddr_in*>(&local)->sin_port);
        const auto* p = reinterpret_cast<const sockaddr_in*>(&peer);
        inet_ntop(AF_INET, &p->sin_addr, text, sizeof text);
        peerPort = ntohs(p->sin_port);
    } else if (local.ss_family == AF_INET6) {
        localPort = ntohs(reinterpret_cast<const sockaddr_in6*>(&local)->sin6_port);
        const auto* p = reinterpret_cast<const sockaddr_in6*>(&peer);
        inet_ntop(AF_INET6, &p->sin6_addr, text, sizeof text);
        peerPort = ntohs(p->sin6_port);
    }
    return localPort == port ? peerName(text, peerPort) : std::string();
}

}  // namespace

std::string peerName(const std::string& address, int port)
{
    return address + ":" + std::to_string(port);
}

ConnectionWatch::ConnectionWatch(std::chrono::milliseconds limit) : limit_(limit) {}

ConnectionWatch::~ConnectionWatch()
{
    stop();
}

void ConnectionWatch::start(int port)
{
    port_ = port;
    thread_ = std::thread([this] { loop(); });
}

void ConnectionWatch::stop()
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void ConnectionWatch::touch(const std::string& peer)
{
    std::lock_guard<std::mutex> guard(lock_);
    active_[peer] = std::chrono::steady_clock::now();
}

void ConnectionWatch::loop()
{
    std::unique_lock<std::mutex> guard(lock_);
    while (!stopping_) {
        wake_.wait_for(guard, std::chrono::seconds(1));
        if (stopping_) break;
        guard.unlock();
        sweep();
        guard.lock();
    }
}

// A socket seen for the first time starts its clock now; one whose peer
// has gone is forgotten.
void ConnectionWatch::sweep()
{
    struct CloseDir {
        void operator()(DIR* d) const { closedir(d); }
    };
    std::unique_ptr<DIR, CloseDir> dir(opendir("/proc/self/fd"));
    if (!dir) return;
    std::map<std::string, int> open;
    while (const dirent* entry = readdir(dir.get())) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(dir.get())) continue;
        const std::string peer = acceptedPeer(static_cast<int>(fd), port_);
        if (!peer.empty()) open[peer] = static_cast<int>(fd);
    }
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> guard(lock_);
    for (auto it = active_.begin(); it != active_.end();) {
        it = open.count(it->first) ? std::next(it) : active_.erase(it);
    }
    for (const auto& [peer, fd] : open) {
        const auto seen = active_.emplace(peer, now).first;
        if (now - seen->second > limit_ && acceptedPeer(fd, port_) == peer) {
            // The library still owns the descriptor and closes it; this
            // only ends its reads and writes.
            shutdown(fd, SHUT_RDWR);
            active_.erase(seen);
        }
    }
}

}  // namespace tsecheck::serve
