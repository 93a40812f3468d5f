#ifndef TSE_CHECK_SERVE_OPTIONS_H
#define TSE_CHECK_SERVE_OPTIONS_H

// What `tse-check serve` is told on its command line, and the bounds it
// keeps beside them: a server that takes files from a network bounds
// everything a client can make it hold or wait for.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "result.h"

namespace tsecheck::serve {

constexpr int DEFAULT_PORT = 8146;
constexpr uint64_t DEFAULT_MAX_UPLOAD = uint64_t{4} << 30;
constexpr double DEFAULT_KEEP_MINUTES = 60;

// One upload: its files, its text fields (receipt texts) and their count.
constexpr size_t MAX_FILES_PER_UPLOAD = 4096;
constexpr size_t MAX_FIELD_BYTES = size_t{4} << 20;
constexpr size_t MAX_FIELDS = 20000;
// Jobs that may wait for a free slot, per slot, before new ones get 503.
constexpr size_t WAITING_PER_SLOT = 4;
// A request whose headers are not complete, or whose body or answer moves
// less than ACTIVE_BYTES, within --idle-timeout ends its connection: slow
// or stalled clients must not hold the server's threads.
constexpr double DEFAULT_IDLE_SECONDS = 30;
constexpr uint64_t ACTIVE_BYTES = 64 * 1024;
// Threads that answer requests; jobs run on threads of their own.
constexpr int REQUEST_THREADS = 16;

struct ListenAddress {
    std::string host;  // as given to bind: "127.0.0.1", "::1", "0.0.0.0"
    int port = DEFAULT_PORT;
    // 127.0.0.1 and ::1 only: there the pages need no token.
    bool loopback = true;
    // "host:port" as a browser writes it in Host and in a URL
    std::string authority(int boundPort) const;
};

// "HOST:PORT", "[V6]:PORT", "HOST" or ":PORT"; a name is refused, since
// the Host check compares addresses.
tse::Result<ListenAddress> parseListen(std::string_view text);

// "4GiB", "500M", "100k", "1048576": binary units, at least one byte.
tse::Result<uint64_t> parseSize(std::string_view text);

struct ServeOptions {
    std::string listen = "127.0.0.1:" + std::to_string(DEFAULT_PORT);
    std::string token;
    std::string maxUpload = "4GiB";
    unsigned jobs = 0;  // 0: the number of cores
    double keepMinutes = DEFAULT_KEEP_MINUTES;
    double idleSeconds = DEFAULT_IDLE_SECONDS;
};

}  // namespace tsecheck::serve

#endif
