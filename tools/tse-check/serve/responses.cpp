// The headers and error answers every route shares.
#include <httplib.h>

#include <nlohmann/json.hpp>

#include "serve/pages.h"
#include "serve/server_context.h"

namespace tsecheck::serve {

void setSecurityHeaders(httplib::Response& response, Content content)
{
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("X-Frame-Options", "DENY");
    response.set_header("Cache-Control", "no-store");
    switch (content) {
    case Content::Page:
        response.set_header("Content-Security-Policy",
                            "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                            "connect-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'");
        break;
    case Content::Report:
        // What the --html report allows itself, and no framing.
        response.set_header("Content-Security-Policy",
                            "default-src 'none'; style-src 'unsafe-inline'; img-src data:; base-uri 'none'; "
                            "form-action 'none'; frame-ancestors 'none'");
        break;
    case Content::Data:
        response.set_header("Content-Security-Policy", "default-src 'none'; sandbox; frame-ancestors 'none'");
        break;
    }
}

void answerError(const httplib::Request& request, httplib::Response& response, int status, const std::string& message)
{
    response.status = status;
    const bool api = request.path.rfind("/api/", 0) == 0 ||
                     request.get_header_value("Accept").find("text/html") == std::string::npos;
    if (api) {
        response.set_content(nlohmann::json{{"error", message}, {"status", status}}.dump() + "\n", "application/json");
        setSecurityHeaders(response, Content::Data);
    } else {
        response.set_content(errorPage(status, message), "text/html; charset=utf-8");
        setSecurityHeaders(response, Content::Page);
    }
}

}  // namespace tsecheck::serve
