#ifndef TSE_CHECK_SERVE_ACCESS_H
#define TSE_CHECK_SERVE_ACCESS_H

// Who may ask the server what. A web page elsewhere must neither reach the
// server through DNS rebinding (the Host check) nor make a browser start a
// job (state-changing requests need the token or the pages' form token,
// never a cookie alone); a phone on the network needs the token.

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tsecheck::serve {

// A random 128-bit value in hex, from the system's generator.
std::string randomToken();

// What a request shows of itself.
struct AccessRequest {
    std::string_view method;
    std::string_view host;           // the Host header
    std::string_view authorization;  // the Authorization header
    std::string_view queryToken;     // ?token=
    std::string_view cookieToken;    // the cookie the server set for a browser that came with the token
    std::string_view formToken;      // ?form= or X-Form-Token
};

enum class Access { Allowed, ForeignHost, NoToken, NoFormToken };

class AccessPolicy {
public:
    // `hosts`: every "host:port" that names this server. `tokenForReading`:
    // reading needs the token as well (any address but the loopback one).
    AccessPolicy(std::string token, std::string formToken, std::set<std::string> hosts, bool tokenForReading);

    Access judge(const AccessRequest& request) const;
    // Known once the port is bound; set before the first request.
    void setHosts(std::set<std::string> hosts) { hosts_ = std::move(hosts); }
    const std::string& token() const { return token_; }
    const std::string& formToken() const { return formToken_; }
    bool tokenMatches(std::string_view given) const { return sameSecret(given, token_); }
    bool tokenForReading() const { return tokenForReading_; }

    // Compared in time that does not depend on where they differ, or on
    // the length of the secret.
    static bool sameSecret(std::string_view given, const std::string& secret);

private:
    bool knownHost(std::string_view host) const;

    std::string token_, formToken_;
    std::set<std::string> hosts_;
    bool tokenForReading_;
};

// The "host:port" names of this server: the address it listens on and, for
// 0.0.0.0 or ::, the address of every interface; localhost for loopback.
std::set<std::string> servedHosts(const std::string& listenHost, int port);

}  // namespace tsecheck::serve

#endif
