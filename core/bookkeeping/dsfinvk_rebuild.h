#ifndef TSE_CORE_DSFINVK_REBUILD_H
#define TSE_CORE_DSFINVK_REBUILD_H

// processData rebuilt from the booked amounts, as the administration's
// checking software does where a row does not carry it: Kassenbeleg-V1
// from transactions_vat.csv and datapayment.csv, Bestellung-V1 from
// lines.csv. A signature that holds over the rebuilt text proves that the
// booked amounts are the signed ones.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "dsfinvk_amounts.h"
#include "dsfinvk_model.h"
#include "dsfinvk_receipt_rows.h"

namespace tse {

// What the receipt's tables book, as Kassenbeleg-V1 processData sums it:
// the gross of the five kinds of rate (keys the processData does not know
// left out) and the payments (those of type Keine left out), in cents.
ReceiptAmounts bookedAmounts(const Bookkeeping& books, const ReceiptRows& rows, size_t receipt);

// The processData a register would have handed the TSE for the receipt
// under this processType, in each form writers choose (payments as booked,
// merged per kind, cash first), the likeliest first; none for a
// processType that carries no amounts.
std::vector<std::string> rebuildProcessData(const Bookkeeping& books, const ReceiptRows& rows, size_t receipt,
                                            std::string_view processType);

// Kassenbeleg-V1 text of the amounts: "Beleg^12.00_0.00_0.00_0.00_0.00^12.00:Bar".
std::string kassenbelegText(std::string_view receiptType, const ReceiptAmounts& amounts);

// For every row of transactions_tse.csv that carries no processData but
// names a receipt: the rebuilt texts to verify its signature over.
using RebuiltProcessData = std::map<size_t, std::vector<std::string>>;
RebuiltProcessData rebuildMissingProcessData(const Bookkeeping& books, const ReceiptRows& rows);

}  // namespace tse

#endif
