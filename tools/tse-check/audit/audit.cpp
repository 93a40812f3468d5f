// tse-check audit: checks a whole TSE export - every log, its certificates
// and its integrity - and reports for people, spreadsheets and programs.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "audit.h"
#include "parallel.h"
#include "text.h"

#include "audit/audit_html.h"
#include "commands.h"
#include "shared/inputs.h"
#include "shared/output.h"

namespace tsecheck {
namespace {

using nlohmann::json;

constexpr size_t FILES_SHOWN_PER_CODE = 3;

struct AuditCommandOptions {
    tse::AuditOptions audit;
    ReportPaths reports;
    bool progress = false;
};

json textOrNull(std::string_view text)
{
    return text.empty() ? json(nullptr) : json(text);
}

// Logs are written without building a JSON object for each: on exports of
// a hundred thousand logs that took as long as a tenth of the verifying.
void appendText(std::string& out, std::string_view unsafe)
{
    // The report's texts from the input are escaped already; this is the
    // guard that keeps any other byte from breaking the document.
    const std::string escaped = tse::isSafeText(unsafe) ? std::string() : tse::escapeUnsafe(unsafe);
    const std::string_view text = escaped.empty() ? unsafe : std::string_view(escaped);
    const bool plain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
    });
    if (plain) {
        out += '"';
        out += text;
        out += '"';
    } else {
        out += json(std::string(text)).dump();
    }
}

void appendField(std::string& out, std::string_view key, std::string_view text)
{
    out += out.back() == '{' ? "\"" : ", \"";
    out += key;
    out += "\": ";
    if (text.empty()) out += "null";
    else appendText(out, text);
}

void appendNumber(std::string& out, std::string_view key, const std::optional<uint64_t>& value)
{
    out += ", \"";
    out += key;
    out += "\": ";
    out += value ? std::to_string(*value) : "null";
}

void appendLogJson(std::string& out, const tse::LogRecord& log)
{
    const auto time = log.logTime();
    out += '{';
    appendField(out, "file", log.file);
    appendField(out, "type", log.type ? tse::logTypeName(*log.type) : std::string_view());
    appendField(out, "verdict", tse::logVerdictName(log.verdict));
    appendNumber(out, "signatureCounter", log.counter);
    appendField(out, "serialNumber", log.serialNumber);
    appendField(out, "signatureAlgorithm", log.algorithm);
    appendField(out, "logTime", time ? time->iso() : std::string());
    appendField(out, "logTimeFormat", time ? tse::timeFormatName(time->format) : std::string_view());
    appendField(out, "operationType", log.operation);
    appendField(out, "clientId", log.clientId);
    appendField(out, "processType", log.processType);
    appendNumber(out, "transactionNumber", log.transactionNumber);
    appendField(out, "reason", log.reason);
    appendField(out, "export", log.source);
    out += '}';
}

json timeJson(const std::optional<int64_t>& seconds)
{
    return seconds ? json(tse::isoSeconds(*seconds)) : json(nullptr);
}

json infoJson(const std::optional<tse::InfoCsv>& info)
{
    if (!info) return nullptr;
    json records = json::array();
    for (const tse::InfoRecord& record : info->records) {
        json values = json::object();
        for (const auto& [key, value] : record) values[key] = value;
        records.push_back(values);
    }
    if (!info->perComponent && records.size() == 1) return records.front();
    return {{"records", records}};
}

// Everything but the logs, which writeJson streams one by one: a document
// of a hundred thousand logs built in memory would take hundreds of MiB.
json reportJson(const tse::AuditReport& report)
{
    const tse::AuditSummary& s = report.summary;
    json document = {{"export", report.exports},
                     {"summary",
                      {{"logs", s.logs},
                       {"valid", s.valid},
                       {"invalid", s.invalid},
                       {"noCertificate", s.noCertificate},
                       {"unreadable", s.unreadable},
                       {"errors", s.errors},
                       {"warnings", s.warnings},
                       {"transactionLogs", s.transaction},
                       {"systemLogs", s.system},
                       {"auditLogs", s.audit},
                       {"duplicatesSkipped", s.duplicatesSkipped}}},
                     {"info", infoJson(report.info)},
                     {"certificates", json::array()},
                     {"logs", json::array()},
                     {"findings", json::array()}};
    for (const tse::CertificateRecord& c : report.certificates) {
        document["certificates"].push_back({{"file", c.file},
                                            {"serialNumber", c.serialNumber},
                                            {"subject", c.subject},
                                            {"issuer", c.issuer},
                                            {"notBefore", timeJson(c.notBefore)},
                                            {"notAfter", timeJson(c.notAfter)},
                                            {"curve", c.curve},
                                            {"chain", tse::chainStatusName(c.chain.status)},
                                            {"chainReason", textOrNull(c.chain.reason)},
                                            {"keyProblem", textOrNull(c.keyProblem)},
                                            {"copies", c.copies}});
    }
    for (const tse::Finding& f : report.findings) {
        document["findings"].push_back({{"severity", tse::severityName(f.severity)},
                                        {"code", f.code},
                                        {"message", f.message},
                                        {"files", f.files},
                                        {"export", textOrNull(f.source)}});
    }
    document["exports"] = json::array();
    for (const tse::AuditedExport& e : report.audited) {
        document["exports"].push_back({{"path", e.path},
                                       {"logMembers", e.logMembers},
                                       {"info", infoJson(e.info)},
                                       {"infoProblem", textOrNull(e.infoProblem)}});
    }
    makeJsonSafe(document);
    return document;
}

