#include "serve/job_status.h"

#include "text.h"

namespace tsecheck::serve {
namespace {

nlohmann::json progressJson(const Job& job)
{
    const JobProgress& p = job.progress;
    const int stage = p.stage;
    const char* unit = job.input.kind == JobKind::Receipt ? "pictures" : stage == 1 ? "rows" : "bytes";
    const char* check = job.input.kind == JobKind::Receipt                ? "receipt"
                        : job.input.kind == JobKind::Dsfinvk || stage > 0 ? "dsfinvk"
                                                                          : "audit";
    return {
        {"check", check}, {"done", p.done.load()}, {"total", p.total.load()}, {"unit", unit}, {"logs", p.logs.load()}};
}

}  // namespace

std::string verdictOf(const std::string& summary)
{
    for (const char* verdict : {"PASSED WITH WARNINGS", "PASSED", "FAILED"}) {
        if (summary.rfind(verdict, 0) == 0) return verdict;
    }
    return {};
}

nlohmann::json jobStatus(const Job& job)
{
    const JobState state = job.state;
    nlohmann::json status = {{"id", job.id},
                             {"kind", jobKindName(job.input.kind)},
                             {"state", jobStateName(state)},
                             {"location", "/api/jobs/" + job.id},
                             {"page", "/jobs/" + job.id},
                             {"progress", progressJson(job)},
                             {"files", nlohmann::json::array()},
                             {"texts", job.input.texts.size()}};
    for (const StoredFile& file : job.input.files) {
        status["files"].push_back(
            {{"field", file.field}, {"name", tse::escapeUnsafe(file.shownName)}, {"size", file.size}});
    }
    if (!job.over()) return status;
    const JobOutcome& outcome = job.outcome;
    status["exitStatus"] = outcome.exitStatus;
    status["error"] = outcome.error.empty() ? nlohmann::json(nullptr) : nlohmann::json(outcome.error);
    status["summaries"] = nlohmann::json::array();
    status["verdicts"] = nlohmann::json::array();
    for (const std::string& summary : outcome.summaries) {
        status["summaries"].push_back(summary);
        status["verdicts"].push_back(verdictOf(summary));
    }
    status["documents"] = nlohmann::json::object();
    if (state == JobState::Done) {
        for (const std::string& name : outcome.documents) status["documents"][name] = "/jobs/" + job.id + "/" + name;
    }
    return status;
}

std::string dumpStatus(const nlohmann::json& status)
{
    return status.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::vector<ResultPart> resultParts(const Job& job)
{
    if (job.state != JobState::Done) return {};
    switch (job.input.kind) {
    case JobKind::Receipt: return {{"result", "receipt.json"}};
    case JobKind::Dsfinvk: return {{"result", "dsfinvk.json"}};
    case JobKind::Audit: break;
    }
    std::vector<ResultPart> parts{{"result", "audit.json"}};
    for (const std::string& name : job.outcome.documents) {
        if (name == "dsfinvk.json") parts.push_back({"bookkeeping", name});
    }
    return parts;
}

}  // namespace tsecheck::serve
