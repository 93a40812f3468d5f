#ifndef TSE_REPORT_REPORT_PAGE_H
#define TSE_REPORT_REPORT_PAGE_H

// The frame every HTML report shares: one self-contained page with the
// verdict, what was checked, the findings, charts and tables, made to be
// read on screen and printed on A4. What a report says comes from the
// command that judged; this only lays it out.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace report {

enum class Verdict { Passed, PassedWithWarnings, Failed };
std::string_view verdictText(Verdict verdict);  // "PASSED", "PASSED WITH WARNINGS", "FAILED"

// A file that was checked, as the user named it.
struct InputFile {
    std::string name;
    std::optional<uint64_t> size;
    std::string sha256;  // hex; empty for a directory
    std::string note;    // "directory of 17 files", "cannot be read: ..."
};
// Sizes and SHA-256 of the paths as given; a directory is listed with the
// number and total size of its files.
std::vector<InputFile> describeInputs(const std::vector<std::string>& paths);

struct Fact {
    std::string name, value;
};

struct PageHead {
    std::string title;  // "TSE export audit"
    Verdict verdict = Verdict::Passed;
    std::string verdictLine;  // "17 logs, 1 error, 2 warnings", after the verdict
    std::vector<InputFile> inputs;
    std::vector<Fact> facts;  // time and counter range, ...
    std::string tool;         // "tse-check 0.3.0"
    std::string madeAt;       // when the report was made, UTC
};

// Findings of one severity and code.
struct FindingGroup {
    std::string severity;  // "error", "warning"
    std::string code;
    std::vector<std::string> messages;
    std::vector<std::string> items;  // the logs or transactions concerned, each once
};

// One finding as a checker made it, before grouping.
struct FindingEntry {
    bool error = false;
    std::string_view code, message;
    const std::vector<std::string>* items = nullptr;  // the logs or transactions it concerns
};
// Errors first, then warnings, each by code; items once per group, in order.
std::vector<FindingGroup> groupFindings(const std::vector<FindingEntry>& findings);

// Days from the first to the last time, in bars of a day, a week or 30
// days, so that a chart never has more than about 120 bars.
class DayBuckets {
public:
    DayBuckets(int64_t first, int64_t last);
    size_t size() const { return count_; }
    size_t of(int64_t seconds) const;        // the bar of a time
    std::string label(size_t bucket) const;  // its first day, "2023-11-14"
    std::string unit() const;                // "day", "week", "30 days"

    // The buckets from the earliest to the latest time that seconds(item)
    // gives (an optional), or none when no item has a time.
    template <typename Items, typename Seconds>
    static std::optional<DayBuckets> spanning(const Items& items, Seconds seconds)
    {
        std::optional<int64_t> first, last;
        for (const auto& item : items) {
            const std::optional<int64_t> at = seconds(item);
            if (!at) continue;
            first = std::min(first.value_or(*at), *at);
            last = std::max(last.value_or(*at), *at);
        }
        if (!first) return std::nullopt;
        return DayBuckets(*first, *last);
    }

private:
    int64_t firstDay_ = 0, width_ = 1;
    size_t count_ = 0;
};

struct Table {
    std::string caption;
    std::vector<std::string> columns;
    size_t rows = 0;
    // Appends the cells of row `row`, one string each.
    std::function<void(size_t row, std::vector<std::string>& cells)> cells;
};

// Writes the page as it goes, so that a table of a hundred thousand rows
// never stands in memory as a whole.
class ReportPage {
public:
    static constexpr size_t ITEMS_SHOWN = 50;
    static constexpr size_t OPEN_TABLE_ROWS = 1000;

    ReportPage(std::ostream& out, const PageHead& head);
    ~ReportPage();
    ReportPage(const ReportPage&) = delete;
    ReportPage& operator=(const ReportPage&) = delete;

    void beginSection(const std::string& title, const std::string& id);
    void endSection();
    void paragraph(const std::string& text);
    // Key-value pairs, or rows of a small table (the first row the head).
    void facts(const std::vector<Fact>& facts);
    void smallTable(const std::vector<std::vector<std::string>>& rows, const std::string& caption);
    void findings(const std::vector<FindingGroup>& groups);
    // A chart made by svg_chart with its text alternative shown beneath.
    void figure(const std::string& svg, const std::string& caption);
    // Inside <details>, closed when it has more than OPEN_TABLE_ROWS rows.
    void table(const Table& table);
    void finish();

private:
    void flush();

    std::ostream& out_;
    std::string buffer_;
    bool finished_ = false;
};

}  // namespace report

#endif
