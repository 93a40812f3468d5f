#ifndef TSE_CORE_DSFINVK_RECONCILE_H
#define TSE_CORE_DSFINVK_RECONCILE_H

// The third stage of the bookkeeping check: the verified rows against the
// receipts and amounts they book and, given the TSE export, against what
// the TSE signed. Every sale the TSE signed for a register in a period the
// bookkeeping covers must be booked by exactly one row, unaltered; every
// receipt must have its TSE row.

#include <cstdint>
#include <vector>

#include "dsfinvk_findings.h"
#include "dsfinvk_model.h"
#include "dsfinvk_receipt_rows.h"
#include "dsfinvk_report.h"
#include "dsfinvk_tse_export.h"
#include "dsfinvk_verify.h"

namespace tse {

// What reconciliation says of each Finish log of the TSE export.
enum class LogState : uint8_t { Outside, Booked, Unbooked };

struct Reconciliation {
    std::vector<CoveredPeriod> periods;
    std::vector<UncoveredSales> uncovered;
    std::vector<LogState> logs;  // one per TseExport::finishes
};

// Links and amounts inside the bookkeeping: every row's receipt, every
// receipt's row, its time, the signed amounts against the booked ones, and
// one TSE transaction in one row.
void reconcileBookkeeping(const Bookkeeping& books, RowChecks& checks, const TseExport* tse, RaisedFindings& findings,
                          const ReceiptRows* rows = nullptr);

// The bookkeeping against the TSE export: the same TSE, each row against
// its Finish and Start log, each Finish log of a covered register and
// period against the rows; with the receipts' rows, the failure rows
// against the Finish logs no row claims.
Reconciliation reconcileWithTse(Bookkeeping& books, RowChecks& checks, const TseExport& tse, RaisedFindings& findings,
                                const ReceiptRows* rows = nullptr);

// The periods the closings cover, by register.
std::vector<CoveredPeriod> coveredPeriods(const Bookkeeping& books);

}  // namespace tse

#endif
