// tse-check audit: checks a whole TSE export - every log, its certificates
// and its integrity - and reports for people, spreadsheets and programs.
#include <algorithm>
#include <cerrno>
#include <charconv>
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
#include "shared/jobs.h"
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
void appendText(std::string& out, std::string_view text)
{
    const auto plainByte = [](unsigned char c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; };
    if (std::all_of(text.begin(), text.end(), plainByte)) {
        out += '"';
        out += text;
        out += '"';
        return;
    }
    // The report's texts from the input are escaped already; this is the
    // guard that keeps any other byte from breaking the document.
    const std::string escaped = tse::isSafeText(text) ? std::string(text) : tse::escapeUnsafe(text);
    if (std::all_of(escaped.begin(), escaped.end(), plainByte)) {
        out += '"';
        out += escaped;
        out += '"';
    } else {
        out += json(escaped).dump();
    }
}

// `field` is the separator, the key and the colon, as it stands in the document.
void appendField(std::string& out, std::string_view field, std::string_view text)
{
    out += field;
    if (text.empty()) out += "null";
    else appendText(out, text);
}

// The log times as LogTime::iso writes them. They mostly fall on one day
// after another, so the calendar is asked once a day and the time of day
// written in place.
class IsoTimes {
public:
    std::string_view of(int64_t seconds, std::string_view fraction)
    {
        const int64_t day = seconds / 86400 - (seconds % 86400 < 0 ? 1 : 0);
        if (day != day_ || text_.empty()) {
            text_ = tse::isoSeconds(day * 86400);  // ...T00:00:00Z
            text_.resize(text_.size() - 9);
            day_ = day;
        }
        const auto second = static_cast<unsigned>(seconds - day * 86400);
        const size_t date = text_.size();
        for (const unsigned part : {second / 3600, second / 60 % 60, second % 60}) {
            text_ += static_cast<char>('0' + part / 10);
            text_ += static_cast<char>('0' + part % 10);
            text_ += ':';
        }
        text_.back() = '.';
        text_ += fraction;
        for (size_t digits = fraction.size(); digits < 3; ++digits) text_ += '0';
        text_ += 'Z';
        result_.assign(text_);
        text_.resize(date);
        return result_;
    }

private:
    int64_t day_ = 0;
    std::string text_;  // the day's date and the 'T'
    std::string result_;
};

bool isPlain(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; });
}

std::string_view numberText(const std::optional<uint64_t>& value, char (&digits)[24])
{
    if (!value) return {};
    return std::string_view(digits,
                            static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, *value).ptr - digits));
}

// One log's line, as appendText writes its fields. Nearly every text is
// plain printable ASCII: then the line is put together with one copy a
// piece into room made once, and the texts pooled in the report (the same
// few, at the same places, log after log) are looked at only once.
class LogLines {
public:
    void append(std::string& out, const tse::LogRecord& log)
    {
        const bool timed = log.seconds && log.timeFormat;
        char counter[24], transaction[24];
        const Piece pieces[PIECES] = {
            {"{\"file\": ", log.file, TEXT},
            {", \"type\": ", log.type ? tse::logTypeName(*log.type) : std::string_view(), NAME},
            {", \"verdict\": ", tse::logVerdictName(log.verdict), NAME},
            {", \"signatureCounter\": ", numberText(log.counter, counter), NUMBER},
            {", \"serialNumber\": ", log.serialNumber, TEXT},
            {", \"signatureAlgorithm\": ", log.algorithm, TEXT},
            {", \"logTime\": ", timed ? times_.of(*log.seconds, log.fraction) : std::string_view(), TEXT},
            {", \"logTimeFormat\": ", timed ? tse::timeFormatName(*log.timeFormat) : std::string_view(), NAME},
            {", \"operationType\": ", log.operation, TEXT},
            {", \"clientId\": ", log.clientId, TEXT},
            {", \"processType\": ", log.processType, TEXT},
            {", \"transactionNumber\": ", numberText(log.transactionNumber, transaction), NUMBER},
            {", \"reason\": ", log.reason, TEXT},
            {", \"export\": ", log.source, TEXT},
        };
        if (!allPlain(pieces, log)) return appendSlowly(out, pieces);
        size_t size = 1;
        for (const Piece& p : pieces) {
            size += p.key.size() + (p.text.empty() ? 4 : p.text.size() + (p.kind == NUMBER ? 0 : 2));
        }
        const size_t start = out.size();
        out.resize(start + size);
        char* at = &out[start];
        const auto put = [&](std::string_view text) { at = std::copy(text.begin(), text.end(), at); };
        for (const Piece& p : pieces) {
            put(p.key);
            if (p.text.empty()) put("null");
            else if (p.kind == NUMBER) put(p.text);
            else *at++ = '"', put(p.text), *at++ = '"';
        }
        *at = '}';
    }

private:
    static constexpr size_t PIECES = 14;
    // A text from the input; a name of this program's, with nothing to
    // escape; a number, without quotes.
    enum Kind { TEXT, NAME, NUMBER };
    struct Piece {
        std::string_view key;  // with the separator before it and the colon
        std::string_view text;
        Kind kind;
    };

