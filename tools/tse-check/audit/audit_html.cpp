// tse-check audit --html: what the audit report shows a person. Judging is
// done by then; this reads the report and aggregates it for the charts.
#include "audit/audit_html.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>

#include "svg_chart.h"

namespace tsecheck {
namespace {

using report::formatNumber;
using report::formatTime;

constexpr size_t MAX_MARKS = 300;  // gaps or regressions drawn per TSE

std::string count(size_t n, const std::string& word)
{
    return formatNumber(static_cast<double>(n)) + " " + word;
}

std::string shortSerial(std::string_view serial)
{
    return serial.size() > 16 ? std::string(serial.substr(0, 16)) + "\xE2\x80\xA6" : std::string(serial);
}

// What the charts and the TSE table need of the logs of one TSE.
struct TseLogs {
    std::string_view serial;
    std::string_view algorithm;
    std::vector<size_t> rows;                  // indices into the report's logs
    std::vector<report::Point> points;         // (log time, counter)
    std::vector<uint64_t> updateTimeCounters;  // logs that set the clock, which may go back then
    std::optional<int64_t> firstTime, lastTime;
    std::optional<uint64_t> lowestCounter, highestCounter;
    report::MarkedPoints gaps{"counter gap", report::Marker::Triangle, {}, {}};
    report::MarkedPoints regressions{"time set back", report::Marker::Cross, {}, {}};
    report::MarkedPoints clockSet{"clock set (updateTime)", report::Marker::Diamond, {}, {}};
    size_t gapCount = 0, missing = 0, regressionCount = 0;
};

// As the audit judges it: a TSE may set its clock back when it logs so.
bool isUpdateTime(const tse::LogRecord& log)
{
    return log.type == tse::LogType::System && tse::equalsIgnoringCase(log.operation, "updateTime");
}

void addLog(TseLogs& group, const tse::LogRecord& log, size_t row)
{
    group.rows.push_back(row);
    if (log.seconds) {
        group.firstTime = std::min(group.firstTime.value_or(*log.seconds), *log.seconds);
        group.lastTime = std::max(group.lastTime.value_or(*log.seconds), *log.seconds);
    }
    if (!log.counter) return;
    group.lowestCounter = std::min(group.lowestCounter.value_or(*log.counter), *log.counter);
    group.highestCounter = std::max(group.highestCounter.value_or(*log.counter), *log.counter);
    if (log.seconds && !group.serial.empty()) {
        group.points.push_back({static_cast<double>(*log.seconds), static_cast<double>(*log.counter)});
        if (isUpdateTime(log)) group.updateTimeCounters.push_back(*log.counter);
    }
}

std::string missingLabel(uint64_t from, uint64_t to)
{
    return from == to ? "missing " + formatNumber(static_cast<double>(from))
                      : "missing " + formatNumber(static_cast<double>(from)) + "\xE2\x80\x93" +
                            formatNumber(static_cast<double>(to));
}

// Gaps and clocks set back show in counter order; the line is drawn in
// time order.
void markGapsAndSteps(TseLogs& group)
{
    std::sort(group.updateTimeCounters.begin(), group.updateTimeCounters.end());
    const auto setsClock = [&](double counter) {
        return std::binary_search(group.updateTimeCounters.begin(), group.updateTimeCounters.end(),
                                  static_cast<uint64_t>(counter));
    };
    std::sort(group.points.begin(), group.points.end(),
              [](const report::Point& a, const report::Point& b) { return a.y < b.y || (a.y == b.y && a.x < b.x); });
    for (size_t i = 1; i < group.points.size(); ++i) {
        const report::Point& before = group.points[i - 1];
        const report::Point& now = group.points[i];
        if (now.y > before.y + 1) {
            ++group.gapCount;
            const auto from = static_cast<uint64_t>(before.y) + 1, to = static_cast<uint64_t>(now.y) - 1;
            group.missing += to - from + 1;
            if (group.gaps.points.size() < MAX_MARKS) {
                group.gaps.points.push_back(now);
                group.gaps.labels.push_back(missingLabel(from, to));
            }
        }
        if (now.x < before.x && (setsClock(now.y) || setsClock(before.y))) {
            if (group.clockSet.points.size() < MAX_MARKS) {
                group.clockSet.points.push_back(now);
                group.clockSet.labels.push_back("set " + formatNumber(before.x - now.x) + " s back");
            }
        } else if (now.x < before.x) {
            ++group.regressionCount;
            if (group.regressions.points.size() < MAX_MARKS) {
                group.regressions.points.push_back(now);
                group.regressions.labels.push_back(formatNumber(before.x - now.x) + " s back");
            }
        }
    }
    std::sort(group.points.begin(), group.points.end(),
              [](const report::Point& a, const report::Point& b) { return a.x < b.x || (a.x == b.x && a.y < b.y); });
}

std::vector<TseLogs> groupByTse(const tse::AuditReport& report)
{
    std::vector<TseLogs> groups;
    std::unordered_map<std::string_view, size_t> index;
    for (size_t i = 0; i < report.logs.size(); ++i) {
        const tse::LogRecord& log = report.logs[i];
        auto [at, added] = index.emplace(log.serialNumber, groups.size());
        if (added) {
            groups.emplace_back();
            groups.back().serial = log.serialNumber;
            groups.back().algorithm = log.algorithm;
        }
        addLog(groups[at->second], log, i);
    }
    for (TseLogs& group : groups) markGapsAndSteps(group);
    return groups;
}

std::vector<report::FindingGroup> findingGroups(const tse::AuditReport& report)
{
    std::vector<report::FindingEntry> entries;
    for (const tse::Finding& f : report.findings) {
        entries.push_back({f.severity == tse::Severity::Error, tse::findingName(f.code), f.message, &f.files});
    }
    return report::groupFindings(entries);
}

std::string timeRange(const std::optional<int64_t>& from, const std::optional<int64_t>& to)
{
    if (!from || !to) return "-";
    return tse::isoSeconds(*from) + " to " + tse::isoSeconds(*to);
}

std::string counterRange(const TseLogs& group)
{
    if (!group.lowestCounter) return "-";
    return formatNumber(static_cast<double>(*group.lowestCounter)) + " to " +
           formatNumber(static_cast<double>(*group.highestCounter));
}

// 64 hex digits in groups of 16, to be read and to wrap in a narrow column.
std::string spaced(std::string_view serial)
{
    std::string out;
    for (size_t i = 0; i < serial.size(); i += 16) out += (i ? " " : "") + std::string(serial.substr(i, 16));
    return out;
}

const tse::CertificateRecord* certificateOf(const tse::AuditReport& report, std::string_view serial)
{
    for (const tse::CertificateRecord& c : report.certificates) {
        if (!serial.empty() && tse::equalsIgnoringCase(c.serialNumber, serial)) return &c;
    }
    return nullptr;
}

std::string tseName(const TseLogs& group)
{
    return group.serial.empty() ? "logs without a readable serial number" : "TSE " + shortSerial(group.serial);
}

void counterCharts(report::ReportPage& page, const std::vector<TseLogs>& groups)
{
    size_t n = 0;
    for (const TseLogs& group : groups) {
        if (group.points.empty()) continue;
        report::XYChart chart;
        chart.title = "Signature counter over log time, " + tseName(group);
        chart.xLabel = "log time (UTC)";
        chart.yLabel = "signature counter";
        chart.series.push_back(report::Series{"logs", group.points});
        if (!group.gaps.points.empty()) chart.marks.push_back(group.gaps);
        if (!group.regressions.points.empty()) chart.marks.push_back(group.regressions);
        if (!group.clockSet.points.empty()) chart.marks.push_back(group.clockSet);
        chart.description =
            tseName(group) + ": " + count(group.points.size(), "logs") + " with counters " + counterRange(group) +
            " from " + timeRange(group.firstTime, group.lastTime) + ". " +
            (group.gapCount
                 ? count(group.gapCount, "gaps") + " in the counters, " + count(group.missing, "missing") + "; "
                 : std::string("No gap in the counters; ")) +
            (group.regressionCount ? count(group.regressionCount, "times") + " a log is older than the one before it."
                                   : std::string("the log time never goes back."));
        // The regressions go into the text as well, the first ones named.
        for (size_t i = 0; i < group.regressions.points.size() && i < 5; ++i) {
            chart.description +=
                " Counter " + formatNumber(group.regressions.points[i].y) + ": " + group.regressions.labels[i] + ".";
        }
        for (size_t i = 0; i < group.gaps.points.size() && i < 5; ++i) {
            chart.description +=
                " Before counter " + formatNumber(group.gaps.points[i].y) + ": " + group.gaps.labels[i] + ".";
        }
        page.figure(report::lineChart(chart, "counter" + std::to_string(n++)), chart.description);
    }
}

void logsPerDayChart(report::ReportPage& page, const tse::AuditReport& report)
{
    const std::optional<report::DayBuckets> span =
        report::DayBuckets::spanning(report.logs, [](const tse::LogRecord& log) { return log.seconds; });
    if (!span) return;
    const report::DayBuckets& buckets = *span;
    const size_t bars = buckets.size();
    const std::string unit = buckets.unit();
    report::BarChart chart;
    chart.title = "Logs per " + unit + " by type";
    chart.yLabel = "logs";
    chart.layers = {{"transaction", std::vector<double>(bars)},
                    {"system", std::vector<double>(bars)},
                    {"audit", std::vector<double>(bars)},
                    {"type unknown", std::vector<double>(bars)}};
    size_t withoutTime = 0;
    for (const tse::LogRecord& log : report.logs) {
        if (!log.seconds) {
            ++withoutTime;
            continue;
        }
        const size_t bar = buckets.of(*log.seconds);
        const size_t layer = !log.type                               ? 3
                             : log.type == tse::LogType::Transaction ? 0
                             : log.type == tse::LogType::System      ? 1
                                                                     : 2;
        chart.layers[layer].values[bar] += 1;
    }
    if (std::all_of(chart.layers[3].values.begin(), chart.layers[3].values.end(), [](double v) { return v == 0; })) {
        chart.layers.pop_back();
    }
    for (size_t b = 0; b < bars; ++b) chart.categories.push_back(buckets.label(b));
    // The text alternative names the busiest bars and the totals.
    std::vector<size_t> order(bars);
    for (size_t b = 0; b < bars; ++b) order[b] = b;
    const auto total = [&](size_t b) {
        double sum = 0;
        for (const report::BarLayer& layer : chart.layers) sum += layer.values[b];
        return sum;
    };
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return total(a) > total(b); });
    chart.description = count(report.logs.size() - withoutTime, "logs with a time") + " over " +
                        count(bars, unit == "day"    ? "days"
                                    : unit == "week" ? "weeks"
                                                     : "periods of 30 days") +
                        " from " + chart.categories.front() + " to " + chart.categories.back() + ": " +
                        count(report.summary.transaction, "transaction") + ", " +
                        count(report.summary.system, "system") + ", " + count(report.summary.audit, "audit logs") +
                        ". Busiest:";
    for (size_t i = 0; i < order.size() && i < 3; ++i) {
        chart.description += (i ? "; " : " ") + chart.categories[order[i]] + " with " + formatNumber(total(order[i]));
    }
    chart.description += ".";
    if (withoutTime) chart.description += " " + count(withoutTime, "logs") + " have no readable time.";
    page.figure(report::barChart(chart, "perday"), chart.description);
}

