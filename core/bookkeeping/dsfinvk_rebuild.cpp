#include "dsfinvk_rebuild.h"

#include <algorithm>

#include "dsfinvk_csv.h"
#include "text.h"

namespace tse {
namespace {

// Units of 10^-5 to cents, half away from zero.
int64_t toCents(Amount units)
{
    return units >= 0 ? (units + CENT / 2) / CENT : -((-units + CENT / 2) / CENT);
}

std::string money(int64_t cents)
{
    return formatExactAmount(cents * CENT, 2);
}

std::string paymentsText(const std::vector<ReceiptAmounts::Payment>& payments)
{
    std::string out;
    for (const ReceiptAmounts::Payment& p : payments) {
        out += (out.empty() ? "" : "_") + money(p.amount) + (p.cash ? ":Bar" : ":Unbar") +
               (p.currency.empty() ? "" : ":" + p.currency);
    }
    return out;
}

// One payment per kind and currency, in the order first booked.
std::vector<ReceiptAmounts::Payment> merged(const std::vector<ReceiptAmounts::Payment>& payments)
{
    std::vector<ReceiptAmounts::Payment> out;
    for (const ReceiptAmounts::Payment& p : payments) {
        const auto same = std::find_if(out.begin(), out.end(), [&](const ReceiptAmounts::Payment& o) {
            return o.cash == p.cash && o.currency == p.currency;
        });
        if (same == out.end()) out.push_back(p);
        else same->amount += p.amount;
    }
    return out;
}

// A number as an order line writes it: "2", "1.5", the price "0.50".
std::string plainQuantity(Amount units)
{
    std::string text = formatExactAmount(units, 5);
    while (text.back() == '0') text.pop_back();
    if (text.back() == '.') text.pop_back();
    return text;
}

std::vector<std::string> orderTexts(const Bookkeeping& books, const ReceiptRows& rows, size_t receipt)
{
    std::vector<uint32_t> lines(rows.lines.of(receipt).begin(), rows.lines.of(receipt).end());
    const auto position = [&](uint32_t i) {
        const std::string_view pos = books.linePool.field(books.lines[i].record, LINE_POS);
        return std::make_pair(parseDecimal(pos).value_or(UINT64_MAX), pos);
    };
    std::stable_sort(lines.begin(), lines.end(), [&](uint32_t a, uint32_t b) { return position(a) < position(b); });
    std::string text;
    for (const uint32_t i : lines) {
        const LineRow& line = books.lines[i];
        const TableFile& file = books.files[line.place.file];
        const auto number = [&](LineField field) {
            return parseExactAmount(books.linePool.field(line.record, field), file.decimalSymbol, file.groupingSymbol);
        };
        const std::optional<Amount> quantity = number(LINE_QUANTITY), price = number(LINE_PRICE);
        if (!quantity || !price) return {};
        std::string name(books.linePool.field(line.record, LINE_TEXT));
        for (size_t at = name.find('"'); at != std::string::npos; at = name.find('"', at + 2)) name.insert(at, 1, '"');
        text += (text.empty() ? "" : "\r") + plainQuantity(*quantity) + ";\"" + name + "\";" + money(toCents(*price));
    }
    if (text.empty()) return {};
    return {text};
}

}  // namespace

ReceiptAmounts bookedAmounts(const Bookkeeping& books, const ReceiptRows& rows, size_t receipt)
{
    ReceiptAmounts out;
    Amount gross[5] = {0, 0, 0, 0, 0};
    for (const uint32_t i : rows.vat.of(receipt)) {
        if (const std::optional<size_t> field = processDataField(books.vat[i].key)) gross[*field] += books.vat[i].gross;
    }
    for (size_t f = 0; f < 5; ++f) out.vat[f] = toCents(gross[f]);
    for (const uint32_t i : rows.payments.of(receipt)) {
        const PaymentRow& p = books.payments[i];
        const std::string_view type = books.pool.field(p.record, PAY_TYPE);
        if (type == "Keine") continue;
        std::string currency(books.pool.field(p.record, PAY_CURRENCY));
        const std::string_view base = books.closings[p.closing].baseCurrency;
        const bool foreign = !currency.empty() && !equalsIgnoringCase(currency, base.empty() ? "EUR" : base);
        if (!foreign) currency.clear();
        out.payments.push_back({type == "Bar", currency, toCents(foreign ? p.paid : p.base)});
    }
    return out;
}

std::string kassenbelegText(std::string_view receiptType, const ReceiptAmounts& amounts)
{
    std::string text(receiptType);
    for (size_t f = 0; f < 5; ++f) text += (f ? "_" : "^") + money(amounts.vat[f]);
    return text + "^" + paymentsText(amounts.payments);
}

std::vector<std::string> rebuildProcessData(const Bookkeeping& books, const ReceiptRows& rows, size_t receipt,
                                            std::string_view processType)
{
    // Only tables read whole rebuild it: a missing one would rebuild nothing.
    const uint32_t closing = books.receipts[receipt].closing;
    if (processType == "Bestellung-V1")
        return books.hasTable(closing, "lines.csv") ? orderTexts(books, rows, receipt) : std::vector<std::string>();
    if (processType != "Kassenbeleg-V1" || !books.hasTable(closing, "transactions_vat.csv") ||
        !books.hasTable(closing, "datapayment.csv")) {
        return {};
    }
    const std::string_view type = books.receiptField(books.receipts[receipt], BON_TYP);
    ReceiptAmounts amounts = bookedAmounts(books, rows, receipt);
    std::vector<std::string> texts = {kassenbelegText(type, amounts)};
    const auto add = [&](std::string text) {
        if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(std::move(text));
    };
    amounts.payments = merged(amounts.payments);
    add(kassenbelegText(type, amounts));
    std::stable_partition(amounts.payments.begin(), amounts.payments.end(),
                          [](const ReceiptAmounts::Payment& p) { return p.cash; });
    add(kassenbelegText(type, amounts));
    return texts;
}

RebuiltProcessData rebuildMissingProcessData(const Bookkeeping& books, const ReceiptRows& rows)
{
    RebuiltProcessData out;
    for (size_t i = 0; i < books.rows.size(); ++i) {
        const TseRow& row = books.rows[i];
        if (!books.rowField(row, ROW_PROCESS_DATA).empty() || books.rowField(row, ROW_SIGNATURE).empty()) continue;
        const BookedReceipt* receipt = books.findReceipt(row.closing, books.rowField(row, ROW_BON_ID));
        if (!receipt) continue;
        std::vector<std::string> texts = rebuildProcessData(
            books, rows, static_cast<size_t>(receipt - books.receipts.data()), books.rowField(row, ROW_PROCESS_TYPE));
        if (!texts.empty()) out.emplace(i, std::move(texts));
    }
    return out;
}

}  // namespace tse
