#include "serve/access.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <stdexcept>

namespace tsecheck::serve {
namespace {

using Digest = std::array<unsigned char, 32>;

Digest sha256(std::string_view text)
{
    Digest digest{};
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
    return digest;
}

std::string lower(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

std::string bracketed(const std::string& host)
{
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

void addInterfaceAddresses(std::set<std::string>& hosts, bool v6, const std::string& port)
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr) continue;
        char text[INET6_ADDRSTRLEN] = {};
        const int family = entry->ifa_addr->sa_family;
        if (family == AF_INET) {
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, text, sizeof text);
        } else if (family == AF_INET6 && v6) {
            inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr, text, sizeof text);
        } else {
            continue;
        }
        hosts.insert(lower(bracketed(text)) + ":" + port);
    }
}

}  // namespace

std::string randomToken()
{
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("the system's random generator failed");
    static constexpr char HEX[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) token += HEX[b >> 4], token += HEX[b & 15];
    return token;
}

AccessPolicy::AccessPolicy(std::string token, std::string formToken, std::set<std::string> hosts, bool tokenForReading)
    : token_(std::move(token)), formToken_(std::move(formToken)), hosts_(std::move(hosts)),
      tokenForReading_(tokenForReading)
{}

bool AccessPolicy::sameSecret(std::string_view given, const std::string& secret)
{
    if (secret.empty()) return false;
    // Digests of equal length, so that neither the length nor the first
    // differing byte shows in the time taken.
    const Digest a = sha256(given), b = sha256(secret);
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool AccessPolicy::knownHost(std::string_view host) const
{
    const std::string name = lower(host);
    if (hosts_.count(name)) return true;
    // A browser leaves out port 80.
    return hosts_.count(name + ":80") > 0;
}

Access AccessPolicy::judge(const AccessRequest& request) const
{
    if (!knownHost(request.host)) return Access::ForeignHost;
    const std::string_view bearer =
        request.authorization.substr(0, 7) == "Bearer " ? request.authorization.substr(7) : "";
    const bool reading = request.method == "GET" || request.method == "HEAD";
    const bool presented = !bearer.empty() || !request.queryToken.empty();
    const bool given =
        (!bearer.empty() && tokenMatches(bearer)) || (!request.queryToken.empty() && tokenMatches(request.queryToken));
    const bool cookie = !request.cookieToken.empty() && tokenMatches(request.cookieToken);
    // A wrong token is refused as such, wherever the server listens.
    if (presented && !given) return Access::NoToken;
    if (tokenForReading_ && !given && !cookie) return Access::NoToken;
    if (reading || given) return Access::Allowed;
    return !request.formToken.empty() && sameSecret(request.formToken, formToken_) ? Access::Allowed
                                                                                   : Access::NoFormToken;
}

std::set<std::string> servedHosts(const std::string& listenHost, int port)
{
    const std::string suffix = ":" + std::to_string(port);
    std::set<std::string> hosts{lower(bracketed(listenHost)) + suffix};
    if (listenHost == "127.0.0.1" || listenHost == "::1") hosts.insert("localhost" + suffix);
    if (listenHost == "0.0.0.0" || listenHost == "::") {
        addInterfaceAddresses(hosts, listenHost == "::", std::to_string(port));
        hosts.insert("localhost" + suffix);
    }
    return hosts;
}

}  // namespace tsecheck::serve
