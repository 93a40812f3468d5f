#ifndef TSE_CHECK_AUDIT_AUDIT_HTML_H
#define TSE_CHECK_AUDIT_AUDIT_HTML_H

#include <ostream>

#include "audit_report.h"

#include "shared/html_head.h"

namespace tsecheck {

// The audit's report for people (--html): the verdict, the TSEs, the
// findings, charts of counters, logs per day and certificate validity, and
// every log.
void writeAuditHtml(std::ostream& out, const tse::AuditReport& report, const HtmlContext& context);

}  // namespace tsecheck

#endif
