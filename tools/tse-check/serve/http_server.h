#ifndef TSE_CHECK_SERVE_HTTP_SERVER_H
#define TSE_CHECK_SERVE_HTTP_SERVER_H

// The HTTP side of `tse-check serve`: cpp-httplib with the access checks
// in front of every route, the security headers on every answer, one log
// line per request, and connections read through a guarded stream.

#include <memory>
#include <string>

#include "serve/serve_options.h"
#include "serve/server_context.h"

namespace tsecheck::serve {

class HttpServer {
public:
    explicit HttpServer(ServerContext& context);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // The port bound (the one asked for, or a free one for 0); -1 when the
    // address cannot be bound.
    int bind(const std::string& host, int port);
    // Answers until stop(); false when listening failed.
    bool run();
    void stop();

private:
    struct Library;
    std::unique_ptr<Library> library_;
    ServerContext& context_;
};

}  // namespace tsecheck::serve

#endif
