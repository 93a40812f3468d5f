#ifndef TSE_CHECK_HTML_H
#define TSE_CHECK_HTML_H

// The HTML reports of tse-check. The layout, escaping and charts live in
// report/; each function here only says what one subcommand's report holds.

#include <ostream>
#include <string>
#include <vector>

#include "audit_report.h"
#include "report_page.h"

namespace tsecheck {

struct HtmlContext {
    std::vector<std::string> inputs;  // the paths as the user gave them
    bool strict = false;
};

void writeAuditHtml(std::ostream& out, const tse::AuditReport& report, const HtmlContext& context);

// What every report's head says beside its own facts: the tool, the time.
report::PageHead pageHead(const std::string& title, report::Verdict verdict, const std::string& verdictLine,
                          const HtmlContext& context);

}  // namespace tsecheck

#endif
