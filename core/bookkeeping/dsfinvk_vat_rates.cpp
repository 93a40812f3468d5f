// VAT keys at their legal rate: the rate vat.csv gives a key for a closing
// must be the one the key stood for on the day of each receipt that uses
// it. A receipt that began on one day and ended on the next may carry the
// rate of either.
#include "dsfinvk_vat_rates.h"

#include <map>
#include <set>

#include "dsfinvk_books.h"
#include "log_time.h"
#include "text.h"

namespace tse {
namespace {

constexpr int64_t DAY = 86400;

struct DatedRate {
    uint32_t key;
    int64_t year;
    unsigned month, day;
    int64_t rate;  // from that day on
};

const DatedRate RATES[] = {
    {1, 1968, 1, 1, 1900},
    {1, 2020, 7, 1, 1600},
    {1, 2021, 1, 1, 1900},
    {2, 1968, 1, 1, 700},
    {2, 2020, 7, 1, 500},
    {2, 2021, 1, 1, 700},
    {3, 1968, 1, 1, 1070},
    {3, 2022, 1, 1, 950},
    {3, 2023, 1, 1, 900},
    {3, 2024, 12, 6, 840},
    {3, 2025, 1, 1, 780},
    {4, 1968, 1, 1, 550},
    {5, 1968, 1, 1, 0},
    {6, 1968, 1, 1, 0},
    {7, 1968, 1, 1, 0},
    {8, 1968, 1, 1, 0},
    // Historic keys: the old rates, for sales made or returned after a change.
    {11, 1968, 1, 1, 1900},
    {12, 1968, 1, 1, 700},
    {21, 1968, 1, 1, 1600},
    {22, 1968, 1, 1, 500},
    {13, 1968, 1, 1, 1070},
    {23, 1968, 1, 1, 950},
    {33, 1968, 1, 1, 900},
    {43, 1968, 1, 1, 840},
};

std::string rateText(int64_t hundredths)
{
    return formatExactAmount(hundredths * 1000, 2) + " %";
}

std::string dayText(int64_t day)
{
    return isoSeconds(day * DAY).substr(0, 10);
}

// The days a receipt was recorded on: its start's and its end's, else the
// closing's business day or creation.
std::set<int64_t> daysOf(const Bookkeeping& books, const BookedReceipt& receipt)
{
    std::set<int64_t> days;
    for (const ReceiptField field : {BON_START, BON_END}) {
        if (const std::optional<int64_t> t = bookedSeconds(books.receiptField(receipt, field)))
            days.insert(germanDay(*t));
    }
    const Closing& closing = books.closings[receipt.closing];
    if (days.empty()) {
        if (const std::optional<IsoTime> day = parseIsoTime(closing.businessDay + "T12:00:00"))
            days.insert(day->seconds / DAY);
        else if (closing.createdSeconds) days.insert(germanDay(*closing.createdSeconds));
    }
    return days;
}

std::set<uint32_t> keysOf(const Bookkeeping& books, const ReceiptRows& rows, size_t receipt)
{
    std::set<uint32_t> keys;
    for (const uint32_t i : rows.vat.of(receipt)) keys.insert(books.vat[i].key);
    for (const uint32_t i : rows.lineVat.of(receipt)) keys.insert(books.lineVat[i].key);
    return keys;
}

void checkReceipt(const Bookkeeping& books, const ReceiptRows& rows, size_t r, const std::map<uint32_t, Amount>& rates,
                  FindingTally& tally)
{
    const BookedReceipt& receipt = books.receipts[r];
    const std::set<int64_t> days = daysOf(books, receipt);
    for (const uint32_t key : keysOf(books, rows, r)) {
        const auto rate = rates.find(key);
        if (rate == rates.end()) {
            tally.add(FindingCode::ReferenceMissing,
                      "vat.csv of " + closingName(books, receipt.closing) + " has no rate for VAT key " +
                          std::to_string(key) + " that its receipts use",
                      "receipt", [&] { return "BON_ID " + quoted(books.receiptField(receipt, BON_ID)); });
            continue;
        }
        bool known = !days.empty(), fits = false;
        for (const int64_t day : days) {
            const std::optional<int64_t> legal = legalVatRate(key, day);
            known = known && legal;
            fits = fits || (legal && *legal * 1000 == rate->second);
        }
        if (!known || fits) continue;
        tally.add(FindingCode::VatRateWrong,
                  "vat.csv of " + closingName(books, receipt.closing) + " gives VAT key " + std::to_string(key) + " " +
                      formatExactAmount(rate->second, 2) + " %",
                  "receipt", [&] {
                      return "BON_ID " + quoted(books.receiptField(receipt, BON_ID)) + " of " +
                             dayText(*days.rbegin()) + ", when key " + std::to_string(key) + " stood for " +
                             rateText(*legalVatRate(key, *days.rbegin()));
                  });
    }
}

}  // namespace

std::optional<int64_t> legalVatRate(uint32_t key, int64_t day)
{
    std::optional<int64_t> rate;
    for (const DatedRate& r : RATES) {
        if (r.key == key && daysFromCivil(r.year, r.month, r.day) <= day) rate = r.rate;
    }
    return rate;
}

int64_t germanDay(int64_t utc)
{
    // Summer time holds when the wall clock two hours ahead maps back to this moment.
    const int64_t local = germanLocalToUtc(utc + 7200) == utc ? utc + 7200 : utc + 3600;
    return local >= 0 ? local / DAY : -((-local + DAY - 1) / DAY);
}

void checkVatRates(const Bookkeeping& books, const ReceiptRows& rows, FindingTally& tally)
{
    std::vector<std::map<uint32_t, Amount>> rates(books.closings.size());
    for (const VatRate& rate : books.vatRates) rates[rate.closing].emplace(rate.key, rate.rate);
    for (size_t r = 0; r < books.receipts.size(); ++r) {
        if (books.hasTable(books.receipts[r].closing, "vat.csv"))
            checkReceipt(books, rows, r, rates[books.receipts[r].closing], tally);
    }
}

}  // namespace tse