    // The record's own strings (file, reason) change in place; the views
    // into the report's pool are the pool's texts, which never change.
    bool allPlain(const Piece (&pieces)[PIECES], const tse::LogRecord& log)
    {
        for (size_t i = 0; i < PIECES; ++i) {
            const std::string_view text = pieces[i].text;
            if (pieces[i].kind != TEXT || text.empty() ||
                (text.data() == seen_[i].data() && text.size() == seen_[i].size())) {
                continue;
            }
            if (!isPlain(text)) return false;
            const bool owned = text.data() == log.file.data() || text.data() == log.reason.data();
            if (!owned && i != 6) seen_[i] = text;
        }
        return true;
    }

    static void appendSlowly(std::string& out, const Piece (&pieces)[PIECES])
    {
        for (const Piece& p : pieces) {
            if (p.kind != NUMBER) appendField(out, p.key, p.text);
            else out += p.key, out += p.text.empty() ? std::string_view("null") : p.text;
        }
        out += '}';
    }

    IsoTimes times_;
    std::string_view seen_[PIECES];  // pooled texts found plain
};

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
                                        {"code", tse::findingName(f.code)},
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
    tse::LogRecord log;
    for (size_t n = 0; n < report.logs.size(); ++n) {
        report.logs.read(n, log);
        const auto time = log.logTime();
        const std::vector<std::string> fields{log.file,
                                              log.type ? std::string(tse::logTypeName(*log.type)) : "",
                                              std::string(tse::logVerdictName(log.verdict)),
                                              log.counter ? std::to_string(*log.counter) : "",
                                              time ? time->iso() : "",
                                              log.transactionNumber ? std::to_string(*log.transactionNumber) : "",
                                              std::string(log.operation),
                                              std::string(log.clientId),
                                              std::string(log.processType),
                                              std::string(log.serialNumber),
                                              std::string(log.algorithm),
                                              log.reason,
                                              std::string(log.source)};
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
            tse::LogRecord log;                     // read into again and again, so its strings keep their room
            LogLines lines;
            for (size_t n = begin; n < end; ++n) {
                texts[i] += n ? ",\n    " : "\n    ";
                report.logs.read(n, log);
                lines.append(texts[i], log);
            }
        });
        for (const std::string& text : texts) out << text;
    }
}

// The verdict the text report's first line gives, and the exit status
// that goes with it.
const char* auditVerdict(const tse::AuditSummary& s)
{
    return s.errors ? "FAILED" : (s.warnings ? "PASSED WITH WARNINGS" : "PASSED");
}

int auditExitStatus(const tse::AuditSummary& s)
{
    return s.errors ? EXIT_NOT_VERIFIED : EXIT_OK;
}

