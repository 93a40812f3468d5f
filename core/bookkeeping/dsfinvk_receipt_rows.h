#ifndef TSE_CORE_DSFINVK_RECEIPT_ROWS_H
#define TSE_CORE_DSFINVK_RECEIPT_ROWS_H

// The rows of each table that belong to one receipt of transactions.csv,
// found once (by closing and BON_ID) for every check that goes receipt by
// receipt: the sums, the VAT rates, the rebuilt processData, the failure
// rows' amounts.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dsfinvk_model.h"

namespace tse {

struct RowGroup {
    const uint32_t* first = nullptr;
    const uint32_t* last = nullptr;
    const uint32_t* begin() const { return first; }
    const uint32_t* end() const { return last; }
    bool empty() const { return first == last; }
    size_t size() const { return static_cast<size_t>(last - first); }
};

// The indices of one table's rows, grouped by receipt.
class RowGroups {
public:
    RowGroups() = default;
    // receiptOf[i]: the receipt of row i, or UINT32_MAX for none.
    RowGroups(const std::vector<uint32_t>& receiptOf, size_t receipts);
    RowGroup of(size_t receipt) const;
    const std::vector<uint32_t>& orphans() const { return orphans_; }  // rows that name no receipt

private:
    std::vector<uint32_t> offsets_;  // receipt r's rows are rows_[offsets_[r] .. offsets_[r + 1])
    std::vector<uint32_t> rows_;
    std::vector<uint32_t> orphans_;
};

struct ReceiptRows {
    RowGroups vat, payments, lines, lineVat;
};

// Every row of transactions_vat.csv, datapayment.csv, lines.csv and
// lines_vat.csv under its receipt (the first one of its closing and
// BON_ID, should transactions.csv hold it twice).
ReceiptRows groupByReceipt(const Bookkeeping& books);

}  // namespace tse

#endif
