// tse-check receipt: verifies receipt QR code texts given as arguments, in
// files or in pictures, and on request finds out why one does not verify.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "file_reader.h"
#include "parallel.h"
#include "qr_image.h"
#include "receipt_explain.h"
#include "receipt_text.h"
#include "receipt_verify.h"
#include "text.h"

#include "commands.h"
#include "receipt/pdf_child_process.h"
#include "shared/inputs.h"
#include "shared/jobs.h"
#include "shared/output.h"

namespace tsecheck {
namespace {

// A list of a million receipts stays below this; a wrong path to a disk
// image does not. Photographs and scanned PDFs of receipts are far smaller.
constexpr size_t MAX_RECEIPT_LIST_SIZE = 64u << 20;
constexpr size_t MAX_PICTURE_SIZE = 64u << 20;

struct ReceiptInput {
    std::string source;
    std::string text;
    // Set for a code read from a picture: where it was found.
    std::optional<tse::ImageCode> found;
};

struct ReceiptResult {
    ReceiptInput input;
    std::optional<tse::Receipt> receipt;
    tse::ReceiptVerification verification;
    std::optional<tse::Explanation> explanation;
};

// Inputs in the order: arguments, lists, pictures. A file that cannot be
// read or a picture without a code is reported and makes the run fail, but
// the other receipts are still checked.
class InputCollector {
public:
    std::vector<ReceiptInput> inputs;
    std::vector<std::string> errors;  // the [ERROR] lines

    void addTexts(const std::vector<std::string>& texts)
    {
        for (size_t i = 0; i < texts.size(); ++i)
            inputs.push_back({"argument " + std::to_string(i + 1), texts[i], std::nullopt});
    }

    void addList(const std::string& path)
    {
        const bool standardInput = path == "-";
        const std::string name = standardInput ? "stdin" : path;
        const tse::Result<tse::Bytes> read =
            tse::readFileBounded(standardInput ? "/dev/stdin" : path, MAX_RECEIPT_LIST_SIZE);
        if (!read) return report("Receipt list " + name + " " + read.error().message);
        const std::string text = tse::ByteView(*read).text();
        size_t lineNumber = 0;
        for (size_t start = 0; start < text.size();) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            ++lineNumber;
            const std::string_view line = tse::trimReceiptText(std::string_view(text).substr(start, end - start));
            if (!line.empty())
                inputs.push_back({name + ":" + std::to_string(lineNumber), std::string(line), std::nullopt});
            start = end + 1;
        }
    }

    // "-" is one picture on standard input, as a camera program writes it.
    // Pictures are read side by side, their codes listed in the order given.
    // A cancelled batch reads no further picture.
    void addPictures(const ReceiptOptions& options)
    {
        const std::vector<std::string>& paths = options.pictures;
        std::vector<tse::Result<std::vector<tse::ImageCode>>> scanned(paths.size(), tse::Error{""});
        std::atomic<uint64_t> done{0};
        tse::parallelFor(paths.size(), options.jobs, [&](size_t i) {
            if (options.cancel && options.cancel->load()) return;
            scanned[i] = scanPicture(paths[i]);
            if (options.progress) options.progress(++done, paths.size());
        });
        for (size_t p = 0; p < paths.size(); ++p) {
            if (!scanned[p]) {
                report(scanned[p].error().message);
                continue;
            }
            const std::vector<tse::ImageCode>& codes = *scanned[p];
            for (size_t i = 0; i < codes.size(); ++i) {
                inputs.push_back({pictureSource(pictureName(paths[p]), codes, i), codes[i].text, codes[i]});
            }
        }
    }

private:
    static std::string pictureName(const std::string& path) { return path == "-" ? "stdin" : path; }

    // The codes of one picture, or the line that says why there are none.
    // A PDF broken after some pages counts as unreadable as a whole.
    static tse::Result<std::vector<tse::ImageCode>> scanPicture(const std::string& path)
    {
        const std::string name = pictureName(path);
        const tse::Result<tse::Bytes> read = tse::readFileBounded(path == "-" ? "/dev/stdin" : path, MAX_PICTURE_SIZE);
        if (!read) return tse::Error{"Picture " + name + " " + read.error().message};
        tse::ImageScan scan = tse::scanImage(*read, renderPdfOutOfProcess);
        if (!scan.error.empty()) return tse::Error{"Picture " + name + " cannot be read: " + scan.error};
        if (scan.codes.empty()) return tse::Error{"Picture " + name + " holds no QR code"};
        return std::move(scan.codes);
    }

