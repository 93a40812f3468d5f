// A job's page: its files, its progress with a cancel button while it
// runs, and its result: the reports to open and download.
#include "serve/job_status.h"
#include "serve/page_frame.h"
#include "serve/pages.h"

namespace tsecheck::serve {
namespace {

using report::Html;

std::string megabytes(uint64_t bytes)
{
    const uint64_t tenths = (bytes * 10 + (1u << 19)) >> 20;
    return thousands(tenths / 10) + "." + std::to_string(tenths % 10) + " MB";
}

std::string progressLine(const Job& job)
{
    const JobProgress& p = job.progress;
    const uint64_t done = p.done, total = p.total;
    if (job.state == JobState::Queued) return "Waiting for a free place: other jobs run first.";
    if (job.input.kind == JobKind::Receipt) return thousands(done) + " of " + thousands(total) + " pictures read";
    if (p.stage == 1) return "Bookkeeping: " + thousands(done) + " of " + thousands(total) + " rows verified";
    const std::string read = megabytes(done) + " of " + megabytes(total) + " read";
    if (p.stage == 2) return "Bookkeeping against the TSE export: " + read;
    return thousands(p.logs) + " logs checked, " + read;
}

void progressSection(Html& html, const Job& job, const std::string& formToken)
{
    const uint64_t total = job.progress.total, done = std::min<uint64_t>(job.progress.done, total);
    html.open("section", {{"id", "progress"}}).element("h2", job.state == JobState::Queued ? "Waiting" : "Checking");
    html.open("progress",
              {{"id", "bar"}, {"max", std::to_string(std::max<uint64_t>(total, 1))}, {"value", std::to_string(done)}});
    html.close("progress");
    html.element("p", progressLine(job), {{"id", "progress-line"}});
    html.open("form", {{"method", "post"}, {"action", "/jobs/" + job.id + "/cancel?form=" + formToken}});
    html.trusted("<button type=\"submit\" class=\"secondary\" id=\"cancel\">Cancel</button></form></section>\n");
}

const char* verdictClass(const std::string& verdict)
{
    return verdict == "PASSED" ? "passed" : verdict == "FAILED" ? "failed" : "passed-with-warnings";
}

void checkResult(Html& html, const Job& job, const std::string& check, const std::string& title,
                 const std::string& summary)
{
    const std::string verdict = verdictOf(summary);
    const std::string firstLine = summary.substr(0, summary.find('\n'));
    html.open("section", {{"class", "result"}, {"id", check}}).element("h2", title);
    html.open("p", {{"class", std::string("verdict ") + verdictClass(verdict)}});
    html.text(verdict)
        .open("small")
        .text(firstLine.substr(std::min(firstLine.size(), verdict.size() + 2)))
        .close("small");
    html.close("p").open("p", {{"class", "actions"}});
    const std::string base = "/jobs/" + job.id + "/" + check;
    html.element("a", "Open the report", {{"class", "button"}, {"href", base + ".html"}, {"id", check + "-report"}});
    html.element("a", "Download HTML", {{"href", base + ".html?download"}});
    html.element("a", "JSON", {{"href", base + ".json?download"}, {"id", check + "-json"}});
    html.element("a", "CSV", {{"href", base + ".csv?download"}});
    html.close("p");
    html.open("details").element("summary", "The summary as the command line prints it");
    html.element("pre", summary).close("details").close("section");
}

void outcomeSection(Html& html, const Job& job)
{
    const JobOutcome& outcome = job.outcome;
    if (job.state == JobState::Cancelled) {
        html.element("p", "The job was cancelled; its files are deleted.",
                     {{"class", "verdict cancelled"}, {"id", "cancelled"}});
        return;
    }
    if (job.state == JobState::Failed) {
        html.open("section", {{"id", "refused"}}).element("h2", "Refused");
        html.element("p", outcome.error, {{"class", "verdict failed"}, {"id", "error"}}).close("section");
        return;
    }
    if (job.input.kind == JobKind::Receipt) {
        if (!outcome.summaries.empty() && !outcome.summaries.front().empty()) {
            html.element("pre", outcome.summaries.front(), {{"class", "problems"}});
        }
        html.trusted("<ol class=\"cards\" id=\"cards\">").trusted(receiptCards(job)).trusted("</ol>");
        html.open("p", {{"class", "actions"}});
        html.element("a", "JSON", {{"href", "/jobs/" + job.id + "/receipt.json?download"}, {"id", "receipt-json"}});
        html.trusted("<a class=\"button\" href=\"/#receipts\">Check more receipts</a>").close("p");
        return;
    }
    size_t next = 0;
    if (job.input.kind == JobKind::Audit && next < outcome.summaries.size()) {
        checkResult(html, job, "audit", "TSE export audit", outcome.summaries[next++]);
    }
    if (next < outcome.summaries.size())
        checkResult(html, job, "dsfinvk", "Bookkeeping (DSFinV-K)", outcome.summaries[next]);
}

const char* titleOf(JobKind kind)
{
    switch (kind) {
    case JobKind::Audit: return "TSE export";
    case JobKind::Dsfinvk: return "Bookkeeping (DSFinV-K)";
    case JobKind::Receipt: return "Receipts";
    }
    return "Job";
}

}  // namespace

std::string jobPage(const Job& job, const PageContext& context)
{
    const bool over = job.over();
    std::string out;
    Html html(out);
    beginPage(html, std::string("tse-check: ") + titleOf(job.input.kind), context.formToken, over ? 0 : 2);
    html.open("div", {{"id", "job"}, {"data-job", job.id}, {"data-state", jobStateName(job.state)}});
    html.element("h1", titleOf(job.input.kind));
    if (!job.input.files.empty() || !job.input.texts.empty()) {
        html.open("ul", {{"class", "files"}});
        for (const StoredFile& file : job.input.files) {
            html.open("li")
                .element("span", file.shownName, {{"class", "name"}})
                .text(" (" + thousands(file.size) + " bytes)")
                .close("li");
        }
        if (!job.input.texts.empty()) html.element("li", thousands(job.input.texts.size()) + " QR code texts");
        html.close("ul");
    }
    if (over) outcomeSection(html, job);
    else progressSection(html, job, context.formToken);
    html.close("div");
    endPage(html, context.version);
    return out;
}

}  // namespace tsecheck::serve
