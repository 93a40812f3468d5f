#ifndef TSE_CORE_BER_H
#define TSE_CORE_BER_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bytes.h"

namespace tse {

// Why some bytes cannot be read, and the offset (from the start of the
// outermost input) at which reading stopped.
class ParseError : public std::runtime_error {
public:
    ParseError(size_t offset, const std::string& reason) : std::runtime_error(reason), offset_(offset) {}
    size_t offset() const { return offset_; }

private:
    size_t offset_;
};

namespace tag {
constexpr uint8_t INTEGER = 0x02;
constexpr uint8_t OCTET_STRING = 0x04;
constexpr uint8_t OID = 0x06;
constexpr uint8_t UTC_TIME = 0x17;
constexpr uint8_t GENERALIZED_TIME = 0x18;
constexpr uint8_t SEQUENCE = 0x30;
constexpr uint8_t CONSTRUCTED = 0x20;
constexpr uint8_t CONTEXT = 0x80;
}  // namespace tag

// One element as it stands in the input. For an indefinite length the
// content runs up to, and `whole` includes, the end-of-contents octets.
struct BerElement {
    uint8_t tag = 0;
    bool indefinite = false;
    size_t offset = 0;         // of the identifier octet
    size_t contentOffset = 0;  // of the first content octet
    ByteView content;
    ByteView whole;

    bool constructed() const { return (tag & tag::CONSTRUCTED) != 0; }
};

// A cursor over (position, remaining) in the manner of a bounds-checked
// byte string: every read checks what remains first and throws ParseError
// naming the offset, so no length in the input is ever trusted.
class BerReader {
public:
    static constexpr int MAX_DEPTH = 16;

    explicit BerReader(ByteView data, size_t baseOffset = 0, int depth = 0)
        : data_(data), base_(baseOffset), depth_(depth)
    {}

    bool atEnd() const { return position_ >= data_.size(); }
    size_t offset() const { return base_ + position_; }
    size_t remaining() const { return data_.size() - position_; }
    // The next identifier octet; throws at the end.
    uint8_t peekTag() const;
    bool nextIs(uint8_t tag) const { return !atEnd() && data_[position_] == tag; }

    BerElement read();
    // Reads the next element and throws unless it carries the tag; `what`
    // names the element in the message (a view: a log of every type calls
    // this a dozen times, and a string for words never shown costs).
    BerElement expect(uint8_t tag, std::string_view what);

    // A reader over the content of a constructed element.
    BerReader inside(const BerElement& element) const;

private:
    uint64_t readLength(bool& indefinite);
    size_t endOfContents(size_t contentStart) const;

    ByteView data_;
    size_t base_ = 0;
    size_t position_ = 0;
    int depth_ = 0;
};

// The octets of a string element: the content of a primitive one, or the
// chunks of a constructed one (as D-Trust writes processData) joined.
Bytes stringOctets(const BerElement& element, size_t depthLimit = BerReader::MAX_DEPTH);
// How many primitive chunks make up the value (1 for a primitive element).
size_t stringChunkCount(const BerElement& element, size_t depthLimit = BerReader::MAX_DEPTH);

// An INTEGER's content read as an unsigned number. Throws for an empty or
// negative value and for one wider than 64 bits, so a value is never cut.
uint64_t unsignedValue(const BerElement& element, std::string_view what);

// A short name for a tag as a user would look for it: "0x85".
std::string tagName(uint8_t tag);

}  // namespace tse

#endif
