#include "dsfinvk_books.h"

#include <algorithm>

#include "dsfinvk_csv.h"
#include "text.h"

namespace tse {
namespace {

std::string sumWords(const SumDifference& d)
{
    const std::string key = "VAT key " + std::to_string(d.key);
    const std::string left = amountText(d.left), right = amountText(d.right);
    switch (d.kind) {
    case SumKind::LinesAgainstVat:
        return key + ": its lines add up to " + left + " (POS_BRUTTO of lines_vat.csv), its VAT table books " + right +
               " (BON_BRUTTO of transactions_vat.csv)";
    case SumKind::VatAgainstTotal:
        return "its VAT table adds up to " + left + " (BON_BRUTTO of transactions_vat.csv), its total is " + right +
               " (UMS_BRUTTO of transactions.csv)";
    case SumKind::PaymentsAgainstTotal:
        return "its payments add up to " + left + " (BASISWAEH_BETRAG of datapayment.csv), its total is " + right +
               " (UMS_BRUTTO of transactions.csv)";
    case SumKind::VatRowNetVat:
        return key + ": net and VAT make " + left + " (BON_NETTO + BON_UST of transactions_vat.csv), the gross is " +
               right + " (BON_BRUTTO)";
    case SumKind::LineRowNetVat:
        return "a line under " + key + ": net and VAT make " + left +
               " (POS_NETTO + POS_UST of lines_vat.csv), the gross is " + right + " (POS_BRUTTO)";
    }
    return {};
}

}  // namespace

bool ClosingCheck::differs() const
{
    return std::any_of(totals.begin(), totals.end(), [](const ClosingTotal& t) { return t.differs; });
}

std::string BookChecks::describeReceipt(uint32_t receipt) const
{
    const auto found = std::lower_bound(receipts.begin(), receipts.end(), receipt,
                                        [](const auto& entry, uint32_t r) { return entry.first < r; });
    if (found == receipts.end() || found->first != receipt) return {};
    std::string words;
    for (const SumDifference& d : found->second) words += (words.empty() ? "" : "; ") + sumWords(d);
    return words;
}

BookChecks checkBooks(const Bookkeeping& books, const ReceiptRows& rows, RaisedFindings& findings)
{
    BookChecks out;
    FindingTally tally;
    checkReferences(books, rows, tally);
    checkReceiptRules(books, rows, tally);
    checkReceiptSums(books, rows, findings, out);
    checkClosingSums(books, rows, findings, tally, out);
    checkSequences(books, findings, tally);
    checkVatRates(books, rows, tally);
    tally.raiseAll(findings);
    return out;
}

std::vector<std::pair<uint32_t, uint32_t>> receiptsOfClosings(const Bookkeeping& books)
{
    std::vector<std::pair<uint32_t, uint32_t>> out(books.closings.size(), {0, 0});
    for (uint32_t r = 0; r < books.receipts.size();) {
        const uint32_t closing = books.receipts[r].closing;
        uint32_t end = r + 1;
        while (end < books.receipts.size() && books.receipts[end].closing == closing) ++end;
        out[closing] = {r, end};
        r = end;
    }
    return out;
}

std::string closingName(const Bookkeeping& books, uint32_t closing)
{
    const ClosingKey& key = books.closings[closing].key;
    return "closing " + escapeUnsafe(key.number) + " of register " + quoted(key.kasse) + " (created " +
           escapeUnsafe(key.created) + ")";
}

std::string amountText(Amount amount)
{
    return formatExactAmount(amount, amount % CENT == 0 ? 2 : 5);
}

Amount roundedToCents(Amount amount)
{
    const Amount cents = amount >= 0 ? (amount + CENT / 2) / CENT : -((-amount + CENT / 2) / CENT);
    return cents * CENT;
}

}  // namespace tse