// The first and the last log time over every TSE.
std::pair<std::optional<int64_t>, std::optional<int64_t>> logSpan(const std::vector<TseLogs>& groups)
{
    std::optional<int64_t> first, last;
    for (const TseLogs& group : groups) {
        if (!group.firstTime) continue;
        first = std::min(first.value_or(*group.firstTime), *group.firstTime);
        last = std::max(last.value_or(*group.lastTime), *group.lastTime);
    }
    return {first, last};
}

void validityChart(report::ReportPage& page, const tse::AuditReport& report, const std::vector<TseLogs>& groups)
{
    report::IntervalChart chart;
    chart.title = "Certificate validity and the time of the logs";
    chart.bandName = "time of all logs";
    const auto [first, last] = logSpan(groups);
    if (first) chart.band = std::make_pair(*first, *last);
    std::string text;
    for (const tse::CertificateRecord& c : report.certificates) {
        const bool hasLogs = std::any_of(groups.begin(), groups.end(), [&](const TseLogs& g) {
            return !g.serial.empty() && tse::equalsIgnoringCase(c.serialNumber, g.serial);
        });
        std::string label = (hasLogs ? "TSE " : "cert ") + shortSerial(c.serialNumber);
        chart.rows.push_back(report::Interval{label, c.notBefore, c.notAfter, hasLogs ? 0 : 1});
        text += " Certificate " + c.file + " (" + label + ") valid " +
                (c.notBefore ? tse::isoSeconds(*c.notBefore) : std::string("from an unknown time")) + " to " +
                (c.notAfter ? tse::isoSeconds(*c.notAfter) : std::string("an unknown time"));
        if (first && ((c.notBefore && *first < *c.notBefore) || (c.notAfter && *last > *c.notAfter))) {
            text += ", NOT covering every log";
        }
        text += ".";
    }
    for (const TseLogs& group : groups) {
        if (!group.firstTime) continue;
        chart.rows.push_back(report::Interval{"logs of " + tseName(group), group.firstTime, group.lastTime, 2});
    }
    if (chart.rows.empty()) return;
    chart.description =
        (first ? "The logs span " + timeRange(first, last) + "." : std::string("No log has a time.")) + text;
    page.figure(report::intervalChart(chart, "validity"), chart.description);
}

