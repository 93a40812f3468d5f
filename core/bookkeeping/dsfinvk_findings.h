#ifndef TSE_CORE_DSFINVK_FINDINGS_H
#define TSE_CORE_DSFINVK_FINDINGS_H

// The findings of one bookkeeping check as they are raised: a code, what
// they are about and their words, kept small, since a table of half a
// million broken rows raises half a million of them. The words recur
// (every row of a register fails for the same reason) and are kept once.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "dsfinvk_model.h"
#include "findings.h"
#include "thread_annotations.h"

namespace tse {

// What a finding is about: a row of transactions_tse.csv, a receipt of
// transactions.csv, a Finish log of the TSE export, a line of another
// table, or nothing in particular (a table, a TSE, the export).
enum class FindingSubject : uint8_t { None, Row, Receipt, Log, Place };

struct RaisedFinding {
    FindingCode code;
    FindingSubject subject = FindingSubject::None;
    uint16_t file = 0;   // of a place
    uint32_t index = 0;  // of the row, receipt or log; the line of a place
    uint32_t words = 0;  // in the list's text set
};

// The words of a finding about a row are shared by every row it concerns
// (a table of half a million broken rows must not keep half a million
// sentences): a row's own values stand in them as these markers, which the
// report fills in from the row when it is read.
std::string rowValue(size_t field);      // a field of the row (TseRowField)
std::string receiptValue(size_t field);  // a field of the row's receipt (ReceiptField)
constexpr char ROW_VALUE = '\x01', RECEIPT_VALUE = '\x02';
// Alone, in the words about a receipt: what its sums do not agree on.
constexpr char SUMS_VALUE = '\x03';

// Safe to raise from many threads.
class RaisedFindings {
public:
    void raise(FindingCode code, std::string_view words) { raise(code, FindingSubject::None, 0, words); }
    void raise(FindingCode code, FindingSubject subject, size_t index, std::string_view words);
    void raise(FindingCode code, RowPlace place, std::string_view words);

    // Sorted by severity, then code in catalogue order, then as raised;
    // call once raising is done.
    std::vector<RaisedFinding> sorted() const;
    std::string_view words(const RaisedFinding& finding) const;
    size_t count(FindingCode code) const;

private:
    mutable Mutex lock_;
    std::vector<RaisedFinding> raised_ TSE_GUARDED_BY(lock_);
    TextSet texts_ TSE_GUARDED_BY(lock_);
};

}  // namespace tse

#endif
