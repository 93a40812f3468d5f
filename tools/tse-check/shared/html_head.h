#ifndef TSE_CHECK_SHARED_HTML_HEAD_H
#define TSE_CHECK_SHARED_HTML_HEAD_H

// The HTML reports of tse-check. The layout, escaping and charts live in
// report/; each function here only says what one subcommand's report holds.

#include <ostream>
#include <string>
#include <vector>

#include "audit_report.h"
#include "dsfinvk_report.h"
#include "report_page.h"

namespace tsecheck {

struct HtmlContext {
    std::vector<std::string> inputs;  // the paths as the user gave them
    bool strict = false;
};

void writeAuditHtml(std::ostream& out, const tse::AuditReport& report, const HtmlContext& context);
void writeBookkeepingHtml(std::ostream& out, const tse::BookkeepingReport& bookkeeping, const HtmlContext& context);

// A further report, such as the bookkeeping check's, is one more function
// like writeAuditHtml in its own tools/tse_check_<name>_html.cpp:
//   report::ReportPage page(out, pageHead(title, verdict, countsLine, context));
// with its own facts in the head; report::groupFindings over its findings
// (code, message, the labels of the transactions concerned) for
// page.findings; report::DayBuckets over the time range and a
// report::barChart with stacked = false whose layers are the transactions
// per day in the bookkeeping and in the TSE export, and beside them those
// unbooked and unknown (each layer gets its own fill pattern and legend
// entry); page.table with the CSV's columns for every transaction. The
// subcommand passes --html to it through the writeTo it already has.

// What every report's head says beside its own facts: the tool, the time.
report::PageHead pageHead(const std::string& title, report::Verdict verdict, const std::string& verdictLine,
                          const HtmlContext& context);

}  // namespace tsecheck

#endif