// The CSV's time, without the ".000" that a time of whole seconds gets
// there: four characters a row are 400 KB of a hundred thousand logs.
std::string iso(const tse::LogRecord& log)
{
    const auto time = log.logTime();
    if (!time) return {};
    return time->fraction.empty() ? tse::isoSeconds(time->seconds) : time->iso();
}

std::string number(const std::optional<uint64_t>& value)
{
    return value ? std::to_string(*value) : std::string();
}

// The CSV's columns; serial number and algorithm, the same in every row of
// one TSE, stand in the table's caption, which keeps a hundred thousand
// rows well below 20 MB.
void logTables(report::ReportPage& page, const tse::AuditReport& report, const std::vector<TseLogs>& groups)
{
    for (const TseLogs& group : groups) {
        report::Table table;
        table.caption = group.serial.empty() ? "Logs without a readable serial number"
                                             : "Logs of the TSE with serialNumber " + std::string(group.serial) +
                                                   ", signatureAlgorithm " + std::string(group.algorithm);
        table.columns = {
            "file",     "type",        "verdict", "signatureCounter", "logTime", "transactionNumber", "operationType",
            "clientId", "processType", "reason"};
        table.rows = group.rows.size();
        table.cells = [&](size_t row, std::vector<std::string>& cells) {
            const tse::LogRecord& log = report.logs[group.rows[row]];
            cells.emplace_back(log.file);
            cells.emplace_back(log.type ? tse::logTypeName(*log.type) : std::string_view());
            cells.emplace_back(tse::logVerdictName(log.verdict));
            cells.push_back(number(log.counter));
            cells.push_back(iso(log));
            cells.push_back(number(log.transactionNumber));
            cells.emplace_back(log.operation);
            cells.emplace_back(log.clientId);
            cells.emplace_back(log.processType);
            cells.emplace_back(log.reason);
        };
        page.table(table);
    }
}

