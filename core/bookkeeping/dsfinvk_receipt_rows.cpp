#include "dsfinvk_receipt_rows.h"

#include <functional>
#include <string_view>
#include <unordered_map>

namespace tse {
namespace {

using Key = std::pair<uint32_t, std::string_view>;  // closing, BON_ID

struct KeyHash {
    size_t operator()(const Key& key) const
    {
        return std::hash<std::string_view>()(key.second) ^ (static_cast<size_t>(key.first) * 0x9E3779B97F4A7C15ull);
    }
};

using ReceiptIndex = std::unordered_map<Key, uint32_t, KeyHash>;

template <typename KeyOf>
RowGroups groupRows(const ReceiptIndex& index, size_t rows, size_t receipts, const KeyOf& keyOf)
{
    std::vector<uint32_t> receiptOf(rows, UINT32_MAX);
    for (size_t i = 0; i < rows; ++i) {
        const auto found = index.find(keyOf(i));
        if (found != index.end()) receiptOf[i] = found->second;
    }
    return RowGroups(receiptOf, receipts);
}

}  // namespace

RowGroups::RowGroups(const std::vector<uint32_t>& receiptOf, size_t receipts) : offsets_(receipts + 1, 0)
{
    for (const uint32_t r : receiptOf) {
        if (r != UINT32_MAX) ++offsets_[r + 1];
    }
    for (size_t r = 0; r < receipts; ++r) offsets_[r + 1] += offsets_[r];
    rows_.resize(offsets_[receipts]);
    std::vector<uint32_t> next(offsets_.begin(), offsets_.end() - 1);
    for (size_t i = 0; i < receiptOf.size(); ++i) {
        if (receiptOf[i] == UINT32_MAX) orphans_.push_back(static_cast<uint32_t>(i));
        else rows_[next[receiptOf[i]]++] = static_cast<uint32_t>(i);
    }
}

RowGroup RowGroups::of(size_t receipt) const
{
    if (receipt + 1 >= offsets_.size()) return {};
    return {rows_.data() + offsets_[receipt], rows_.data() + offsets_[receipt + 1]};
}

ReceiptRows groupByReceipt(const Bookkeeping& books)
{
    ReceiptIndex index;
    index.reserve(books.receipts.size());
    for (size_t r = 0; r < books.receipts.size(); ++r) {
        const BookedReceipt& receipt = books.receipts[r];
        index.emplace(Key{receipt.closing, books.receiptField(receipt, BON_ID)}, static_cast<uint32_t>(r));
    }
    const size_t n = books.receipts.size();
    ReceiptRows out;
    out.vat = groupRows(index, books.vat.size(), n, [&](size_t i) {
        return Key{books.vat[i].closing, books.pool.field(books.vat[i].bonId, 0)};
    });
    out.payments = groupRows(index, books.payments.size(), n, [&](size_t i) {
        return Key{books.payments[i].closing, books.pool.field(books.payments[i].record, PAY_BON_ID)};
    });
    out.lines = groupRows(index, books.lines.size(), n, [&](size_t i) {
        return Key{books.lines[i].closing, books.linePool.field(books.lines[i].record, LINE_BON_ID)};
    });
    out.lineVat = groupRows(index, books.lineVat.size(), n, [&](size_t i) {
        return Key{books.lineVat[i].closing, books.linePool.field(books.lineVat[i].record, 0)};
    });
    return out;
}

}  // namespace tse
