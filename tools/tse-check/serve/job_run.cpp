#include "serve/job_run.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "shared/inputs.h"
#include "shared/jobs.h"
#include "shared/output.h"

namespace tsecheck::serve {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> pathsOf(const Job& job, const std::string& field)
{
    std::vector<std::string> paths;
    for (const StoredFile& file : job.input.files) {
        if (file.field == field) paths.push_back(file.path);
    }
    return paths;
}

ReportPaths documentsOf(Job& job, const std::string& check)
{
    for (const char* type : {".json", ".csv", ".html"}) job.outcome.documents.push_back(check + type);
    return {job.documentPath(check + ".json"), job.documentPath(check + ".csv"), job.documentPath(check + ".html")};
}

void runAuditJob(Job& job)
{
    tse::AuditOptions options;
    options.exports = pathsOf(job, "export");
    options.certificateFiles = pathsOf(job, "cert");
    options.strict = job.input.strict;
    options.cancel = &job.cancel;
    JobProgress& progress = job.progress;
    options.progress = [&progress](const tse::AuditProgress& p) {
        progress.done = p.bytesDone;
        progress.total = p.bytesTotal;
        progress.logs = p.logsDone;
    };
    if (options.exports.empty()) refuse(EXIT_BAD_INPUT, "No export given: add the export's files or archives");
    std::ostringstream summary;
    {
        const tse::AuditReport report = runAudit(options);
        progress.logs = report.summary.logs;
        progress.done = progress.total.load();
        job.outcome.exitStatus = writeAuditReports(report, options, documentsOf(job, "audit"), &summary);
    }
    job.outcome.summaries.push_back(summary.str());
}

void runBookkeepingJob(Job& job, std::vector<std::string> tse)
{
    tse::BookkeepingOptions options;
    options.dsfinvk = pathsOf(job, "dsfinvk");
    options.tse = std::move(tse);
    options.certificateFiles = pathsOf(job, "cert");
    options.strict = job.input.strict;
    options.cancel = &job.cancel;
    JobProgress& progress = job.progress;
    options.progress = [&progress](const tse::BookkeepingProgress& p) {
        progress.stage = p.stage == "bookkeeping" ? 1 : 2;
        progress.done = p.done;
        progress.total = p.total;
    };
    if (options.dsfinvk.empty()) refuse(EXIT_BAD_INPUT, "No DSFinV-K export given: add its ZIP or TAR archive");
    std::ostringstream summary;
    const tse::BookkeepingReport report = runBookkeeping(options);
    const int status = writeBookkeepingReports(report, options, documentsOf(job, "dsfinvk"), &summary);
    job.outcome.exitStatus = std::max(job.outcome.exitStatus, status);
    job.outcome.summaries.push_back(summary.str());
}

void runReceiptJob(Job& job)
{
    ReceiptOptions options;
    options.texts = job.input.texts;
    options.pictures = pathsOf(job, "image");
    options.json = true;
    options.explain = job.input.explain;
    options.cancel = &job.cancel;
    JobProgress& progress = job.progress;
    options.progress = [&progress](uint64_t done, uint64_t total) {
        progress.done = done;
        progress.total = total;
    };
    const ReceiptBatch batch = checkReceipts(options);
    writeTo(job.documentPath("receipt.json"), [&batch](std::ostream& out) { out << batch.document.dump(2) << '\n'; });
    job.outcome.documents.push_back("receipt.json");
    std::string errors;
    for (const std::string& line : batch.errors) errors += line + "\n";
    job.outcome.summaries.push_back(errors);
    job.outcome.exitStatus = batch.status;
}

void runCheck(Job& job)
{
    switch (job.input.kind) {
    case JobKind::Audit:
        runAuditJob(job);
        if (!pathsOf(job, "dsfinvk").empty()) runBookkeepingJob(job, pathsOf(job, "export"));
        break;
    case JobKind::Dsfinvk: runBookkeepingJob(job, pathsOf(job, "tse")); break;
    case JobKind::Receipt: runReceiptJob(job); break;
    }
}

}  // namespace

std::string stripFolderText(std::string text, const std::string& folder)
{
    for (size_t at = text.find(folder); at != std::string::npos; at = text.find(folder, at))
        text.erase(at, folder.size());
    return text;
}

bool stripFolder(const std::string& path, const std::string& folder)
{
    const std::string copy = path + ".part";
    {
        std::ifstream in(path, std::ios::binary);
        std::ofstream out(copy, std::ios::binary);
        if (!in || !out) return false;
        std::string carry, block(size_t{1} << 20, '\0');
        while (in) {
            in.read(block.data(), static_cast<std::streamsize>(block.size()));
            carry.append(block.data(), static_cast<size_t>(in.gcount()));
            carry = stripFolderText(std::move(carry), folder);
            // What may be the start of the folder's name waits for the next block.
            const size_t keep = std::min(carry.size(), folder.size() - 1);
            out.write(carry.data(), static_cast<std::streamsize>(carry.size() - keep));
            carry.erase(0, carry.size() - keep);
        }
        out.write(carry.data(), static_cast<std::streamsize>(carry.size()));
        if (!out.flush()) return false;
    }
    std::error_code error;
    fs::rename(copy, path, error);
    return !error;
}

void runJob(Job& job)
{
    try {
        runCheck(job);
    } catch (const Refusal& refusal) {
        job.outcome.error = refusal.line;
        job.outcome.exitStatus = refusal.status;
    } catch (const std::exception& error) {
        job.outcome.error = std::string("[ERROR] ") + error.what();
        job.outcome.exitStatus = EXIT_BAD_INPUT;
    }
    const std::string folder = job.folder + "/in/";
    job.outcome.error = stripFolderText(job.outcome.error, folder);
    for (std::string& summary : job.outcome.summaries) summary = stripFolderText(summary, folder);
    for (const std::string& document : job.outcome.documents) stripFolder(job.documentPath(document), folder);
    std::error_code error;
    fs::remove_all(folder, error);
    job.finished = std::chrono::steady_clock::now();
    job.state = job.cancel ? JobState::Cancelled : job.outcome.error.empty() ? JobState::Done : JobState::Failed;
}

}  // namespace tsecheck::serve