report::PageHead auditHead(const tse::AuditReport& report, const std::vector<TseLogs>& groups,
                           const HtmlContext& context)
{
    const tse::AuditSummary& s = report.summary;
    const report::Verdict verdict = s.errors     ? report::Verdict::Failed
                                    : s.warnings ? report::Verdict::PassedWithWarnings
                                                 : report::Verdict::Passed;
    report::PageHead head = pageHead("TSE export audit", verdict,
                                     count(s.logs, "logs") + ", " + count(s.errors, "errors") + ", " +
                                         count(s.warnings, "warnings") + (context.strict ? " (strict)" : ""),
                                     context);
    const auto [first, last] = logSpan(groups);
    head.facts = {
        {"Logs", count(s.logs, "") + "(" + count(s.valid, "valid") + ", " + count(s.invalid, "invalid") + ", " +
                     count(s.noCertificate, "without certificate") + ", " + count(s.unreadable, "unreadable") + ")"},
        {"By type",
         count(s.transaction, "transaction") + ", " + count(s.system, "system") + ", " + count(s.audit, "audit")},
        {"Log time", timeRange(first, last)}};
    for (const TseLogs& group : groups) {
        if (group.lowestCounter) head.facts.push_back({"Counters of " + tseName(group), counterRange(group)});
    }
    if (s.duplicatesSkipped) head.facts.push_back({"Identical copies", count(s.duplicatesSkipped, "counted once")});
    head.facts.push_back(
        {"info.csv", report.info ? "read" : (report.infoProblem.empty() ? "missing" : report.infoProblem)});
    return head;
}