void writeCsv(std::ostream& out, const tse::AuditReport& report)
{
    out << "file,type,verdict,signatureCounter,logTime,transactionNumber,operationType,clientId,processType,"
           "serialNumber,signatureAlgorithm,reason,export\n";
    for (const tse::LogRecord& log : report.logs) {
        const auto time = log.logTime();
        const std::vector<std::string> fields{
            log.file, log.type ? std::string(tse::logTypeName(*log.type)) : "", std::string(tse::logVerdictName(log.verdict)),
            log.counter ? std::to_string(*log.counter) : "", time ? time->iso() : "",
            log.transactionNumber ? std::to_string(*log.transactionNumber) : "", std::string(log.operation),
            std::string(log.clientId), std::string(log.processType), std::string(log.serialNumber),
            std::string(log.algorithm), log.reason, std::string(log.source)};
        for (size_t i = 0; i < fields.size(); ++i) out << (i ? "," : "") << csvCell(fields[i]);
        out << '\n';
    }
}

// The logs are rendered a window at a time on every core and written in
// order, so that neither time nor memory grows with the export beyond that.
void writeLogsJson(std::ostream& out, const tse::AuditReport& report, unsigned jobs)
{
    constexpr size_t CHUNK = 1024;
    const size_t chunks = (report.logs.size() + CHUNK - 1) / CHUNK;
    const size_t window = 2 * std::max(1u, jobs);
    for (size_t first = 0; first < chunks; first += window) {
        std::vector<std::string> texts(std::min(window, chunks - first));
        tse::parallelFor(texts.size(), jobs, [&](size_t i) {
            const size_t begin = (first + i) * CHUNK, end = std::min(begin + CHUNK, report.logs.size());
            texts[i].reserve((end - begin) * 512);  // a log's line is some 400 characters
            for (size_t n = begin; n < end; ++n) {
                texts[i] += n ? ",\n    " : "\n    ";
                appendLogJson(texts[i], report.logs[n]);
            }
        });
        for (const std::string& text : texts) out << text;
    }
}

void writeJson(std::ostream& out, const tse::AuditReport& report, unsigned jobs)
{
    const std::string whole = reportJson(report).dump(2);
    const std::string marker = "\"logs\": []";
    const size_t at = whole.find(marker);
    out << whole.substr(0, at) << "\"logs\": [";
    writeLogsJson(out, report, jobs);
    out << (report.logs.empty() ? "]" : "\n  ]") << whole.substr(at + marker.size()) << '\n';
}

void printSummary(std::ostream& out, const tse::AuditReport& report, bool strict)
{
    const tse::AuditSummary& s = report.summary;
    const char* verdict = s.errors ? "FAILED" : (s.warnings ? "PASSED WITH WARNINGS" : "PASSED");
    out << verdict << ": " << s.logs << " logs, " << s.errors << " errors, " << s.warnings << " warnings"
        << (strict ? " (strict)" : "") << "\n\n";
    printAligned(out, {{"Logs", "total", "valid", "invalid", "no-certificate", "unreadable"},
                       {"", std::to_string(s.logs), std::to_string(s.valid), std::to_string(s.invalid),
                        std::to_string(s.noCertificate), std::to_string(s.unreadable)}});
    out << "By type: " << s.transaction << " transaction, " << s.system << " system, " << s.audit << " audit";
    if (s.duplicatesSkipped) out << "; " << s.duplicatesSkipped << " identical duplicates counted once";
    out << "\n\nFindings:\n";
    std::map<std::pair<std::string, std::string>, std::vector<const tse::Finding*>> byCode;
    for (const tse::Finding& f : report.findings) {
        byCode[{std::string(tse::severityName(f.severity)), f.code}].push_back(&f);
    }
    // Audited together, the exports' member names may repeat: each finding
    // then says which export it comes from.
    const bool several = report.audited.size() > 1;
    if (byCode.empty()) out << "  none\n";
    for (const auto& [key, findings] : byCode) {
        out << "  " << key.first << "  " << key.second << " (" << findings.size() << ")\n";
        for (size_t i = 0; i < findings.size() && i < FILES_SHOWN_PER_CODE; ++i) {
            const std::string& source = findings[i]->source;
            out << "    " << tse::escapeUnsafe((several && !source.empty() ? source + ": " : "") + findings[i]->message)
                << '\n';
        }
        if (findings.size() > FILES_SHOWN_PER_CODE) out << "    ... " << findings.size() - FILES_SHOWN_PER_CODE << " more\n";
    }
    out << "\nCertificates:\n";
    std::vector<std::vector<std::string>> rows;
    for (const tse::CertificateRecord& c : report.certificates) {
        rows.push_back({"  " + std::string(tse::chainStatusName(c.chain.status)), c.serialNumber.substr(0, 16) + "...",
                        c.curve.empty() ? "-" : c.curve,
                        (c.notBefore ? tse::isoSeconds(*c.notBefore) : "?") + " to " +
                            (c.notAfter ? tse::isoSeconds(*c.notAfter) : "?"),
                        c.file + (c.copies > 1 ? " (" + std::to_string(c.copies) + " identical copies)" : "") +
                            (c.keyProblem.empty() ? "" : " (" + c.keyProblem + ")")});
    }
    if (rows.empty()) out << "  none\n";
    printAligned(out, rows);
    // Each export's own info.csv; log files given by themselves have none.
    for (const tse::AuditedExport& e : report.audited) {
        if (e.standalone) continue;
        out << "\ninfo.csv" << (several ? " of " + tse::escapeUnsafe(e.path) : std::string()) << ":";
        if (!e.info) out << " " << tse::escapeUnsafe(e.infoProblem.empty() ? "missing" : e.infoProblem);
        for (const tse::InfoRecord& record : e.info ? e.info->records : std::vector<tse::InfoRecord>{}) {
            out << "\n ";
            for (const auto& [key, value] : record) out << " " << tse::escapeUnsafe(key) << ": " << tse::escapeUnsafe(value) << ";";
        }
        out << '\n';
    }
    out << std::flush;
}

