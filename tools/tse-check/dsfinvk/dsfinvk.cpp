// tse-check dsfinvk: checks the register's bookkeeping (a DSFinV-K export)
// by itself and against the TSE export, and reports for people,
// spreadsheets and programs.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "dsfinvk_check.h"
#include "log_time.h"
#include "text.h"

#include "commands.h"
#include "dsfinvk/dsfinvk_html.h"
#include "dsfinvk/transaction_row.h"
#include "shared/inputs.h"
#include "shared/jobs.h"
#include "shared/output.h"

namespace tsecheck {
namespace {

using nlohmann::json;

constexpr size_t SHOWN_PER_CODE = 3;
// Where writeJson puts the transactions and findings, streamed.
constexpr const char* TRANSACTIONS_PLACE = "(transactions)";
constexpr const char* FINDINGS_PLACE = "(findings)";

struct DsfinvkCommandOptions {
    tse::BookkeepingOptions check;
    ReportPaths reports;
    bool progress = false;
};

json textOrNull(std::string_view text)
{
    return text.empty() ? json(nullptr) : json(text);
}

template <typename T>
json valueOrNull(const std::optional<T>& value)
{
    return value ? json(*value) : json(nullptr);
}

json transactionJson(const tse::BookedTransaction& t)
{
    return {{"bonId", textOrNull(t.bonId)},
            {"kasseId", textOrNull(t.kasseId)},
            {"closing", textOrNull(t.closing)},
            {"closingTime", textOrNull(t.closingTime)},
            {"file", textOrNull(t.file)},
            {"clientId", textOrNull(t.clientId)},
            {"clientIdSource", textOrNull(t.clientIdSource)},
            {"serialNumber", textOrNull(t.serialNumber)},
            {"transactionNumber", valueOrNull(t.transactionNumber)},
            {"signatureCounter", valueOrNull(t.signatureCounter)},
            {"processType", textOrNull(t.processType)},
            {"logTime", textOrNull(t.logTime())},
            {"startTime", t.startSeconds ? json(tse::isoSeconds(*t.startSeconds)) : json(nullptr)},
            {"verdict", tse::rowVerdictName(t.verdict)},
            {"match", t.match ? json(tse::matchStateName(*t.match)) : json(nullptr)},
            {"differences", t.differences},
            {"form", t.form ? json(tse::describeForm(*t.form)) : json(nullptr)},
            {"localTime", t.localTime},
            {"failure", textOrNull(t.failure)},
            {"reason", textOrNull(t.reason)}};
}

json auditJson(const tse::AuditSummary& a)
{
    return {{"logs", a.logs},
            {"valid", a.valid},
            {"invalid", a.invalid},
            {"noCertificate", a.noCertificate},
            {"unreadable", a.unreadable},
            {"errors", a.errors},
            {"warnings", a.warnings}};
}

json findingJson(const tse::BookkeepingFinding& f)
{
    return {{"severity", tse::severityName(f.severity)},
            {"code", f.code},
            {"message", f.message},
            {"from", f.tseExport ? "tse-export" : "bookkeeping"},
            {"transactions", f.transactions}};
}

// Everything but the transactions and findings, which are streamed one by
// one: a document of a hundred thousand of them built in memory would take
// hundreds of MiB.

// Each closing's totals as booked and as its receipts add up; amounts stay
// exact decimal texts.
json closingsJson(const tse::BookkeepingReport& report)
{
    json out = json::array();
    for (const tse::ClosingCheck& c : report.closings) {
        json totals = json::array();
        for (const tse::ClosingTotal& t : c.totals) {
            totals.push_back(
                {{"name", t.name}, {"booked", textOrNull(t.booked)}, {"computed", t.computed}, {"differs", t.differs}});
        }
        out.push_back({{"kasseId", c.kasseId},
                       {"closing", c.closing},
                       {"created", c.created},
                       {"receipts", c.receipts},
                       {"differs", c.differs()},
                       {"totals", std::move(totals)}});
    }
    return out;
}

json reportJson(const tse::BookkeepingReport& report, int exitStatus)
{
    const tse::BookkeepingSummary& s = report.summary;
    json document = {{"verdict", report.verdict()},
                     {"exitStatus", exitStatus},
                     {"dsfinvk", report.dsfinvk},
                     {"tse", report.tseGiven ? json(report.tse) : json(nullptr)},
                     {"summary",
                      {{"rows", s.rows},
                       {"valid", s.valid},
                       {"invalid", s.invalid},
                       {"unsigned", s.unsigned_},
                       {"unverifiable", s.unverifiable},
                       {"matched", s.matched},
                       {"differs", s.differs},
                       {"unbooked", s.unbooked},
                       {"unknown", s.unknown},
                       {"outside", s.outside},
                       {"errors", s.errors},
                       {"warnings", s.warnings},
                       {"closings", s.closings},
                       {"receipts", s.receipts},
                       {"tseLogs", report.tseGiven ? json(s.tseLogs) : json(nullptr)},
                       {"tseFinishLogs", report.tseGiven ? json(s.tseFinishLogs) : json(nullptr)}}},
                     {"tseExport", report.tseAudit ? auditJson(*report.tseAudit) : json(nullptr)},
                     {"tses", json::array()},
                     {"periods", json::array()},
                     {"uncovered", json::array()},
                     {"closings", closingsJson(report)},
                     {"tables", report.tablesRead},
                     {"transactions", TRANSACTIONS_PLACE},
                     {"findings", FINDINGS_PLACE}};
    for (const tse::BookedTse& t : report.tses) {
        document["tses"].push_back({{"serialNumber", t.serialNumber},
                                    {"declaredSerial", t.declaredSerial},
                                    {"algorithm", t.algorithm},
                                    {"timeFormat", t.timeFormat},
                                    {"encoding", t.encoding},
                                    {"curve", textOrNull(t.curve)},
                                    {"certificate", t.certificate},
                                    {"inTseExport", report.tseGiven ? json(t.inTseExport) : json(nullptr)},
                                    {"keyProblem", textOrNull(t.keyProblem)},
                                    {"rows", t.rows}});
    }
    for (const tse::CoveredPeriod& p : report.periods) {
        document["periods"].push_back({{"kasseId", p.kasseId},
                                       {"closing", p.closing},
                                       {"from", tse::isoSeconds(p.from)},
                                       {"to", tse::isoSeconds(p.to)}});
    }
    for (const tse::UncoveredSales& u : report.uncovered) {
        document["uncovered"].push_back({{"kasseId", textOrNull(u.kasseId)},
                                         {"clientId", u.clientId},
                                         {"sales", u.sales},
                                         {"first", tse::isoSeconds(u.first)},
                                         {"last", tse::isoSeconds(u.last)}});
    }
    return document;
}

// Every text from the input is escaped the way all reports escape it, so
// that bytes that are no UTF-8 stay recoverable.
std::string dump(json value)
{
    makeJsonSafe(value);
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Writes the list at its place in the document, one entry at a time.
template <typename List, typename ToJson>
void writeList(std::ostream& out, const List& list, const ToJson& toJson)
{
    out << "[";
    for (size_t i = 0; i < list.size(); ++i) out << (i ? ",\n    " : "\n    ") << dump(toJson(list[i]));
    out << (list.empty() ? "]" : "\n  ]");
}

void writeJson(std::ostream& out, const tse::BookkeepingReport& report, int exitStatus)
{
    json document = reportJson(report, exitStatus);
    makeJsonSafe(document);
    const std::string whole = document.dump(2, ' ', false, json::error_handler_t::replace);
    // The keys come in the writer's order; each placeholder is replaced
    // where it stands.
    const std::string transactions = "\"" + std::string(TRANSACTIONS_PLACE) + "\"";
    const std::string findings = "\"" + std::string(FINDINGS_PLACE) + "\"";
    size_t done = 0;
    while (done < whole.size()) {
        const size_t t = whole.find(transactions, done), f = whole.find(findings, done);
        const size_t next = std::min(t, f);
        if (next == std::string::npos) break;
        out << whole.substr(done, next - done);
        if (next == t) writeList(out, report.transactions, transactionJson), done = t + transactions.size();
        else writeList(out, report.findings, findingJson), done = f + findings.size();
    }
    out << whole.substr(done) << '\n';
}

void writeCsv(std::ostream& out, const tse::BookkeepingReport& report)
{
    const std::vector<std::string>& columns = transactionColumns();
    for (size_t i = 0; i < columns.size(); ++i) out << (i ? "," : "") << columns[i];
    out << '\n';
    for (const tse::BookedTransaction& t : report.transactions) {
        const std::vector<std::string> fields = transactionCells(t);
        for (size_t i = 0; i < fields.size(); ++i) out << (i ? "," : "") << csvCell(fields[i]);
        out << '\n';
    }
}

std::string counted(size_t n, const std::string& one, const std::string& many)
{
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

void printCounts(std::ostream& out, const tse::BookkeepingReport& report)
{
    const tse::BookkeepingSummary& s = report.summary;
    printAligned(out, {{"Signatures", "rows", "valid", "invalid", "unsigned", "unverifiable"},
                       {"", std::to_string(s.rows), std::to_string(s.valid), std::to_string(s.invalid),
                        std::to_string(s.unsigned_), std::to_string(s.unverifiable)}});
    if (!report.tseGiven) {
        out << "No TSE export given (--tse): the rows are checked from the bookkeeping alone.\n";
        return;
    }
    out << '\n';
    printAligned(out, {{"Against the TSE", "matched", "differs", "unbooked", "unknown", "outside"},
                       {"", std::to_string(s.matched), std::to_string(s.differs), std::to_string(s.unbooked),
                        std::to_string(s.unknown), std::to_string(s.outside)}});
    out << "TSE export: " << counted(s.tseLogs, "log", "logs") << ", "
        << counted(s.tseFinishLogs, "finished transaction", "finished transactions");
    if (report.tseAudit) {
        out << "; its own audit: " << counted(report.tseAudit->invalid, "invalid log", "invalid logs") << ", "
            << counted(report.tseAudit->errors, "error", "errors") << ", "
            << counted(report.tseAudit->warnings, "warning", "warnings") << " (among the findings below)";
    }
    out << '\n';
}

// What the bookkeeping covers, and what the TSE signed outside it.
void printCoverage(std::ostream& out, const tse::BookkeepingReport& report)
{
    if (report.periods.empty()) return;
    std::map<std::string, size_t> closings;
    for (const tse::CoveredPeriod& p : report.periods) ++closings[p.kasseId];
    out << "\nCovered: " << counted(report.periods.size(), "closing", "closings") << " of "
        << counted(closings.size(), "register", "registers") << ", " << tse::isoSeconds(tse::coveredFrom(report))
        << " to " << tse::isoSeconds(tse::coveredTo(report)) << '\n';
    if (!report.tseGiven) return;
    if (report.uncovered.empty()) {
        out << "Signed by the TSE outside the covered periods: none\n";
        return;
    }
    out << "Signed by the TSE outside the covered periods (not checked against the bookkeeping):\n";
    std::vector<std::vector<std::string>> rows;
    for (const tse::UncoveredSales& u : report.uncovered) {
        rows.push_back(
            {"  " + (u.kasseId.empty() ? "client " + tse::quoted(u.clientId) + " (no register of the bookkeeping)"
                                       : "register " + tse::quoted(u.kasseId)),
             counted(u.sales, "sale", "sales"), tse::isoSeconds(u.first) + " to " + tse::isoSeconds(u.last)});
    }
    printAligned(out, rows);
}

void printFindings(std::ostream& out, const tse::BookkeepingReport& report)
{
    out << "\nFindings:\n";
    if (report.findings.empty()) out << "  none\n";
    for (size_t i = 0; i < report.findings.size();) {
        const tse::BookkeepingFinding first = report.findings[i];
        size_t end = i + 1;
        while (end < report.findings.size() && report.findings[end].code == first.code &&
               report.findings[end].severity == first.severity) {
            ++end;
        }
        out << "  " << tse::severityName(first.severity) << "  " << first.code << " (" << end - i << ")\n";
        for (size_t k = i; k < end && k < i + SHOWN_PER_CODE; ++k) out << "    " << report.findings[k].message << '\n';
        if (end - i > SHOWN_PER_CODE) out << "    ... " << end - i - SHOWN_PER_CODE << " more\n";
        i = end;
    }
}

void printTses(std::ostream& out, const tse::BookkeepingReport& report)
{
    out << "\nTSEs in tse.csv:\n";
    std::vector<std::vector<std::string>> tses;
    for (const tse::BookedTse& t : report.tses) {
        tses.push_back({"  " + (t.serialNumber.size() > 16 ? t.serialNumber.substr(0, 16) + "..." : t.serialNumber),
                        t.curve.empty() ? "-" : t.curve, t.algorithm, t.timeFormat,
                        counted(t.rows, "row", "rows") + (t.keyProblem.empty() ? "" : " (" + t.keyProblem + ")") +
                            (report.tseGiven && !t.inTseExport ? " (not in the TSE export)" : "")});
    }
    if (tses.empty()) out << "  none\n";
    printAligned(out, tses);
    std::map<std::string, size_t> sources;
    for (const tse::BookedTransaction& t : report.transactions) {
        if (t.row && t.verdict == tse::RowVerdict::Valid && !t.clientIdSource.empty())
            ++sources[std::string(t.clientIdSource)];
    }
    if (sources.empty()) return;
    out << "\nClient ID signed:";
    for (const auto& [source, count] : sources) out << " " << source << " (" << counted(count, "row", "rows") << ")";
    out << '\n';
}

// The verdict first, then what it rests on.
void printSummary(std::ostream& out, const tse::BookkeepingReport& report, bool strict)
{
    const tse::BookkeepingSummary& s = report.summary;
    out << report.verdict() << ": " << counted(s.rows, "row", "rows") << " in "
        << counted(s.closings, "closing", "closings") << ", " << counted(s.errors, "error", "errors") << ", "
        << counted(s.warnings, "warning", "warnings") << (strict ? " (strict)" : "") << "\n\n";
    printCounts(out, report);
    printCoverage(out, report);
    printFindings(out, report);
    printTses(out, report);
    out.flush();
}

// One line on standard error, redrawn in place.
class ProgressLine {
public:
    void update(const tse::BookkeepingProgress& p)
    {
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < std::chrono::milliseconds(200)) return;
        last_ = now;
        const bool rows = p.stage == "bookkeeping";
        std::fprintf(stderr, "\r%s: %llu of %llu %s   ", rows ? "bookkeeping" : "TSE export",
                     static_cast<unsigned long long>(rows ? p.done : p.done >> 20),
                     static_cast<unsigned long long>(rows ? p.total : p.total >> 20), rows ? "rows" : "MiB");
        drawn_ = true;
    }
    ~ProgressLine()
    {
        if (drawn_) std::fprintf(stderr, "\r%60s\r", "");
    }

private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
    bool drawn_ = false;
};

int dsfinvkCommand(DsfinvkCommandOptions& options)
{
    std::unique_ptr<ProgressLine> line;
    if (options.progress) {
        line = std::make_unique<ProgressLine>();
        options.check.progress = [&line](const tse::BookkeepingProgress& p) { line->update(p); };
    }
    const tse::BookkeepingReport report = runBookkeeping(options.check);
    line.reset();
    return writeBookkeepingReports(report, options.check, options.reports,
                                   anyToStandardOutput(options.reports) ? nullptr : &std::cout);
}

}  // namespace

tse::BookkeepingReport runBookkeeping(const tse::BookkeepingOptions& options)
{
    tse::Result<tse::BookkeepingReport> outcome = tse::checkBookkeeping(options);
    if (!outcome) refuse(EXIT_BAD_INPUT, "Cannot check the bookkeeping: " + outcome.error().message);
    return std::move(outcome).value();
}

int writeBookkeepingReports(const tse::BookkeepingReport& report, const tse::BookkeepingOptions& options,
                            const ReportPaths& reports, std::ostream* summary)
{
    const int status = report.summary.errors ? EXIT_NOT_VERIFIED : EXIT_OK;
    if (!reports.json.empty()) writeTo(reports.json, [&](std::ostream& out) { writeJson(out, report, status); });
    if (!reports.csv.empty()) writeTo(reports.csv, [&](std::ostream& out) { writeCsv(out, report); });
    if (!reports.html.empty()) {
        HtmlContext context{options.dsfinvk, options.strict};
        context.inputs.insert(context.inputs.end(), options.tse.begin(), options.tse.end());
        writeTo(reports.html, [&](std::ostream& out) { writeBookkeepingHtml(out, report, context); });
    }
    if (summary) printSummary(*summary, report, options.strict);
    return status;
}

Command addDsfinvkCommand(CLI::App& parent)
{
    auto options = std::make_shared<DsfinvkCommandOptions>();
    CLI::App* app = parent.add_subcommand(
        "dsfinvk", "Check a DSFinV-K bookkeeping export: every row's TSE signature, and against the TSE export");
    app->footer("DSFINVK is a DSFinV-K export as a folder, a ZIP or a TAR archive (plain or compressed); several are\n"
                "read as one. EXPORT is a TSE export as audit reads it.\n"
                "Exit status: 0 no error findings, 1 error findings, 2 usage or an export that cannot be read.");
    app->add_option("DSFINVK", options->check.dsfinvk, "DSFinV-K exports: folders, ZIP or TAR archives")
        ->required()
        ->type_name("PATH...");
    app->add_option("--tse", options->check.tse, "TSE export to match against (TAR, split TAR, folder, log files)")
        ->type_name("EXPORT");
    addCertOption(*app, options->check.certificateFiles);
    addTrustOption(*app, options->check.trustDirectories);
    addReportOptions(*app, options->reports);
    addStrictOption(*app, options->check.strict);
    addJobsOption(*app, options->check.jobs);
    addProgressOption(*app, options->progress);
    return Command{app, [options] { return dsfinvkCommand(*options); }, &options->reports};
}

}  // namespace tsecheck
