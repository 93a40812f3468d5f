#ifndef TSE_CORE_DSFINVK_FAILURES_H
#define TSE_CORE_DSFINVK_FAILURES_H

// Rows booked as a TSE failure against what the TSE did sign. Such a row
// has no transaction number (the TSE gave none), so the only link to a
// Finish log is its content and time: a log of the register that no row
// claims, with the receipt's gross amounts and payments, signed while the
// receipt was open. Such a log proves the failure was claimed while the
// TSE was signing the very sale; other logs of the TSE close in time show
// at least that it was working.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "dsfinvk_findings.h"
#include "dsfinvk_model.h"
#include "dsfinvk_receipt_rows.h"
#include "dsfinvk_tse_export.h"
#include "dsfinvk_verify.h"

namespace tse {

// The registers each client ID of the TSE export belongs to.
using ClientRegisters = std::map<std::string, std::set<std::string>>;

// Links each failure row without a transaction number to the unclaimed
// Finish log that signed its sale (claimed then), or says the TSE was
// signing around it.
void linkFailureRows(const Bookkeeping& books, RowChecks& checks, const TseExport& tse, const ReceiptRows& rows,
                     const ClientRegisters& registers, std::vector<bool>& claimed, RaisedFindings& findings);

}  // namespace tse

#endif