// One line on standard error, redrawn in place.
class ProgressBar {
public:
    void update(const tse::AuditProgress& p)
    {
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(200)) return;
        last_ = now;
        const double elapsed = std::chrono::duration<double>(now - start_).count();
        const double share = p.bytesTotal ? static_cast<double>(p.bytesDone) / static_cast<double>(p.bytesTotal) : 0;
        const double left = share > 0 ? elapsed * (1 - share) / share : 0;
        const int filled = static_cast<int>(share * 30);
        std::fprintf(stderr, "\r[%-30s] %llu logs, %.0f logs/s, %.0f s left ",
                     std::string(static_cast<size_t>(std::max(0, std::min(30, filled))), '#').c_str(),
                     static_cast<unsigned long long>(p.logsDone), elapsed > 0 ? static_cast<double>(p.logsDone) / elapsed : 0.0, left);
        drawn_ = true;
    }
    ~ProgressBar()
    {
        if (drawn_) std::fprintf(stderr, "\r%60s\r", "");
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point last_ = start_;
    bool drawn_ = false;
};

int auditCommand(AuditCommandOptions& options)
{
    std::unique_ptr<ProgressBar> bar;
    if (options.progress) {
        bar = std::make_unique<ProgressBar>();
        options.audit.progress = [&bar](const tse::AuditProgress& p) { bar->update(p); };
    }
    const tse::Result<tse::AuditReport> outcome = tse::auditExport(options.audit);
    bar.reset();
    if (!outcome) refuse(EXIT_BAD_INPUT, "Cannot audit: " + tse::escapeUnsafe(outcome.error().message));
    const tse::AuditReport& report = *outcome;
    const ReportPaths& reports = options.reports;
    if (!reports.json.empty()) {
        writeTo(reports.json, [&](std::ostream& out) { writeJson(out, report, options.audit.jobs); });
    }
    if (!reports.csv.empty()) writeTo(reports.csv, [&](std::ostream& out) { writeCsv(out, report); });
    if (!reports.html.empty()) {
        HtmlContext context{options.audit.exports, options.audit.strict};
        context.inputs.insert(context.inputs.end(), options.audit.certificateFiles.begin(),
                              options.audit.certificateFiles.end());
        writeTo(reports.html, [&](std::ostream& out) { writeAuditHtml(out, report, context); });
    }
    if (!anyToStandardOutput(reports)) printSummary(std::cout, report, options.audit.strict);
    return report.summary.errors ? EXIT_NOT_VERIFIED : EXIT_OK;
}

}  // namespace

Command addAuditCommand(CLI::App& parent)
{
    auto options = std::make_shared<AuditCommandOptions>();
    CLI::App* app = parent.add_subcommand(
        "audit", "Audit a whole TSE export: every signature, the certificates and the export's integrity");
    app->footer("EXPORT is a TAR archive (plain, gzip, bzip2, xz; X.tar.001 for a split one), a directory or log\n"
                "files; several are audited as one export.\n"
                "Exit status: 0 no error findings, 1 error findings, 2 usage or an export that cannot be opened.");
    app->add_option("EXPORT", options->audit.exports, "Export archives, directories or files")
        ->required()
        ->type_name("PATH...");
    addCertOption(*app, options->audit.certificateFiles);
    addTrustOption(*app, options->audit.trustDirectories);
    addReportOptions(*app, options->reports);
    addStrictOption(*app, options->audit.strict);
    addJobsOption(*app, options->audit.jobs);
    addProgressOption(*app, options->progress);
    return Command{app, [options] { return auditCommand(*options); }, &options->reports};
}

}  // namespace tsecheck