// The verdict and exit status come first, where a script looks for them.
void writeJson(std::ostream& out, const tse::AuditReport& report, unsigned jobs)
{
    const std::string whole = reportJson(report).dump(2);
    const std::string marker = "\"logs\": []";
    const size_t at = whole.find(marker);
    out << "{\n  \"verdict\": " << json(auditVerdict(report.summary)).dump()
        << ",\n  \"exitStatus\": " << auditExitStatus(report.summary) << ',' << whole.substr(1, at - 1)
        << "\"logs\": [";
    writeLogsJson(out, report, jobs);
    out << (report.logs.empty() ? "]" : "\n  ]") << whole.substr(at + marker.size()) << '\n';
}

void printSummary(std::ostream& out, const tse::AuditReport& report, bool strict)
{
    const tse::AuditSummary& s = report.summary;
    out << auditVerdict(s) << ": " << tse::counted(s.logs, "log", "logs") << ", "
        << tse::counted(s.errors, "error", "errors") << ", " << tse::counted(s.warnings, "warning", "warnings")
        << (strict ? " (strict)" : "") << "\n\n";
    printAligned(out, {{"Logs", "total", "valid", "invalid", "no-certificate", "unreadable"},
                       {"", std::to_string(s.logs), std::to_string(s.valid), std::to_string(s.invalid),
                        std::to_string(s.noCertificate), std::to_string(s.unreadable)}});
    out << "By type: " << s.transaction << " transaction, " << s.system << " system, " << s.audit << " audit";
    if (s.duplicatesSkipped) {
        out << "; " << tse::counted(s.duplicatesSkipped, "identical duplicate", "identical duplicates")
            << " counted once";
    }
    out << "\n\nFindings:\n";
    std::map<std::pair<std::string, std::string>, std::vector<const tse::Finding*>> byCode;
    for (const tse::Finding& f : report.findings) {
        byCode[{std::string(tse::severityName(f.severity)), std::string(tse::findingName(f.code))}].push_back(&f);
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
        if (findings.size() > FILES_SHOWN_PER_CODE)
            out << "    ... " << findings.size() - FILES_SHOWN_PER_CODE << " more\n";
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
            for (const auto& [key, value] : record)
                out << " " << tse::escapeUnsafe(key) << ": " << tse::escapeUnsafe(value) << ";";
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
                     static_cast<unsigned long long>(p.logsDone),
                     elapsed > 0 ? static_cast<double>(p.logsDone) / elapsed : 0.0, left);
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
    const tse::AuditReport report = runAudit(options.audit);
    bar.reset();
    return writeAuditReports(report, options.audit, options.reports,
                             anyToStandardOutput(options.reports) ? nullptr : &std::cout);
}

}  // namespace

tse::AuditReport runAudit(const tse::AuditOptions& options)
{
    tse::Result<tse::AuditReport> outcome = tse::auditExport(options);
    if (!outcome) refuse(EXIT_BAD_INPUT, "Cannot audit: " + tse::escapeUnsafe(outcome.error().message));
    return std::move(outcome).value();
}

int writeAuditReports(const tse::AuditReport& report, const tse::AuditOptions& options, const ReportPaths& reports,
                      std::ostream* summary)
{
    if (!reports.json.empty()) writeTo(reports.json, [&](std::ostream& out) { writeJson(out, report, options.jobs); });
    if (!reports.csv.empty()) writeTo(reports.csv, [&](std::ostream& out) { writeCsv(out, report); });
    if (!reports.html.empty()) {
        HtmlContext context{options.exports, options.strict};
        context.inputs.insert(context.inputs.end(), options.certificateFiles.begin(), options.certificateFiles.end());
        writeTo(reports.html, [&](std::ostream& out) { writeAuditHtml(out, report, context); });
    }
    if (summary) printSummary(*summary, report, options.strict);
    return auditExitStatus(report.summary);
}

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
