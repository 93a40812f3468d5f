#include "serve/http_server.h"

#include <httplib.h>

#include <chrono>

#include "text.h"

#include "serve/guarded_connection.h"

namespace tsecheck::serve {
namespace {

constexpr const char* COOKIE = "tse_check_token";

std::string cookieValue(const httplib::Request& request, const std::string& name)
{
    const std::string cookies = request.get_header_value("Cookie");
    for (size_t at = 0; at < cookies.size();) {
        const size_t end = std::min(cookies.find(';', at), cookies.size());
        std::string pair = cookies.substr(at, end - at);
        pair.erase(0, pair.find_first_not_of(' '));
        if (pair.rfind(name + "=", 0) == 0) return pair.substr(name.size() + 1);
        at = end + 1;
    }
    return {};
}

AccessRequest accessRequest(const httplib::Request& request, const std::string& cookie, const std::string& token,
                            const std::string& form, const std::string& host, const std::string& authorization)
{
    return AccessRequest{request.method, host, authorization, token, cookie, form};
}

// A browser that came with ?token= gets it as a cookie, for the pages it
// opens next, and the address without the token.
bool welcomeWithToken(const httplib::Request& request, httplib::Response& response, const AccessPolicy& access)
{
    if (request.method != "GET" || request.path.rfind("/api/", 0) == 0 || !access.tokenForReading()) return false;
    if (!access.tokenMatches(request.get_param_value("token"))) return false;
    response.set_header("Set-Cookie",
                        std::string(COOKIE) + "=" + access.token() + "; Path=/; HttpOnly; SameSite=Strict");
    response.set_redirect(request.path, 303);
    setSecurityHeaders(response, Content::Data);
    return true;
}

httplib::Server::HandlerResponse checkAccess(const httplib::Request& request, httplib::Response& response,
                                             ServerContext& context)
{
    GuardedServer::headersRead();
    const std::string cookie = cookieValue(request, COOKIE), token = request.get_param_value("token");
    const std::string form =
        request.has_param("form") ? request.get_param_value("form") : request.get_header_value("X-Form-Token");
    const std::string host = request.get_header_value("Host"),
                      authorization = request.get_header_value("Authorization");
    switch (context.access.judge(accessRequest(request, cookie, token, form, host, authorization))) {
    case Access::Allowed: break;
    case Access::ForeignHost:
        answerError(request, response, 403,
                    "this server answers only to its own address, not to the host " + tse::escapeText(host));
        return httplib::Server::HandlerResponse::Handled;
    case Access::NoToken:
        response.set_header("WWW-Authenticate", "Bearer");
        answerError(request, response, 401, "a missing or wrong token: open the address the server printed");
        return httplib::Server::HandlerResponse::Handled;
    case Access::NoFormToken:
        answerError(request, response, 403,
                    "a request that starts or stops a job needs the token or the form of this server's page");
        return httplib::Server::HandlerResponse::Handled;
    }
    return welcomeWithToken(request, response, context.access) ? httplib::Server::HandlerResponse::Handled
                                                               : httplib::Server::HandlerResponse::Unhandled;
}

}  // namespace

struct HttpServer::Library {
    explicit Library(std::chrono::milliseconds idle) : server(idle) {}
    GuardedServer server;
};

HttpServer::HttpServer(ServerContext& context) : library_(std::make_unique<Library>(context.idle)), context_(context)
{
    httplib::Server& server = library_->server;
    server.new_task_queue = [] { return new httplib::ThreadPool(REQUEST_THREADS); };
    // The library's default, SO_REUSEPORT, would let a second server (or
    // any program of the same user) listen on the same port beside it and
    // take some of its connections; a port in use is refused instead.
    server.set_socket_options([](socket_t sock) {
        const int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server.set_read_timeout(10);
    server.set_write_timeout(10);
    server.set_keep_alive_timeout(5);
    server.set_keep_alive_max_count(100);
    // Above this the body is refused before it is read; an upload's own
    // bound (--max-upload) is kept as it streams in.
    server.set_payload_max_length(static_cast<size_t>(context.maxUpload + MAX_FIELD_BYTES + (uint64_t{1} << 20)));
    server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        return checkAccess(request, response, context_);
    });
    server.set_error_handler([](const httplib::Request& request, httplib::Response& response) {
        if (!response.body.empty() || response.content_length_ > 0) return;
        answerError(request, response, response.status,
                    response.status == 404 ? "there is nothing at this address" : "the request cannot be answered");
    });
    server.set_exception_handler(
        [this](const httplib::Request& request, httplib::Response& response, std::exception_ptr error) {
            std::string what = "unknown";
            try {
                if (error) std::rethrow_exception(error);
            } catch (const std::exception& e) {
                what = e.what();
            } catch (...) {
            }
            context_.log("error in " + tse::escapeText(request.path) + ": " + tse::escapeText(what));
            answerError(request, response, 500, "the server failed on this request");
        });
    server.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
        // The path only: a query may hold the token.
        context_.log(request.remote_addr + " " + request.method + " " + tse::escapeText(request.path) + " " +
                     std::to_string(response.status));
    });
    registerApiRoutes(server, context_);
    registerPageRoutes(server, context_);
}

HttpServer::~HttpServer() = default;

int HttpServer::bind(const std::string& host, int port)
{
    httplib::Server& server = library_->server;
    if (port == 0) return server.bind_to_any_port(host);
    return server.bind_to_port(host, port) ? port : -1;
}

bool HttpServer::run()
{
    return library_->server.listen_after_bind();
}

void HttpServer::stop()
{
    library_->server.stop();
}

}  // namespace tsecheck::serve
