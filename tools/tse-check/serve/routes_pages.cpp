// The pages for people: the start page, the forms that start a job, a
// job's page and its cancel button, and the style and script they share.
#include <httplib.h>

#include "serve/pages.h"
#include "serve/server_context.h"

namespace tsecheck::serve {
namespace {

constexpr const char* JOB_ID = "([0-9a-f]{32})";

void sendPage(httplib::Response& response, const std::string& page)
{
    setSecurityHeaders(response, Content::Page);
    response.set_content(page, "text/html; charset=utf-8");
}

PageContext pageContext(const ServerContext& context)
{
    return PageContext{context.access.formToken(), context.version};
}

}  // namespace

void registerPageRoutes(httplib::Server& server, ServerContext& context)
{
    server.Get("/", [&context](const httplib::Request&, httplib::Response& response) {
        sendPage(response, startPage(pageContext(context)));
    });
    server.Get("/static/app.css", [](const httplib::Request&, httplib::Response& response) {
        setSecurityHeaders(response, Content::Data);
        response.set_content(APP_CSS.data(), APP_CSS.size(), "text/css; charset=utf-8");
    });
    server.Get("/static/app.js", [](const httplib::Request&, httplib::Response& response) {
        setSecurityHeaders(response, Content::Data);
        response.set_content(APP_JS.data(), APP_JS.size(), "text/javascript; charset=utf-8");
    });
    const std::pair<const char*, JobKind> kinds[] = {{"/jobs/audit", JobKind::Audit},
                                                     {"/jobs/receipt", JobKind::Receipt}};
    for (const auto& [path, kind] : kinds) {
        server.Post(path, [&context, kind = kind](const httplib::Request& request, httplib::Response& response,
                                                  const httplib::ContentReader& reader) {
            if (const std::shared_ptr<Job> job = acceptUpload(request, response, reader, context, kind)) {
                response.set_redirect("/jobs/" + job->id, 303);
                setSecurityHeaders(response, Content::Data);
            }
        });
    }
    server.Get(
        std::string("/jobs/") + JOB_ID, [&context](const httplib::Request& request, httplib::Response& response) {
            const std::shared_ptr<Job> job = context.jobs.find(request.matches[1]);
            if (!job) return answerError(request, response, 404, "no such job: it never was, or its keep time is over");
            if (request.get_param_value("part") == "cards" && job->state == JobState::Done)
                return sendPage(response, receiptCards(*job));
            sendPage(response, jobPage(*job, pageContext(context)));
        });
    server.Post(std::string("/jobs/") + JOB_ID + "/cancel",
                [&context](const httplib::Request& request, httplib::Response& response) {
                    if (!context.jobs.cancel(request.matches[1]))
                        return answerError(request, response, 404, "no such job");
                    context.log("job " + std::string(request.matches[1]) + ": cancel asked");
                    response.set_redirect("/jobs/" + std::string(request.matches[1]), 303);
                    setSecurityHeaders(response, Content::Data);
                });
}

}  // namespace tsecheck::serve