    void report(const std::string& line) { errors.push_back("[ERROR] " + line); }

    // "scan.pdf page 2 code 3": the code's number counts on its page, and
    // only when the page holds more than one.
    static std::string pictureSource(const std::string& path, const std::vector<tse::ImageCode>& codes, size_t index)
    {
        const int page = codes[index].page;
        size_t onPage = 0, number = 0;
        for (size_t i = 0; i < codes.size(); ++i) {
            if (codes[i].page != page) continue;
            ++onPage;
            if (i <= index) number = onPage;
        }
        std::string source = path;
        if (page > 0) source += " page " + std::to_string(page);
        if (onPage > 1) source += " code " + std::to_string(number);
        return source;
    }
};

ReceiptResult parseOne(const ReceiptInput& input, tse::KeyCache& keys)
{
    ReceiptResult result;
    result.input = input;
    tse::Result<tse::Receipt> parse = tse::parseReceiptText(input.text, &keys);
    if (!parse) {
        result.verification = {tse::Verdict::Malformed, parse.error().message, {}, {}};
        return result;
    }
    result.receipt = std::move(parse).value();
    return result;
}

void verifyOne(ReceiptResult& result, const tse::KeyVerifierSet& verifiers, tse::VerifyScratch& scratch)
{
    if (!result.receipt) return;
    result.verification = tse::verifyReceipt(*result.receipt, verifiers.find(result.receipt->key), &scratch);
    // Name the curve and serial number of the key that held.
    if (result.verification.heldKey) result.receipt->key = *result.verification.heldKey;
}

const char* verdictWord(tse::Verdict verdict)
{
    switch (verdict) {
    case tse::Verdict::Valid: return "VALID";
    case tse::Verdict::Invalid: return "INVALID";
    default: return "MALFORMED";
    }
}

// Most receipts are rebuilt the first way tried; only another form is worth
// a user's attention.
bool commonForm(const tse::ReceiptForm& form, tse::ReceiptTimeFormat format)
{
    return form.shape.version == 2 && !form.shape.indefiniteProcessData &&
           form.signature == tse::SignatureEncoding::PlainBase64 && form.time == tse::timeEncodings(format).front();
}

std::string normalizedTime(const tse::ReceiptTime& time)
{
    std::string text = tse::isoSeconds(time.time.seconds);
    std::string fraction = time.time.fraction;
    if (fraction.size() < 3) fraction.resize(3, '0');
    return text.insert(text.size() - 1, "." + fraction);
}

std::string algorithmAndCurve(const tse::Receipt& r)
{
    return std::string(r.algorithm->name) + " " + std::string(r.key.curveInfo().displayName);
}

std::string remark(const ReceiptResult& r)
{
    std::string text = r.verification.reason;
    if (r.verification.valid() && !commonForm(r.verification.form, r.receipt->logTimeFormat)) {
        text = "form: " + tse::describeForm(r.verification.form);
    }
    if (r.explanation) text += "; " + r.explanation->sentence;
    return text;
}

std::vector<std::string> textColumns(const ReceiptResult& r)
{
    std::vector<std::string> columns{verdictWord(r.verification.verdict), r.input.source};
    if (r.receipt) {
        const tse::Receipt& receipt = *r.receipt;
        columns.insert(columns.end(),
                       {"No-" + std::to_string(receipt.transactionNumber),
                        "Sig-" + std::to_string(receipt.signatureCounter), tse::escapeText(receipt.clientId),
                        algorithmAndCurve(receipt), normalizedTime(receipt.logTime)});
    } else {
        columns.insert(columns.end(), 5, "-");
    }
    columns.push_back(remark(r));
    return columns;
}

nlohmann::json orNull(const std::string& value)
{
    return value.empty() ? nlohmann::json(nullptr) : nlohmann::json(value);
}

nlohmann::json explanationJson(const tse::Explanation& e)
{
    return {{"found", e.found},
            {"change", orNull(e.change)},
            {"field", orNull(e.field)},
            {"shownValue", orNull(e.shownValue)},
            {"signedValue", orNull(e.signedValue)},
            {"form", orNull(e.form)},
            {"sentence", e.sentence},
            {"tried", e.tried},
            {"checks", e.checks},
            {"cutShort", e.cutShort},
            {"searchedWindow", e.searchedWindow}};
}

nlohmann::json toJson(const ReceiptResult& r, bool explainRan)
{
    nlohmann::json j = {{"source", r.input.source},
                        {"text", tse::escapeText(r.input.text)},
                        {"verdict", tse::asciiLower(verdictWord(r.verification.verdict))},
                        {"reason", orNull(r.verification.reason)},
                        {"form", r.verification.valid() ? nlohmann::json(tse::describeForm(r.verification.form))
                                                        : nlohmann::json(nullptr)}};
    for (const char* key : {"signatureAlgorithm", "curve", "logTimeFormat", "clientId", "transactionNumber",
                            "signatureCounter", "logTime", "serialNumber", "page", "corners"}) {
        j[key] = nullptr;
    }
    if (r.receipt) {
        const tse::Receipt& receipt = *r.receipt;
        j["signatureAlgorithm"] = receipt.algorithm->name;
        j["curve"] = receipt.key.curveInfo().displayName;
        j["logTimeFormat"] = tse::receiptTimeFormatName(receipt.logTimeFormat);
        j["clientId"] = tse::escapeText(receipt.clientId);
        j["transactionNumber"] = receipt.transactionNumber;
        j["signatureCounter"] = receipt.signatureCounter;
        j["logTime"] = normalizedTime(receipt.logTime);
        j["serialNumber"] = tse::toHex(receipt.key.serialNumber());
    }
    if (r.input.found) {
        nlohmann::json corners = nlohmann::json::array();
        for (const tse::PicturePoint& point : r.input.found->corners) {
            corners.push_back({std::lround(point.x), std::lround(point.y)});
        }
        j["page"] = r.input.found->page == 0 ? nlohmann::json(nullptr) : nlohmann::json(r.input.found->page);
        j["corners"] = corners;
    }
    if (explainRan) j["explanation"] = r.explanation ? explanationJson(*r.explanation) : nlohmann::json(nullptr);
    return j;
}

int exitStatus(const std::vector<ReceiptResult>& results, bool inputFailed)
{
    int status = inputFailed ? EXIT_BAD_INPUT : EXIT_OK;
    for (const ReceiptResult& r : results) {
        if (r.verification.verdict == tse::Verdict::Malformed) return EXIT_BAD_INPUT;
        if (!r.verification.valid() && status == EXIT_OK) status = EXIT_NOT_VERIFIED;
    }
    return status;
}

// The receipts of the arguments, lists and pictures, in that order.
InputCollector collectInputs(const ReceiptOptions& options)
{
    if (options.texts.empty() && options.lists.empty() && options.pictures.empty()) {
        refuse(EXIT_BAD_INPUT, "No receipt given: pass QR code texts, --from FILE or --image FILE");
    }
    const auto fromStdin = [](const std::vector<std::string>& paths) {
        return std::count(paths.begin(), paths.end(), "-");
    };
    if (fromStdin(options.lists) + fromStdin(options.pictures) > 1) {
        refuse(EXIT_BAD_INPUT, "Standard input can be read once: give - to one --from or --image only");
    }
    InputCollector collector;
    collector.addTexts(options.texts);
    for (const std::string& path : options.lists) collector.addList(path);
    collector.addPictures(options);
    return collector;
}

std::vector<ReceiptResult> verifyAll(const std::vector<ReceiptInput>& inputs, unsigned jobs)
{
    tse::KeyCache keys;
    std::vector<ReceiptResult> results(inputs.size());
    tse::parallelFor(results.size(), jobs, [&](size_t i) { results[i] = parseOne(inputs[i], keys); });
    // A batch of one TSE's receipts is checked through tables of its key.
    tse::KeyVerifierSet verifiers;
    for (const ReceiptResult& r : results) {
        if (r.receipt) verifiers.count(r.receipt->key);
    }
    verifiers.build(jobs);
    constexpr size_t CHUNK = 64;  // receipts per scratch
    tse::parallelFor((results.size() + CHUNK - 1) / CHUNK, jobs, [&](size_t chunk) {
        tse::VerifyScratch scratch;
        for (size_t i = chunk * CHUNK; i < std::min(results.size(), (chunk + 1) * CHUNK); ++i) {
            verifyOne(results[i], verifiers, scratch);
        }
    });
    return results;
}

// One explanation at a time, each on every core, all within the batch's
// work bound.
void explainInvalid(std::vector<ReceiptResult>& results, const ReceiptOptions& options)
{
    tse::ExplainOptions explainOptions;
    explainOptions.timeWindow = options.timeWindow;
    explainOptions.jobs = options.jobs;
    std::vector<ReceiptResult*> invalid;
    std::vector<const tse::Receipt*> receipts;
    for (ReceiptResult& r : results) {
        if (r.verification.verdict != tse::Verdict::Invalid) continue;
        invalid.push_back(&r);
        receipts.push_back(&*r.receipt);
    }
    std::vector<tse::Explanation> explanations = tse::explainReceipts(receipts, explainOptions);
    for (size_t i = 0; i < invalid.size(); ++i) invalid[i]->explanation = std::move(explanations[i]);
}

// What --json prints and a job of the server keeps.
nlohmann::json resultsJson(const std::vector<ReceiptResult>& results, bool explainRan)
{
    nlohmann::json document = nlohmann::json::array();
    for (const ReceiptResult& r : results) document.push_back(toJson(r, explainRan));
    makeJsonSafe(document);
    return document;
}

void printResults(const std::vector<ReceiptResult>& results, const ReceiptOptions& options)
{
    if (options.json) {
        std::cout << resultsJson(results, options.explain).dump(2) << std::endl;
        return;
    }
    std::vector<std::vector<std::string>> rows;
    rows.reserve(results.size());
    for (const ReceiptResult& r : results) rows.push_back(textColumns(r));
    printAligned(std::cout, rows);
}

struct CheckedBatch {
    std::vector<ReceiptResult> results;
    std::vector<std::string> errors;
};

// Cancelled, a batch skips the explanations, the one part that may take long.
CheckedBatch checkBatch(const ReceiptOptions& options)
{
    InputCollector collector = collectInputs(options);
    CheckedBatch batch{verifyAll(collector.inputs, options.jobs), std::move(collector.errors)};
    if (options.explain && !(options.cancel && options.cancel->load())) explainInvalid(batch.results, options);
    return batch;
}

int receiptCommand(const ReceiptOptions& options)
{
    const CheckedBatch batch = checkBatch(options);
    for (const std::string& line : batch.errors) std::cerr << line << '\n';
    std::cerr.flush();
    printResults(batch.results, options);
    return exitStatus(batch.results, !batch.errors.empty());
}

}  // namespace

