// The HTTP API: start a job with an upload, ask how it goes and get its
// result, cancel it; and the documents of a finished job.
#include <httplib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "serve/job_status.h"
#include "serve/server_context.h"

namespace tsecheck::serve {
namespace {

constexpr const char* JOB_ID = "([0-9a-f]{32})";
constexpr size_t BLOCK = 64 * 1024;

struct Part {
    std::string text;  // written as it is
    std::string file;  // or this file's bytes
    uint64_t size = 0;
};

// Sends the parts one block at a time, so that a result of hundreds of
// MiB is never held in memory; each block counts as activity.
void sendParts(httplib::Response& response, std::vector<Part> parts)
{
    uint64_t total = 0;
    for (const Part& part : parts) total += part.file.empty() ? part.text.size() : part.size;
    auto state = std::make_shared<std::pair<std::vector<Part>, std::ifstream>>(std::move(parts), std::ifstream());
    auto index = std::make_shared<size_t>(0);
    response.set_content_provider(static_cast<size_t>(total), "application/json",
                                  [state, index](size_t, size_t, httplib::DataSink& sink) {
                                      std::vector<Part>& all = state->first;
                                      std::ifstream& in = state->second;
                                      for (; *index < all.size(); ++*index) {
                                          Part& part = all[*index];
                                          if (part.file.empty()) {
                                              ++*index;
                                              return sink.write(part.text.data(), part.text.size());
                                          }
                                          if (!in.is_open()) in.open(part.file, std::ios::binary);
                                          std::string block(BLOCK, '\0');
                                          in.read(block.data(), static_cast<std::streamsize>(block.size()));
                                          const auto got = static_cast<size_t>(in.gcount());
                                          if (got > 0) return sink.write(block.data(), got);
                                          in.close();
                                      }
                                      return false;
                                  });
}

void answerStatus(const httplib::Request& request, httplib::Response& response, const Job& job, int status)
{
    response.status = status;
    setSecurityHeaders(response, Content::Data);
    std::string text = dumpStatus(jobStatus(job));
    const std::vector<ResultPart> results =
        request.get_param_value("result") == "none" ? std::vector<ResultPart>{} : resultParts(job);
    if (results.empty()) return response.set_content(text + "\n", "application/json");
    text.pop_back();  // the status's closing brace
    std::vector<Part> parts;
    std::error_code error;
    for (const ResultPart& result : results) {
        const std::string path = job.documentPath(result.document);
        parts.push_back({text + ", \"" + result.key + "\": ", {}, 0});
        parts.push_back({{}, path, std::filesystem::file_size(path, error)});
        text.clear();
    }
    parts.push_back({"}\n", {}, 0});
    sendParts(response, std::move(parts));
}

void startJob(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& reader,
              ServerContext& context, JobKind kind)
{
    const std::shared_ptr<Job> job = acceptUpload(request, response, reader, context, kind);
    if (!job) return;
    response.set_header("Location", "/api/jobs/" + job->id);
    answerStatus(request, response, *job, 202);
}

std::shared_ptr<Job> jobOf(const httplib::Request& request, httplib::Response& response, ServerContext& context)
{
    std::shared_ptr<Job> job = context.jobs.find(request.matches[1]);
    if (!job) answerError(request, response, 404, "no such job: it never was, or its keep time is over");
    return job;
}

// A finished job's document; ?download asks the browser to save it.
void sendDocument(const httplib::Request& request, httplib::Response& response, ServerContext& context)
{
    const std::shared_ptr<Job> job = jobOf(request, response, context);
    if (!job) return;
    const std::string name = std::string(request.matches[2]) + "." + std::string(request.matches[3]);
    const auto& documents = job->outcome.documents;
    if (job->state != JobState::Done || std::find(documents.begin(), documents.end(), name) == documents.end()) {
        return answerError(request, response, 404, "this job has no " + name);
    }
    const std::string type = request.matches[3] == "html"  ? "text/html; charset=utf-8"
                             : request.matches[3] == "csv" ? "text/csv; charset=utf-8"
                                                           : "application/json";
    std::error_code error;
    const std::string path = job->documentPath(name);
    std::vector<Part> parts{{{}, path, std::filesystem::file_size(path, error)}};
    sendParts(response, std::move(parts));
    response.set_header("Content-Type", type);
    if (request.has_param("download"))
        response.set_header("Content-Disposition", "attachment; filename=\"" + name + "\"");
    setSecurityHeaders(response, request.matches[3] == "html" ? Content::Report : Content::Data);
}

}  // namespace

void registerApiRoutes(httplib::Server& server, ServerContext& context)
{
    server.Get("/api/health", [&context](const httplib::Request&, httplib::Response& response) {
        setSecurityHeaders(response, Content::Data);
        response.set_content(
            nlohmann::json{{"status", "ok"}, {"version", context.version}, {"jobs", context.jobs.count()}}.dump() +
                "\n",
            "application/json");
    });
    const std::pair<const char*, JobKind> kinds[] = {
        {"/api/audit", JobKind::Audit}, {"/api/dsfinvk", JobKind::Dsfinvk}, {"/api/receipt", JobKind::Receipt}};
    for (const auto& [path, kind] : kinds) {
        server.Post(path, [&context, kind = kind](const httplib::Request& request, httplib::Response& response,
                                                  const httplib::ContentReader& reader) {
            startJob(request, response, reader, context, kind);
        });
    }
    server.Get(std::string("/api/jobs/") + JOB_ID,
               [&context](const httplib::Request& request, httplib::Response& response) {
                   if (const std::shared_ptr<Job> job = jobOf(request, response, context))
                       answerStatus(request, response, *job, 200);
               });
    server.Delete(std::string("/api/jobs/") + JOB_ID,
                  [&context](const httplib::Request& request, httplib::Response& response) {
                      const std::shared_ptr<Job> job = jobOf(request, response, context);
                      if (!job) return;
                      job->cancel = true;
                      context.log("job " + job->id + ": cancel asked");
                      answerStatus(request, response, *job, 202);
                  });
    server.Get(std::string("/jobs/") + JOB_ID + "/(audit|dsfinvk|receipt)\\.(json|csv|html)",
               [&context](const httplib::Request& request, httplib::Response& response) {
                   sendDocument(request, response, context);
               });
}

}  // namespace tsecheck::serve