void tseTable(report::ReportPage& page, const tse::AuditReport& report, const std::vector<TseLogs>& groups)
{
    std::vector<std::vector<std::string>> tses{
        {"TSE serial number", "Curve", "Certificate subject", "Certificate valid", "Chain", "Logs", "Counters"}};
    for (const TseLogs& group : groups) {
        if (group.serial.empty()) continue;
        const tse::CertificateRecord* c = certificateOf(report, group.serial);
        tses.push_back({spaced(group.serial), c ? c->curve : "-", c ? c->subject : "no certificate",
                        c ? timeRange(c->notBefore, c->notAfter) : "-",
                        c ? std::string(tse::chainStatusName(c->chain.status)) : "-",
                        formatNumber(static_cast<double>(group.rows.size())), counterRange(group)});
    }
    page.smallTable(tses, "TSEs");
}

void certificateTables(report::ReportPage& page, const tse::AuditReport& report)
{
    std::vector<std::vector<std::string>> certificates{
        {"File", "Key hash", "Subject", "Issuer", "Valid from", "Valid to", "Curve", "Chain"}};
    for (const tse::CertificateRecord& c : report.certificates) {
        certificates.push_back({c.file + (c.keyProblem.empty() ? "" : " (" + c.keyProblem + ")"), c.serialNumber,
                                c.subject, c.issuer, c.notBefore ? tse::isoSeconds(*c.notBefore) : "-",
                                c.notAfter ? tse::isoSeconds(*c.notAfter) : "-", c.curve,
                                std::string(tse::chainStatusName(c.chain.status)) +
                                    (c.chain.reason.empty() ? "" : ": " + c.chain.reason)});
    }
    page.smallTable(certificates, "Certificates");
    if (!report.info) return;
    std::vector<std::vector<std::string>> info{{"Field", "Value"}};
    for (const tse::InfoRecord& record : report.info->records) {
        for (const auto& [key, value] : record) info.push_back({key, value});
    }
    page.smallTable(info, "info.csv");
}

}  // namespace

void writeAuditHtml(std::ostream& out, const tse::AuditReport& report, const HtmlContext& context)
{
    const std::vector<TseLogs> groups = groupByTse(report);
    report::ReportPage page(out, auditHead(report, groups, context));
    tseTable(page, report, groups);

    page.beginSection("Findings", "findings");
    page.findings(findingGroups(report));
    page.endSection();

    page.beginSection("Charts", "charts");
    counterCharts(page, groups);
    logsPerDayChart(page, report);
    validityChart(page, report, groups);
    page.endSection();

    page.beginSection("Certificates", "certificates");
    certificateTables(page, report);
    page.endSection();

    page.beginSection("Logs", "logs");
    logTables(page, report, groups);
    page.endSection();
    page.finish();
}

}  // namespace tsecheck
