#ifndef TSE_CHECK_DSFINVK_TRANSACTION_ROW_H
#define TSE_CHECK_DSFINVK_TRANSACTION_ROW_H

#include <string>
#include <vector>

#include "dsfinvk_report.h"

namespace tsecheck {

// One transaction of the bookkeeping check as a row: the CSV report and the
// HTML page's table ("as in the CSV report") take their columns and cells
// from here, so the two cannot drift apart.
const std::vector<std::string>& transactionColumns();
std::vector<std::string> transactionCells(const tse::BookedTransaction& transaction);

}  // namespace tsecheck

#endif
