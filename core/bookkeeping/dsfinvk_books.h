#ifndef TSE_CORE_DSFINVK_BOOKS_H
#define TSE_CORE_DSFINVK_BOOKS_H

// The bookkeeping in itself, the questions the administration's checking
// software asks first: does every row name what it belongs to, do the
// lines add up to the receipts and the receipts to the closings, are
// closings and receipts numbered without gaps, is each VAT key used at the
// rate the law gave it that day, and does each row keep the rules of its
// table. These need no signature and no TSE export.

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "dsfinvk_findings.h"
#include "dsfinvk_model.h"
#include "dsfinvk_receipt_rows.h"
#include "dsfinvk_report.h"
#include "dsfinvk_tally.h"

namespace tse {

// One way a receipt does not add up, kept as numbers: its words are made
// when the report is read, so that half a million receipts that do not add
// up do not keep half a million sentences.
enum class SumKind : uint8_t { LinesAgainstVat, VatAgainstTotal, PaymentsAgainstTotal, VatRowNetVat, LineRowNetVat };
struct SumDifference {
    SumKind kind = SumKind::VatAgainstTotal;
    uint32_t key = 0;  // the VAT key, where it is about one
    Amount left = 0, right = 0;
};

struct BookChecks {
    std::vector<ClosingCheck> closings;  // every closing of cashpointclosing.csv with the totals checked
    // The receipts that do not add up, by receipt index, with their differences.
    std::vector<std::pair<uint32_t, std::vector<SumDifference>>> receipts;

    // "VAT key 1: the lines add up to 12.00 (POS_BRUTTO of lines_vat.csv), ..."
    std::string describeReceipt(uint32_t receipt) const;
};

// Every check of the bookkeeping in itself; findings raised, the closings'
// totals and the receipts' differences kept for the report.
BookChecks checkBooks(const Bookkeeping& books, const ReceiptRows& rows, RaisedFindings& findings);

// The parts of checkBooks, one file each.
void checkReceiptSums(const Bookkeeping& books, const ReceiptRows& rows, RaisedFindings& findings, BookChecks& out);
void checkClosingSums(const Bookkeeping& books, const ReceiptRows& rows, RaisedFindings& findings, FindingTally& tally,
                      BookChecks& out);
void checkSequences(const Bookkeeping& books, RaisedFindings& findings, FindingTally& tally);
void checkVatRates(const Bookkeeping& books, const ReceiptRows& rows, FindingTally& tally);
void checkReferences(const Bookkeeping& books, const ReceiptRows& rows, FindingTally& tally);
void checkReceiptRules(const Bookkeeping& books, const ReceiptRows& rows, FindingTally& tally);

// Shared by the parts: the receipts of each closing (they stand together,
// sorted by closing), as [first, last) indices.
std::vector<std::pair<uint32_t, uint32_t>> receiptsOfClosings(const Bookkeeping& books);
// A closing as findings name it: closing 7 of register "Kasse 1" (created ...).
std::string closingName(const Bookkeeping& books, uint32_t closing);
// An exact amount with two decimals, or five where it has more.
std::string amountText(Amount amount);
// Units of 10^-5 rounded to cents, half away from zero, still in units.
Amount roundedToCents(Amount amount);

}  // namespace tse

#endif
