#include "dsfinvk_model.h"

#include <algorithm>

#include "log_time.h"

namespace tse {
namespace {

void appendLength(std::string& out, size_t length)
{
    do {
        const auto low = static_cast<uint8_t>(length & 0x7F);
        length >>= 7;
        out += static_cast<char>(length ? low | 0x80 : low);
    } while (length);
}

size_t readLength(const char*& at)
{
    size_t length = 0;
    for (unsigned shift = 0;; shift += 7) {
        const auto byte = static_cast<uint8_t>(*at++);
        length |= static_cast<size_t>(byte & 0x7F) << shift;
        if (!(byte & 0x80)) return length;
    }
}

}  // namespace

RecordPool::Ref RecordPool::add(std::initializer_list<std::string_view> fields)
{
    size_t size = 3;
    for (const std::string_view field : fields) size += field.size() + 3;
    // A record that does not fit the last chunk starts a new one, so no
    // chunk ever grows past what it reserved and no view into it moves.
    if (chunks_.empty() || chunks_.back().capacity() - chunks_.back().size() < size) {
        chunks_.emplace_back();
        chunks_.back().reserve(std::max(size, CHUNK));
    }
    std::string& chunk = chunks_.back();
    const Ref ref = (static_cast<Ref>(chunks_.size() - 1) << 32) | chunk.size();
    appendLength(chunk, fields.size());
    for (const std::string_view field : fields) {
        appendLength(chunk, field.size());
        chunk.append(field);
    }
    bytes_ += size;
    return ref;
}

std::string_view RecordPool::field(Ref ref, size_t index) const
{
    const std::string& chunk = chunks_[static_cast<size_t>(ref >> 32)];
    const char* at = chunk.data() + (ref & 0xFFFFFFFFu);
    const size_t count = readLength(at);
    if (index >= count) return {};
    for (size_t i = 0;; ++i) {
        const size_t length = readLength(at);
        if (i == index) return {at, length};
        at += length;
    }
}

TextSet::TextSet() : texts_{std::string()}
{
    ids_.emplace(std::string_view(), 0);
}

uint32_t TextSet::add(std::string_view text)
{
    const auto found = ids_.find(text);
    if (found != ids_.end()) return found->second;
    const auto id = static_cast<uint32_t>(texts_.size());
    ids_.emplace(texts_.emplace_back(text), id);
    return id;
}

std::optional<int64_t> bookedSeconds(std::string_view text)
{
    const std::optional<IsoTime> time = parseIsoTime(text);
    if (!time) return std::nullopt;
    return time->hadZone ? time->seconds : germanLocalToUtc(time->seconds);
}

uint32_t Bookkeeping::closingOf(ClosingKey key)
{
    const auto found = closingIndex.find(key);
    if (found != closingIndex.end()) return found->second;
    const auto index = static_cast<uint32_t>(closings.size());
    Closing closing;
    closing.key = key;
    closing.source = static_cast<uint16_t>(sourceTables.empty() ? 0 : sourceTables.size() - 1);
    closings.push_back(std::move(closing));
    closingIndex.emplace(std::move(key), index);
    return index;
}

bool Bookkeeping::hasTable(uint32_t closing, std::string_view table) const
{
    const uint16_t source = closings[closing].source;
    return source < sourceTables.size() && sourceTables[source].count(table) != 0;
}

void Bookkeeping::releaseLines()
{
    lines = std::vector<LineRow>();
    lineVat = std::vector<LineVatRow>();
    linePool = RecordPool();
}

std::string Bookkeeping::where(const RowPlace& place) const
{
    if (place.file >= files.size()) return {};
    return files[place.file].label + ":" + std::to_string(place.line);
}

void Bookkeeping::sortReceipts()
{
    std::stable_sort(receipts.begin(), receipts.end(), [&](const BookedReceipt& a, const BookedReceipt& b) {
        if (a.closing != b.closing) return a.closing < b.closing;
        return receiptField(a, BON_ID) < receiptField(b, BON_ID);
    });
}

const BookedReceipt* Bookkeeping::findReceipt(uint32_t closing, std::string_view bonId) const
{
    const auto found = std::lower_bound(receipts.begin(), receipts.end(), std::make_pair(closing, bonId),
                                        [&](const BookedReceipt& r, const std::pair<uint32_t, std::string_view>& key) {
                                            if (r.closing != key.first) return r.closing < key.first;
                                            return receiptField(r, BON_ID) < key.second;
                                        });
    if (found == receipts.end() || found->closing != closing || receiptField(*found, BON_ID) != bonId) return nullptr;
    return &*found;
}

const TseDeclaration* Bookkeeping::tseOf(uint32_t closing, std::string_view tseId) const
{
    const auto found = tseOfClosing.find(std::make_pair(closing, std::string(tseId)));
    return found == tseOfClosing.end() ? nullptr : &tses[found->second];
}

}  // namespace tse
