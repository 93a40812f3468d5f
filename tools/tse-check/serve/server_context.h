#ifndef TSE_CHECK_SERVE_SERVER_CONTEXT_H
#define TSE_CHECK_SERVE_SERVER_CONTEXT_H

// What every route of the server shares.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "serve/access.h"
#include "serve/jobs.h"

namespace httplib {
class ContentReader;
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace tsecheck::serve {

struct ServerContext {
    AccessPolicy& access;
    JobBoard& jobs;
    std::chrono::milliseconds idle;  // --idle-timeout
    uint64_t maxUpload;
    std::string version;  // "tse-check 0.3.0"
    // One line on standard error, for the log of requests and jobs.
    std::function<void(const std::string&)> log;
};

// The headers every answer carries, and the policy for a page of this
// server (same-origin style and script only) or for a report or document
// (inline style, nothing that runs).
enum class Content { Page, Report, Data };
void setSecurityHeaders(httplib::Response& response, Content content);

// An error as JSON for the API, as a page for a browser.
void answerError(const httplib::Request& request, httplib::Response& response, int status, const std::string& message);

void registerApiRoutes(httplib::Server& server, ServerContext& context);
void registerPageRoutes(httplib::Server& server, ServerContext& context);

// Reads a multipart upload into a new job of this kind and queues it; null
// (with the answer set: 413, 503, 400, ...) when it was refused.
std::shared_ptr<Job> acceptUpload(const httplib::Request& request, httplib::Response& response,
                                  const httplib::ContentReader& reader, ServerContext& context, JobKind kind);

}  // namespace tsecheck::serve

#endif
