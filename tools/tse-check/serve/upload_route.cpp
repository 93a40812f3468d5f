// A multipart upload into a new job: refused before its body when the
// queue is full or the declared length is over the bound, and while it
// streams when a bound is crossed.
#include <httplib.h>

#include <set>

#include "receipt_text.h"

#include "serve/serve_options.h"
#include "serve/server_context.h"

namespace tsecheck::serve {
namespace {

const std::set<std::string>& filesOf(JobKind kind)
{
    static const std::set<std::string> audit{"export", "cert", "dsfinvk"}, dsfinvk{"dsfinvk", "tse", "cert"},
        receipt{"image"};
    return kind == JobKind::Audit ? audit : kind == JobKind::Dsfinvk ? dsfinvk : receipt;
}

bool flag(const UploadFolder& upload, const std::string& name)
{
    for (const std::string& value : upload.fields(name)) {
        if (value == "1" || value == "on" || value == "true") return true;
    }
    return false;
}

// Texts as fields of their own ("text"), or one per line ("texts"), as a
// list file gives them; blank lines are skipped.
std::vector<std::string> receiptTexts(const UploadFolder& upload)
{
    std::vector<std::string> texts;
    for (const std::string& text : upload.fields("text")) {
        if (!tse::trimReceiptText(text).empty()) texts.push_back(text);
    }
    for (const std::string& lines : upload.fields("texts")) {
        for (size_t start = 0; start < lines.size();) {
            const size_t end = std::min(lines.find('\n', start), lines.size());
            const std::string_view line = tse::trimReceiptText(std::string_view(lines).substr(start, end - start));
            if (!line.empty()) texts.emplace_back(line);
            start = end + 1;
        }
    }
    return texts;
}

// Why the upload cannot become a job; empty when it can.
std::string problemOf(const UploadFolder& upload, JobKind kind, const JobInput& input)
{
    for (const StoredFile& file : upload.files()) {
        if (!filesOf(kind).count(file.field)) return "the form field " + file.field + " takes no file here";
    }
    if (kind == JobKind::Receipt && input.files.empty() && input.texts.empty()) {
        return "no receipt given: add QR code texts (text, texts) or pictures (image)";
    }
    if (kind != JobKind::Receipt && input.files.empty()) return "no file given";
    return {};
}

// A client that does not wait for "100 Continue" sends its body before it
// reads the refusal; a small body is read and dropped so that the client
// gets the answer instead of a reset connection.
void drain(const httplib::ContentReader& reader)
{
    constexpr uint64_t LIMIT = 16u << 20;
    uint64_t read = 0;
    reader([](const httplib::MultipartFormData&) { return true; },
           [&read](const char*, size_t size) { return (read += size) <= LIMIT; });
}

}  // namespace

std::shared_ptr<Job> acceptUpload(const httplib::Request& request, httplib::Response& response,
                                  const httplib::ContentReader& reader, ServerContext& context, JobKind kind)
{
    if (!request.is_multipart_form_data()) {
        answerError(request, response, 415, "send the files and fields as multipart/form-data");
        return nullptr;
    }
    const uint64_t declared = request.get_header_value<uint64_t>("Content-Length");
    if (declared > context.maxUpload + MAX_FIELD_BYTES + (uint64_t{1} << 20)) {
        answerError(request, response, 413, "the upload is larger than the server takes (--max-upload)");
        return nullptr;
    }
    std::shared_ptr<Job> job = context.jobs.reserve();
    if (!job) {
        drain(reader);
        response.set_header("Retry-After", "30");
        answerError(request, response, 503, "the server is busy: every place in its queue is taken; try again later");
        return nullptr;
    }
    UploadFolder upload(job->folder + "/in", context.maxUpload);
    const bool read =
        reader([&](const httplib::MultipartFormData& part) { return upload.begin(part.name, part.filename); },
               [&](const char* data, size_t size) { return upload.append(data, size); });
    const bool complete = upload.finish() && read;
    JobInput& input = job->input;
    input.kind = kind;
    input.files = upload.files();
    input.texts = receiptTexts(upload);
    input.strict = flag(upload, "strict");
    input.explain = flag(upload, "explain");
    const std::string problem = complete ? problemOf(upload, kind, input) : std::string();
    if (!complete || !problem.empty()) {
        context.jobs.release(job);
        const int status = upload.status() ? upload.status() : 400;
        answerError(request, response, status,
                    !problem.empty()  ? problem
                    : upload.status() ? upload.problem()
                                      : "the upload broke off or is no well-formed multipart/form-data");
        return nullptr;
    }
    context.log("job " + job->id + " " + jobKindName(kind) + ": queued, " + std::to_string(input.files.size()) +
                " files, " + std::to_string(upload.bytes()) + " bytes, " + std::to_string(input.texts.size()) +
                " texts");
    context.jobs.submit(job);
    return job;
}

}  // namespace tsecheck::serve
