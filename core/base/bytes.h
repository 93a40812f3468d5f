#ifndef TSE_CORE_BYTES_H
#define TSE_CORE_BYTES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tse {

using Bytes = std::vector<uint8_t>;

// A view of bytes someone else owns: the core's parsers read through it and
// never copy more than they hand out.
class ByteView {
public:
    constexpr ByteView() = default;
    constexpr ByteView(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    ByteView(const Bytes& bytes) : data_(bytes.data()), size_(bytes.size()) {}  // NOLINT: views convert implicitly
    ByteView(const std::string& text)                                           // NOLINT
        : data_(reinterpret_cast<const uint8_t*>(text.data())), size_(text.size())
    {}
    ByteView(std::string_view text)  // NOLINT
        : data_(reinterpret_cast<const uint8_t*>(text.data())), size_(text.size())
    {}

    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const uint8_t* begin() const { return data_; }
    const uint8_t* end() const { return data_ + size_; }
    uint8_t operator[](size_t index) const { return data_[index]; }
    // The bytes from offset on, count of them. A range beyond the view is a
    // fault of the caller, whose parser should have refused the length
    // first; it throws rather than read what is not there.
    ByteView sub(size_t offset, size_t count) const
    {
        if (offset > size_ || count > size_ - offset) {
            throw std::out_of_range("a view of " + std::to_string(size_) + " bytes has no " + std::to_string(count) +
                                    " bytes at " + std::to_string(offset));
        }
        return ByteView(data_ + offset, count);
    }
    Bytes copy() const { return Bytes(begin(), end()); }
    std::string text() const { return std::string(reinterpret_cast<const char*>(data_), size_); }

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

bool operator==(ByteView a, ByteView b);
inline bool operator!=(ByteView a, ByteView b)
{
    return !(a == b);
}

std::string toHex(ByteView data);  // uppercase, no separators
// Hex digits with optional blanks or colons between octets; nullopt for
// anything else or an odd count.
std::optional<Bytes> fromHex(std::string_view text);

std::string toBase64(ByteView data);
// Standard alphabet with padding; blanks and line ends are skipped. nullopt
// for any other character or a broken length.
std::optional<Bytes> fromBase64(std::string_view text);

Bytes sha256(ByteView data);

}  // namespace tse

#endif
