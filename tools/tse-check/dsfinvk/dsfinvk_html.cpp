// The report of `tse-check dsfinvk --html`: the bookkeeping against its TSE
// export, for people. It says what the text summary says, shows the sales
// per day on both sides, and lists every transaction.
#include "dsfinvk/dsfinvk_html.h"
#include "dsfinvk/transaction_row.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "dsfinvk_report.h"
#include "log_time.h"
#include "svg_chart.h"

namespace tsecheck {
namespace {

std::string count(size_t n, const std::string& what)
{
    return report::formatNumber(static_cast<double>(n)) + " " + what;
}

std::vector<report::FindingGroup> findingGroups(const tse::BookkeepingReport& bookkeeping)
{
    // The entries point into the findings, so they are made first.
    std::vector<tse::BookkeepingFinding> findings(bookkeeping.findings.begin(), bookkeeping.findings.end());
    std::vector<report::FindingEntry> entries;
    for (const tse::BookkeepingFinding& f : findings) {
        entries.push_back({f.severity == tse::Severity::Error, f.code, f.message, &f.transactions});
    }
    return report::groupFindings(entries);
}

// Sales per day as the bookkeeping books them and as the TSE signed them,
// side by side, with the ones only one side knows as bars of their own.
void perDayChart(report::ReportPage& page, const tse::BookkeepingReport& bookkeeping)
{
    const std::optional<report::DayBuckets> span = report::DayBuckets::spanning(
        bookkeeping.transactions, [](const tse::BookedTransaction& t) { return t.logSeconds; });
    if (!span) return;
    const report::DayBuckets& buckets = *span;
    const size_t bars = buckets.size();
    report::BarChart chart;
    chart.title = "Transactions per " + buckets.unit();
    chart.yLabel = "transactions";
    chart.stacked = false;
    chart.layers = {{"in the bookkeeping", std::vector<double>(bars)},
                    {"signed in the TSE export", std::vector<double>(bars)},
                    {"unbooked (signed, not booked)", std::vector<double>(bars)},
                    {"unknown (booked, not signed)", std::vector<double>(bars)}};
    size_t booked = 0, signedByTse = 0, unbooked = 0, unknown = 0;
    for (const tse::BookedTransaction& t : bookkeeping.transactions) {
        if (!t.logSeconds) continue;
        const size_t bar = buckets.of(*t.logSeconds);
        const bool inTse = t.match && *t.match != tse::MatchState::Unknown && *t.match != tse::MatchState::Outside;
        if (t.row) chart.layers[0].values[bar] += 1, ++booked;
        if (inTse || (t.match && *t.match == tse::MatchState::Outside && !t.row)) {
            chart.layers[1].values[bar] += 1, ++signedByTse;
        }
        if (t.match == tse::MatchState::Unbooked) chart.layers[2].values[bar] += 1, ++unbooked;
        if (t.match == tse::MatchState::Unknown) chart.layers[3].values[bar] += 1, ++unknown;
    }
    if (!bookkeeping.tseGiven) chart.layers.resize(1);
    for (size_t b = 0; b < bars; ++b) chart.categories.push_back(buckets.label(b));
    chart.description = count(booked, "transactions in the bookkeeping") +
                        (bookkeeping.tseGiven ? ", " + count(signedByTse, "signed in the TSE export") + ", " +
                                                    count(unbooked, "unbooked") + ", " + count(unknown, "unknown")
                                              : std::string()) +
                        ", from " + chart.categories.front() + " to " + chart.categories.back() + ".";
    page.figure(report::barChart(chart, "bookkeeping-per-day"), chart.description);
}

// The closings' totals as booked and as their receipts add up, every total
// that differs marked, and the receipts that do not add up.
void booksSection(report::ReportPage& page, const tse::BookkeepingReport& bookkeeping)
{
    page.beginSection("The bookkeeping in itself", "books");
    std::vector<std::pair<size_t, size_t>> totals;  // (closing, total)
    for (size_t c = 0; c < bookkeeping.closings.size(); ++c) {
        for (size_t t = 0; t < bookkeeping.closings[c].totals.size(); ++t) totals.emplace_back(c, t);
    }
    report::Table table;
    table.caption = "Each closing's totals, as booked and as its receipts add up";
    table.columns = {"kasseId", "closing", "created", "receipts", "total", "booked", "computed", "agrees"};
    table.rows = totals.size();
    table.cells = [&](size_t i, std::vector<std::string>& cells) {
        const tse::ClosingCheck& c = bookkeeping.closings[totals[i].first];
        const tse::ClosingTotal& t = c.totals[totals[i].second];
        cells = {c.kasseId,  c.closing,
                 c.created,  std::to_string(c.receipts),
                 t.name,     t.booked.empty() ? "-" : t.booked,
                 t.computed, t.differs ? "DIFFERS" : "yes"};
    };
    if (totals.empty()) page.paragraph("No closing of cashpointclosing.csv could be added up.");
    else page.table(table);
    std::vector<std::vector<std::string>> receipts{{"Receipt that does not add up"}};
    size_t more = 0;
    for (const tse::BookkeepingFinding& f : bookkeeping.findings) {
        if (f.code != "receipt-sum-differs") continue;
        if (receipts.size() <= report::ReportPage::ITEMS_SHOWN) receipts.push_back({f.message});
        else ++more;
    }
    if (receipts.size() > 1)
        page.smallTable(receipts,
                        "Receipts that do not add up" + (more ? " (and " + count(more, "more") + ")" : std::string()));
    else page.paragraph("Every receipt adds up: its lines, VAT table, total and payments.");
    page.endSection();
}

// Every transaction, as the CSV report has them.
void transactionsSection(report::ReportPage& page, const tse::BookkeepingReport& bookkeeping)
{
    page.beginSection("Transactions", "transactions");
    report::Table table;
    table.caption = "Every transaction, as in the CSV report";
    table.columns = transactionColumns();
    table.rows = bookkeeping.transactions.size();
    table.cells = [&](size_t i, std::vector<std::string>& cells) {
        cells = transactionCells(bookkeeping.transactions[i]);
    };
    page.table(table);
    page.endSection();
}

}  // namespace

namespace {

// What the TSE export says of itself, and what it signed outside the
// bookkeeping's periods.
void tseFacts(const tse::BookkeepingReport& bookkeeping, std::vector<report::Fact>& facts)
{
    const tse::BookkeepingSummary& s = bookkeeping.summary;
    facts.push_back({"Against the TSE", count(s.matched, "matched") + ", " + count(s.differs, "differ") + ", " +
                                            count(s.unbooked, "unbooked") + ", " + count(s.unknown, "unknown") + ", " +
                                            count(s.outside, "outside")});
    std::string audit = count(s.tseLogs, "logs") + ", " + count(s.tseFinishLogs, "finished transactions");
    if (bookkeeping.tseAudit) {
        audit += "; its own audit: " + count(bookkeeping.tseAudit->invalid, "invalid logs") + ", " +
                 count(bookkeeping.tseAudit->errors, "errors") + ", " +
                 count(bookkeeping.tseAudit->warnings, "warnings");
    }
    facts.push_back({"TSE export", audit});
    std::string outside;
    for (const tse::UncoveredSales& u : bookkeeping.uncovered) {
        outside += (outside.empty() ? "" : "; ") +
                   (u.kasseId.empty() ? "client " + u.clientId : "register " + u.kasseId) + ": " +
                   count(u.sales, "sales") + " from " + tse::isoSeconds(u.first) + " to " + tse::isoSeconds(u.last);
    }
    facts.push_back({"Signed outside the covered periods", outside.empty() ? "none" : outside});
}

report::PageHead headOf(const tse::BookkeepingReport& bookkeeping, const HtmlContext& context)
{
    const tse::BookkeepingSummary& s = bookkeeping.summary;
    const report::Verdict verdict = s.errors     ? report::Verdict::Failed
                                    : s.warnings ? report::Verdict::PassedWithWarnings
                                                 : report::Verdict::Passed;
    report::PageHead head =
        pageHead("DSFinV-K bookkeeping against its TSE", verdict,
                 count(s.rows, "rows") + " in " + count(s.closings, "closings") + ", " + count(s.errors, "errors") +
                     ", " + count(s.warnings, "warnings") + (context.strict ? " (strict)" : ""),
                 context);
    head.facts = {{"Signatures", count(s.valid, "valid") + ", " + count(s.invalid, "invalid") + ", " +
                                     count(s.unsigned_, "unsigned") + ", " + count(s.unverifiable, "unverifiable")}};
    if (bookkeeping.tseGiven) tseFacts(bookkeeping, head.facts);
    if (!bookkeeping.periods.empty()) {
        head.facts.push_back({"Covered", count(bookkeeping.periods.size(), "closings") + " from " +
                                             tse::isoSeconds(tse::coveredFrom(bookkeeping)) + " to " +
                                             tse::isoSeconds(tse::coveredTo(bookkeeping))});
    }
    return head;
}

}  // namespace

void writeBookkeepingHtml(std::ostream& out, const tse::BookkeepingReport& bookkeeping, const HtmlContext& context)
{
    report::ReportPage page(out, headOf(bookkeeping, context));
    std::vector<std::vector<std::string>> tses{{"TSE serial number", "Curve", "Algorithm", "Time format", "Rows"}};
    for (const tse::BookedTse& t : bookkeeping.tses) {
        tses.push_back({t.serialNumber, t.curve.empty() ? "-" : t.curve, t.algorithm, t.timeFormat,
                        report::formatNumber(static_cast<double>(t.rows))});
    }
    page.smallTable(tses, "TSEs in tse.csv");
    page.beginSection("Findings", "findings");
    page.findings(findingGroups(bookkeeping));
    page.endSection();

    booksSection(page, bookkeeping);

    page.beginSection("Charts", "charts");
    perDayChart(page, bookkeeping);
    page.endSection();

    transactionsSection(page, bookkeeping);
    page.finish();
}

}  // namespace tsecheck