ReceiptBatch checkReceipts(const ReceiptOptions& options)
{
    const CheckedBatch batch = checkBatch(options);
    return ReceiptBatch{resultsJson(batch.results, options.explain), batch.errors,
                        exitStatus(batch.results, !batch.errors.empty())};
}

Command addReceiptCommand(CLI::App& parent)
{
    auto options = std::make_shared<ReceiptOptions>();
    CLI::App* app =
        parent.add_subcommand("receipt", "Verify receipt QR code texts (DSFinV-K) from arguments, files or pictures");
    app->footer("Exit status: 0 all valid, 1 any invalid, 2 any malformed, a picture without a QR code,\n"
                "an unreadable file or a usage error.");
    app->add_option("TEXT", options->texts, "QR code texts (quote them: they hold ';')")->type_name("TEXT...");
    app->add_option("--from", options->lists, "File with one QR code text per line; - for standard input")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app->add_option("--image", options->pictures,
                    "Pictures (PNG, JPEG, WebP, HEIC, TIFF, GIF, BMP) or PDF files; every QR code in them is "
                    "checked; - for one picture on standard input")
        ->type_name("FILE...");
    addJsonFlag(*app, options->json);
    app->add_flag("--explain", options->explain, "For an invalid receipt, find the change under which it verifies");
    app->add_option("--time-window", options->timeWindow,
                    "Seconds either side of the log time that --explain searches (default 7200, at most 604800)")
        ->check(CLI::Range(int64_t{0}, tse::MAX_TIME_WINDOW));
    addJobsOption(*app, options->jobs);
    return Command{app, [options] { return receiptCommand(*options); }};
}

}  // namespace tsecheck
