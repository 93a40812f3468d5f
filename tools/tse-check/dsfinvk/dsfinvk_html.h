#ifndef TSE_CHECK_DSFINVK_DSFINVK_HTML_H
#define TSE_CHECK_DSFINVK_DSFINVK_HTML_H

#include <ostream>

#include "dsfinvk_report.h"

#include "shared/html_head.h"

namespace tsecheck {

// The bookkeeping check's report for people (--html): the verdict, the
// findings, the sales per day on both sides, and every transaction.
void writeBookkeepingHtml(std::ostream& out, const tse::BookkeepingReport& bookkeeping, const HtmlContext& context);

}  // namespace tsecheck

#endif
