#include "serve/serve_options.h"

#include <arpa/inet.h>

#include <cctype>
#include <limits>

namespace tsecheck::serve {
namespace {

bool isAddress(const std::string& host, bool& v6)
{
    unsigned char buffer[16];
    v6 = inet_pton(AF_INET6, host.c_str(), buffer) == 1;
    return v6 || inet_pton(AF_INET, host.c_str(), buffer) == 1;
}

}  // namespace

std::string ListenAddress::authority(int boundPort) const
{
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(boundPort);
}

tse::Result<ListenAddress> parseListen(std::string_view text)
{
    ListenAddress address;
    std::string host(text), port;
    if (!host.empty() && host.front() == '[') {
        const size_t close = host.find(']');
        if (close == std::string::npos) return tse::Error{"--listen " + std::string(text) + " has no closing ]"};
        port = close + 1 < host.size() && host[close + 1] == ':' ? host.substr(close + 2) : "";
        if (close + 1 < host.size() && host[close + 1] != ':')
            return tse::Error{"--listen " + std::string(text) + " is not HOST:PORT"};
        host = host.substr(1, close - 1);
    } else if (const size_t colon = host.rfind(':'); colon != std::string::npos && host.find(':') == colon) {
        port = host.substr(colon + 1);
        host = host.substr(0, colon);
    }
    if (host.empty()) host = "127.0.0.1";
    if (host == "localhost") host = "127.0.0.1";
    bool v6 = false;
    if (!isAddress(host, v6)) {
        return tse::Error{"--listen takes an address such as 127.0.0.1, 0.0.0.0 or [::1], not " + host};
    }
    if (!port.empty()) {
        if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) > 65535) {
            return tse::Error{"--listen has no port number from 0 to 65535: " + port};
        }
        address.port = std::stoi(port);
    }
    address.host = host;
    address.loopback = host == "127.0.0.1" || host == "::1";
    return address;
}

tse::Result<uint64_t> parseSize(std::string_view text)
{
    size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
    const std::string unit(text.substr(digits));
    uint64_t factor = 0;
    if (unit.empty() || unit == "B") factor = 1;
    else if (unit == "k" || unit == "K" || unit == "KiB") factor = uint64_t{1} << 10;
    else if (unit == "M" || unit == "MiB") factor = uint64_t{1} << 20;
    else if (unit == "G" || unit == "GiB") factor = uint64_t{1} << 30;
    else if (unit == "T" || unit == "TiB") factor = uint64_t{1} << 40;
    if (digits == 0 || digits > 15 || factor == 0) {
        return tse::Error{"a size is a number with an optional unit (k, M, G, T, binary): " + std::string(text)};
    }
    const uint64_t number = std::stoull(std::string(text.substr(0, digits)));
    if (number == 0 || number > std::numeric_limits<uint64_t>::max() / factor) {
        return tse::Error{"the size " + std::string(text) + " is zero or too large"};
    }
    return number * factor;
}

}  // namespace tsecheck::serve
