#include "report_page.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "file_reader.h"
#include "html_writer.h"
#include "svg_chart.h"
#include "text.h"

namespace report {
namespace {

constexpr size_t FLUSH_AT = 1u << 20;

// Inline, as the page must open without anything beside it. Print: A4,
// a page per section, rows and charts never cut, page numbers where the
// browser supports margin boxes.
constexpr std::string_view STYLE = R"(
:root{--ok:#1a7f37;--warn:#8a5a00;--bad:#c1121f;--line:#c9d1d9}
body{font:14px/1.45 system-ui,-apple-system,"Segoe UI",sans-serif;color:#1f2328;max-width:62rem;margin:1.5rem auto;padding:0 1rem}
h1{font-size:1.5rem;margin:0 0 .6rem}h2{font-size:1.25rem;border-bottom:1px solid var(--line);padding-bottom:.2rem;margin-top:2rem}
h3{font-size:1.05rem;margin:1rem 0 .3rem}
.verdict{display:block;padding:.7rem 1rem;border:3px solid;border-radius:6px;font-size:1.7rem;font-weight:700;margin:.5rem 0 1rem}
.verdict small{display:block;font-size:1rem;font-weight:400;color:#1f2328}
.passed{color:var(--ok);border-color:var(--ok);background:#e6f6ea}
.passed-with-warnings{color:var(--warn);border-color:var(--warn);background:#fff5d6}
.failed{color:var(--bad);border-color:var(--bad);background:#fde8ea}
table{border-collapse:collapse;margin:.4rem 0 1rem;font-size:13px}
th,td{border:1px solid var(--line);padding:2px 6px;text-align:left;vertical-align:top;overflow-wrap:anywhere}
th,td.nb{white-space:nowrap}th{background:#f3f5f7}table.logs th{white-space:normal}caption{text-align:left;font-weight:600;padding:.2rem 0}
table.facts th{width:13rem}.hash{font-family:ui-monospace,monospace;font-size:12px;overflow-wrap:anywhere}
table.logs{font-size:11.5px}table.logs tr.bad{background:#fde8ea}
.sev{display:inline-block;padding:0 .4rem;border-radius:4px;font-size:.8rem;font-weight:700;text-transform:uppercase;border:1px solid}
.sev.error{color:var(--bad)}.sev.warning{color:var(--warn)}
.finding{border-left:4px solid var(--line);padding:.1rem .8rem;margin:.6rem 0}
.finding.error{border-left-color:var(--bad)}.finding.warning{border-left-color:var(--warn)}
.finding ul{margin:.2rem 0;padding-left:1.2rem}.items{font-size:12px;color:#444;overflow-wrap:anywhere}
figure{margin:1rem 0}figcaption{font-size:13px;color:#333;max-width:48rem}
svg.chart{width:100%;max-width:52rem;height:auto;font:11px system-ui,sans-serif;background:#fff}
svg .grid{stroke:#e1e4e8}svg .frame{stroke:#333;fill:none}svg .chart-title{font-weight:700;font-size:13px}
svg .axis-name{font-size:12px}svg .mark-label{font-size:10px}
details summary{cursor:pointer;font-weight:600}.print-only{display:none}
footer{margin-top:2rem;font-size:12px;color:#555}
@media screen and (max-width:40rem){body{margin:.8rem auto;padding:0 .6rem;overflow-wrap:anywhere}.verdict{font-size:1.35rem}
table{display:block;max-width:100%;overflow-x:auto}th{white-space:normal}table.facts th{width:auto}
th,td{overflow-wrap:break-word}td.hash{overflow-wrap:anywhere}table.logs td,table.logs th{overflow-wrap:normal;white-space:nowrap}
svg .axis text{font-size:17px}svg text.alt{display:none}}
@page{size:A4;margin:14mm 12mm 16mm;@bottom-right{content:"Page " counter(page) " of " counter(pages);font-size:9pt}}
@media print{body{max-width:none;margin:0;padding:0;font-size:11pt}section{break-before:page}
tr,figure,.finding,.verdict,table.facts{break-inside:avoid}thead{display:table-header-group}
h2,h3{break-after:avoid}details.closed>:not(summary){display:none}.print-only{display:block}svg.chart{width:100%}}
)";

std::string className(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Passed: return "passed";
    case Verdict::PassedWithWarnings: return "passed-with-warnings";
    case Verdict::Failed: return "failed";
    }
    return "failed";
}

std::string byteCount(uint64_t bytes)
{
    return tse::groupedDigits(static_cast<int64_t>(bytes)) + (bytes == 1 ? " byte" : " bytes");
}

// Short values ("secp384r1", "untrusted-root") stay on one line; long
// ones (key hashes, subjects) may wrap anywhere, so that no table grows
// wider than the page.
const char* cellTag(const std::string& value)
{
    return value.size() <= 24 && value.find(' ') == std::string::npos ? "<td class=\"nb\">" : "<td>";
}

}  // namespace

std::string_view verdictText(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Passed: return "PASSED";
    case Verdict::PassedWithWarnings: return "PASSED WITH WARNINGS";
    case Verdict::Failed: return "FAILED";
    }
    return "FAILED";
}

std::vector<InputFile> describeInputs(const std::vector<std::string>& paths)
{
    namespace fs = std::filesystem;
    std::vector<InputFile> inputs;
    for (const std::string& path : paths) {
        InputFile input;
        input.name = path;
        std::error_code error;
        if (fs::is_directory(path, error)) {
            uint64_t files = 0, bytes = 0;
            for (const auto& entry : fs::recursive_directory_iterator(path, error)) {
                if (!entry.is_regular_file(error)) continue;
                ++files;
                bytes += entry.file_size(error);
            }
            input.size = bytes;
            input.note = "directory of " + std::to_string(files) + (files == 1 ? " file" : " files");
        } else {
            const uintmax_t size = fs::file_size(path, error);
            if (!error) input.size = size;
            // Lowercase, as sha256sum prints it, so that a reader can compare.
            const tse::Result<tse::Bytes> digest = tse::sha256OfFile(path);
            if (digest) input.sha256 = tse::asciiLower(tse::toHex(*digest));
            else input.note = digest.error().message;
        }
        inputs.push_back(std::move(input));
    }
    return inputs;
}

std::vector<FindingGroup> groupFindings(const std::vector<FindingEntry>& findings)
{
    std::map<std::pair<bool, std::string_view>, FindingGroup> byCode;  // false sorts first: errors
    std::map<std::pair<bool, std::string_view>, std::set<std::string_view>> seen;
    for (const FindingEntry& finding : findings) {
        const std::pair<bool, std::string_view> key{!finding.error, finding.code};
        FindingGroup& group = byCode[key];
        group.severity = finding.error ? "error" : "warning";
        group.code = std::string(finding.code);
        group.messages.emplace_back(finding.message);
        if (!finding.items) continue;
        for (const std::string& item : *finding.items) {
            if (seen[key].insert(item).second) group.items.push_back(item);
        }
    }
    std::vector<FindingGroup> groups;
    for (auto& entry : byCode) groups.push_back(std::move(entry.second));
    return groups;
}

namespace {
constexpr int64_t DAY = 86400;
constexpr int64_t MAX_BARS = 120;

int64_t dayOf(int64_t seconds)
{
    return seconds >= 0 ? seconds / DAY : (seconds - DAY + 1) / DAY;
}
}  // namespace

DayBuckets::DayBuckets(int64_t first, int64_t last) : firstDay_(dayOf(first))
{
    const int64_t days = std::max<int64_t>(dayOf(last) - firstDay_ + 1, 1);
    if (days > MAX_BARS) width_ = 7;
    if (days > MAX_BARS * 7) width_ = 30;
    count_ = static_cast<size_t>((days + width_ - 1) / width_);
}

size_t DayBuckets::of(int64_t seconds) const
{
    const int64_t bucket = (dayOf(seconds) - firstDay_) / width_;
    return static_cast<size_t>(std::clamp<int64_t>(bucket, 0, static_cast<int64_t>(count_) - 1));
}

std::string DayBuckets::label(size_t bucket) const
{
    return formatTime((firstDay_ + static_cast<int64_t>(bucket) * width_) * DAY);
}

std::string DayBuckets::unit() const
{
    return width_ == 1 ? "day" : width_ == 7 ? "week" : "30 days";
}

ReportPage::ReportPage(std::ostream& out, const PageHead& head) : out_(out)
{
    Html html(buffer_);
    html.trusted("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                 "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                 "style-src 'unsafe-inline'; img-src data:\">"
                 "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">");
    html.element("title", head.title + ": " + std::string(verdictText(head.verdict)));
    html.open("style").trusted(STYLE).close("style").trusted("</head>\n<body>\n<header>");
    html.element("h1", head.title);
    html.open("p", {{"class", "verdict " + className(head.verdict)}, {"id", "verdict"}});
    html.text(verdictText(head.verdict)).open("small").text(head.verdictLine).close("small").close("p");
    std::vector<Fact> facts{{"Report made", head.madeAt}, {"Made by", head.tool}};
    facts.insert(facts.end(), head.facts.begin(), head.facts.end());
    ReportPage::facts(facts);
    html.element("h3", "What was checked");
    html.open("table", {{"class", "inputs"}}).trusted("<thead><tr><th>File<th>Size<th>SHA-256</thead><tbody>");
    for (const InputFile& input : head.inputs) {
        html.trusted("<tr><td>").text(input.name).trusted("<td>").text(input.size ? byteCount(*input.size) : "-");
        html.trusted("<td class=\"hash\">").text(input.sha256.empty() ? input.note : input.sha256);
        if (!input.sha256.empty() && !input.note.empty()) html.text(" (" + input.note + ")");
        html.trusted("</tr>");
    }
    html.trusted("</tbody></table></header>\n");
    flush();
}

ReportPage::~ReportPage()
{
    if (!finished_) finish();
}

void ReportPage::flush()
{
    out_ << buffer_;
    buffer_.clear();
}

void ReportPage::beginSection(const std::string& title, const std::string& id)
{
    Html(buffer_).open("section", {{"id", id}}).element("h2", title);
}

void ReportPage::endSection()
{
    buffer_ += "</section>\n";
    flush();
}

void ReportPage::paragraph(const std::string& text)
{
    Html(buffer_).element("p", text);
}

void ReportPage::facts(const std::vector<Fact>& facts)
{
    Html html(buffer_);
    html.open("table", {{"class", "facts"}});
    for (const Fact& fact : facts) {
        html.trusted("<tr><th>").text(fact.name).trusted(cellTag(fact.value)).text(fact.value).trusted("</tr>");
    }
    html.close("table");
}

void ReportPage::smallTable(const std::vector<std::vector<std::string>>& rows, const std::string& caption)
{
    Html html(buffer_);
    html.open("table").element("caption", caption);
    for (size_t r = 0; r < rows.size(); ++r) {
        html.trusted(r == 0 ? "<thead><tr>" : "<tr>");
        for (const std::string& cell : rows[r]) html.trusted(r == 0 ? "<th>" : cellTag(cell)).text(cell);
        html.trusted(r == 0 ? "</tr></thead><tbody>" : "</tr>");
    }
    html.trusted(rows.empty() ? "</table>" : "</tbody></table>");
}

void ReportPage::findings(const std::vector<FindingGroup>& groups)
{
    Html html(buffer_);
    if (groups.empty()) html.element("p", "No findings.", {{"class", "none"}});
    for (const FindingGroup& group : groups) {
        html.open("div", {{"class", "finding " + group.severity}, {"id", "finding-" + group.code}});
        html.open("h3").element("span", group.severity, {{"class", "sev " + group.severity}}).text(" ");
        html.element("code", group.code).text(" (" + std::to_string(group.messages.size()) + ")").close("h3");
        html.open("ul");
        for (size_t i = 0; i < group.messages.size() && i < ITEMS_SHOWN; ++i) html.element("li", group.messages[i]);
        if (group.messages.size() > ITEMS_SHOWN) {
            html.element("li", "... and " + std::to_string(group.messages.size() - ITEMS_SHOWN) + " more");
        }
        html.close("ul");
        if (!group.items.empty()) {
            html.open("p", {{"class", "items"}}).text("Concerns " + std::to_string(group.items.size()) + ": ");
            for (size_t i = 0; i < group.items.size() && i < ITEMS_SHOWN; ++i) {
                html.text(i ? ", " : "").element("span", group.items[i], {{"class", "item"}});
            }
            if (group.items.size() > ITEMS_SHOWN) {
                html.text(" and " + std::to_string(group.items.size() - ITEMS_SHOWN) + " more");
            }
            html.close("p");
        }
        html.close("div");
    }
    flush();
}

void ReportPage::figure(const std::string& svg, const std::string& caption)
{
    Html(buffer_).open("figure").trusted(svg).element("figcaption", caption).close("figure");
}

void ReportPage::table(const Table& table)
{
    const bool closed = table.rows > OPEN_TABLE_ROWS;
    Html html(buffer_);
    html.trusted(closed ? "<details class=\"closed\">" : "<details open>").open("summary");
    html.text(table.caption + " (" + std::to_string(table.rows) + (table.rows == 1 ? " row)" : " rows)"))
        .close("summary");
    html.open("table", {{"class", "logs"}}).trusted("<thead><tr>");
    for (const std::string& column : table.columns) html.trusted("<th>").text(column);
    html.trusted("</tr></thead><tbody>\n");
    std::vector<std::string> cells;
    for (size_t row = 0; row < table.rows; ++row) {
        cells.clear();
        table.cells(row, cells);
        // End tags of rows and cells are optional, and so are empty cells at
        // a row's end; leaving them out keeps a hundred thousand rows a
        // fifth smaller.
        while (!cells.empty() && cells.back().empty()) cells.pop_back();
        buffer_ += row % 64 ? "<tr>" : "\n<tr>";
        for (const std::string& cell : cells) {
            buffer_ += "<td>";
            appendEscaped(buffer_, cell);
        }
        if (buffer_.size() > FLUSH_AT) flush();
    }
    html.trusted("</tbody></table></details>");
    if (closed) {
        html.element("p",
                     "The " + std::to_string(table.rows) +
                         " rows are not printed; the HTML file holds them (open the list) and so does --csv.",
                     {{"class", "print-only"}});
    }
    flush();
}

void ReportPage::finish()
{
    if (finished_) return;
    finished_ = true;
    buffer_ += "</body></html>\n";
    flush();
    out_.flush();
}

}  // namespace report
