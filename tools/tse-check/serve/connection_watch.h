#ifndef TSE_CHECK_SERVE_CONNECTION_WATCH_H
#define TSE_CHECK_SERVE_CONNECTION_WATCH_H

// Closes connections that stall. The HTTP library times out a single
// read, but a client that sends one byte every few seconds, of a header
// or of an upload, would hold one of its threads for ever. Every second
// this looks at the server's connected sockets and shuts down those that
// have shown no activity (a finished request, ACTIVE_BYTES of an upload
// or a download) for the idle limit; the library then closes them itself.

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace tsecheck::serve {

class ConnectionWatch {
public:
    explicit ConnectionWatch(std::chrono::milliseconds limit);
    ~ConnectionWatch();
    ConnectionWatch(const ConnectionWatch&) = delete;
    ConnectionWatch& operator=(const ConnectionWatch&) = delete;

    // Watches the sockets accepted on this local port.
    void start(int port);
    void stop();
    // The peer ("address:port") did something worth its connection.
    void touch(const std::string& peer);

private:
    void loop();
    void sweep();

    const std::chrono::milliseconds limit_;
    int port_ = 0;
    std::mutex lock_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::map<std::string, std::chrono::steady_clock::time_point> active_;  // peer: last activity
    std::thread thread_;
};

// "address:port" of a socket's peer, as the library reports it.
std::string peerName(const std::string& address, int port);

}  // namespace tsecheck::serve

#endif
