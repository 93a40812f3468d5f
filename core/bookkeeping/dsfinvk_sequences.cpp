// Numbering, per register: closing numbers rise with the closings' times
// without gap or repeat; a BON_ID stands for one receipt; receipt numbers
// (BON_NR) leave no gap, within a closing and into the next when they run
// on (a closing whose numbers start at or below the last one's started
// anew, which the bookkeeping allows); and every receipt ends inside its
// closing's period, after the closing before it.
#include <algorithm>
#include <map>
#include <optional>
#include <unordered_map>

#include "dsfinvk_books.h"
#include "log_time.h"
#include "text.h"

namespace tse {
namespace {

constexpr size_t SHOWN_RANGES = 20;

// The closings of cashpointclosing.csv by register, in the order they were made.
std::map<std::string, std::vector<uint32_t>> closingsByRegister(const Bookkeeping& books)
{
    std::map<std::string, std::vector<uint32_t>> out;
    for (uint32_t c = 0; c < books.closings.size(); ++c) {
        if (books.closings[c].booked) out[books.closings[c].key.kasse].push_back(c);
    }
    for (auto& entry : out) {
        std::stable_sort(entry.second.begin(), entry.second.end(), [&](uint32_t a, uint32_t b) {
            const auto rank = [&](uint32_t c) {
                return std::make_pair(books.closings[c].createdSeconds.value_or(INT64_MAX),
                                      parseDecimal(books.closings[c].key.number).value_or(UINT64_MAX));
            };
            return rank(a) < rank(b);
        });
    }
    return out;
}

void closingGaps(const Bookkeeping& books, const std::vector<uint32_t>& closings, RaisedFindings& findings)
{
    for (size_t i = 1; i < closings.size(); ++i) {
        const Closing &before = books.closings[closings[i - 1]], &after = books.closings[closings[i]];
        const std::optional<uint64_t> a = parseDecimal(before.key.number), b = parseDecimal(after.key.number);
        if (!a || !b || *b == *a + 1) continue;
        std::string words = "closing numbers of register " + quoted(after.key.kasse) + ": " +
                            escapeUnsafe(after.key.number) + " (created " + escapeUnsafe(after.key.created) +
                            ") follows " + escapeUnsafe(before.key.number) + " (created " +
                            escapeUnsafe(before.key.created) + ")";
        if (*b == *a) words += ": the number stands twice";
        else if (*b < *a) words += ": the number goes back";
        else words += ": " + std::to_string(*a + 1) + (*b - *a > 2 ? " to " + std::to_string(*b - 1) : "") + " missing";
        findings.raise(FindingCode::ClosingGap, after.place, words);
    }
}

// Receipts whose BON_ID an earlier receipt of the register has, counted
// per closing.
void bonDuplicates(const Bookkeeping& books, const std::vector<uint32_t>& closings,
                   const std::vector<std::pair<uint32_t, uint32_t>>& ranges, FindingTally& tally)
{
    std::unordered_map<std::string_view, uint32_t> first;
    for (const uint32_t c : closings) {
        for (uint32_t r = ranges[c].first; r < ranges[c].second; ++r) {
            const std::string_view bon = books.receiptField(books.receipts[r], BON_ID);
            const auto inserted = first.emplace(bon, c);
            if (inserted.second) continue;
            const uint32_t earlier = inserted.first->second;
            tally.add(FindingCode::BonDuplicate,
                      closingName(books, c) + ": receipts with a BON_ID an earlier receipt of the register has",
                      "receipt", [&] {
                          return "BON_ID " + quoted(bon) + " (first in closing " +
                                 escapeUnsafe(books.closings[earlier].key.number) + ")";
                      });
        }
    }
}

std::string rangesText(const std::vector<std::pair<uint64_t, uint64_t>>& missing)
{
    std::string out;
    for (size_t i = 0; i < missing.size() && i < SHOWN_RANGES; ++i) {
        const auto [from, to] = missing[i];
        out += (i ? ", " : "") + std::to_string(from) + (to > from ? "-" + std::to_string(to) : "");
    }
    if (missing.size() > SHOWN_RANGES) out += ", and " + std::to_string(missing.size() - SHOWN_RANGES) + " more ranges";
    return out;
}

void bonGaps(const Bookkeeping& books, const std::string& kasse, const std::vector<uint32_t>& closings,
             const std::vector<std::pair<uint32_t, uint32_t>>& ranges, RaisedFindings& findings)
{
    std::vector<std::pair<uint64_t, uint64_t>> missing;
    std::optional<uint64_t> last, lowest;
    uint64_t count = 0;
    for (const uint32_t c : closings) {
        std::vector<uint64_t> numbers;
        for (uint32_t r = ranges[c].first; r < ranges[c].second; ++r) {
            if (const std::optional<uint64_t> n = parseDecimal(books.receiptField(books.receipts[r], BON_NR)))
                numbers.push_back(*n);
        }
        std::sort(numbers.begin(), numbers.end());
        numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
        if (numbers.empty()) continue;
        // Numbers that run on from the closing before must continue it.
        if (last && numbers.front() > *last + 1) missing.emplace_back(*last + 1, numbers.front() - 1);
        for (size_t i = 1; i < numbers.size(); ++i) {
            if (numbers[i] > numbers[i - 1] + 1) missing.emplace_back(numbers[i - 1] + 1, numbers[i] - 1);
        }
        last = numbers.back();
        lowest = std::min(lowest.value_or(UINT64_MAX), numbers.front());
    }
    for (const auto& [from, to] : missing) count += to - from + 1;
    if (missing.empty()) return;
    findings.raise(FindingCode::BonGap, "receipt numbers (BON_NR) of register " + quoted(kasse) + ": " +
                                            std::to_string(count) + " missing between " + std::to_string(*lowest) +
                                            " and " + std::to_string(*last) + ": " + rangesText(missing));
}

void receiptsOutside(const Bookkeeping& books, const std::vector<uint32_t>& closings,
                     const std::vector<std::pair<uint32_t, uint32_t>>& ranges, FindingTally& tally)
{
    std::optional<int64_t> before;
    for (const uint32_t c : closings) {
        const std::optional<int64_t> created = books.closings[c].createdSeconds;
        if (!created) continue;
        for (uint32_t r = ranges[c].first; r < ranges[c].second; ++r) {
            const std::string_view endText = books.receiptField(books.receipts[r], BON_END);
            const std::optional<int64_t> end = bookedSeconds(endText);
            if (!end || (*end <= *created && (!before || *end > *before))) continue;
            tally.add(FindingCode::ReceiptOutsideClosing,
                      closingName(books, c) + ": receipts that end " +
                          (before ? "outside its period (after " + isoSeconds(*before) + ", up to its creation)"
                                  : "after its creation"),
                      "receipt", [&] {
                          return "BON_ID " + quoted(books.receiptField(books.receipts[r], BON_ID)) + " ended " +
                                 quoted(endText);
                      });
        }
        before = created;
    }
}

}  // namespace

void checkSequences(const Bookkeeping& books, RaisedFindings& findings, FindingTally& tally)
{
    const std::vector<std::pair<uint32_t, uint32_t>> ranges = receiptsOfClosings(books);
    for (const auto& [kasse, closings] : closingsByRegister(books)) {
        closingGaps(books, closings, findings);
        bonDuplicates(books, closings, ranges, tally);
        bonGaps(books, kasse, closings, ranges, findings);
        receiptsOutside(books, closings, ranges, tally);
    }
}

}  // namespace tse
