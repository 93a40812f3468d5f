#include "ber.h"

#include <cstdio>

#include "text.h"

namespace tse {
namespace {

constexpr uint8_t HIGH_TAG_NUMBER = 0x1F;
constexpr uint8_t INDEFINITE_LENGTH = 0x80;
constexpr uint8_t RESERVED_LENGTH = 0xFF;
constexpr size_t MAX_LENGTH_OCTETS = 8;

}  // namespace

std::string tagName(uint8_t tag)
{
    char text[8];
    std::snprintf(text, sizeof(text), "0x%02X", tag);
    return text;
}

uint8_t BerReader::peekTag() const
{
    if (atEnd()) {
        throw ParseError(offset(), "the data ends where an element should begin");
    }
    return data_[position_];
}

uint64_t BerReader::readLength(bool& indefinite)
{
    if (atEnd()) {
        throw ParseError(offset(), "the data ends inside an element header");
    }
    const uint8_t first = data_[position_++];
    indefinite = first == INDEFINITE_LENGTH;
    if (first < 0x80 || indefinite) {
        return indefinite ? 0 : first;
    }
    if (first == RESERVED_LENGTH) {
        throw ParseError(offset() - 1, "the length octet 0xFF is reserved");
    }
    const size_t count = first & 0x7F;
    if (count > MAX_LENGTH_OCTETS) {
        throw ParseError(offset() - 1, "a length of " + std::to_string(count) + " octets is longer than 8");
    }
    if (count > remaining()) {
        throw ParseError(offset(), "the data ends inside a length");
    }
    uint64_t length = 0;
    for (size_t i = 0; i < count; ++i) {
        length = length << 8 | data_[position_++];
    }
    return length;
}

// Finds the end-of-contents octets that close an indefinite element whose
// content starts at contentStart, stepping over nested elements.
size_t BerReader::endOfContents(size_t contentStart) const
{
    BerReader nested(data_.sub(contentStart, data_.size() - contentStart), base_ + contentStart, depth_ + 1);
    while (true) {
        if (nested.remaining() >= 2 && nested.data_[nested.position_] == 0 && nested.data_[nested.position_ + 1] == 0) {
            return contentStart + nested.position_;
        }
        if (nested.atEnd()) {
            throw ParseError(nested.offset(), "an element of indefinite length has no end-of-contents octets");
        }
        nested.read();
    }
}

BerElement BerReader::read()
{
    if (depth_ > MAX_DEPTH) {
        throw ParseError(offset(), "elements are nested more than " + std::to_string(MAX_DEPTH) + " deep");
    }
    BerElement element;
    element.offset = offset();
    const size_t start = position_;
    element.tag = peekTag();
    if ((element.tag & HIGH_TAG_NUMBER) == HIGH_TAG_NUMBER) {
        throw ParseError(offset(), "tag " + tagName(element.tag) +
                                       " announces a multi-octet tag number, "
                                       "which no log message uses");
    }
    ++position_;
    bool indefinite = false;
    const uint64_t length = readLength(indefinite);
    element.indefinite = indefinite;
    element.contentOffset = offset();
    if (indefinite) {
        if (!element.constructed()) {
            throw ParseError(element.offset, "primitive element " + tagName(element.tag) + " has an indefinite length");
        }
        const size_t contentEnd = endOfContents(position_);
        element.content = data_.sub(position_, contentEnd - position_);
        position_ = contentEnd + 2;
    } else {
        if (length > remaining()) {
            throw ParseError(element.offset, "element " + tagName(element.tag) + " announces " +
                                                 counted(length, "content octet", "content octets") + ", but only " +
                                                 std::to_string(remaining()) +
                                                 (remaining() == 1 ? " remains" : " remain"));
        }
        element.content = data_.sub(position_, static_cast<size_t>(length));
        position_ += static_cast<size_t>(length);
    }
    element.whole = data_.sub(start, position_ - start);
    return element;
}

BerElement BerReader::expect(uint8_t tag, std::string_view what)
{
    if (atEnd()) {
        throw ParseError(offset(), "the data ends where " + std::string(what) + " should begin");
    }
    if (peekTag() != tag) {
        throw ParseError(offset(), "expected " + std::string(what) + " (tag " + tagName(tag) + "), found tag " +
                                       tagName(peekTag()));
    }
    return read();
}

BerReader BerReader::inside(const BerElement& element) const
{
    return BerReader(element.content, element.contentOffset, depth_ + 1);
}

Bytes stringOctets(const BerElement& element, size_t depthLimit)
{
    if (!element.constructed()) {
        return element.content.copy();
    }
    if (depthLimit == 0) {
        throw ParseError(element.offset, "string chunks are nested too deep");
    }
    Bytes joined;
    BerReader chunks(element.content, element.contentOffset, 1);
    while (!chunks.atEnd()) {
        const BerElement chunk = chunks.read();
        if ((chunk.tag & ~tag::CONSTRUCTED) != tag::OCTET_STRING) {
            throw ParseError(chunk.offset, "a chunk of a constructed string has tag " + tagName(chunk.tag) +
                                               " instead of an OCTET STRING");
        }
        const Bytes part = stringOctets(chunk, depthLimit - 1);
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}

size_t stringChunkCount(const BerElement& element, size_t depthLimit)
{
    if (!element.constructed()) {
        return 1;
    }
    // Nested definite lengths are not checked when the outer element is
    // read, so the recursion needs a bound of its own.
    if (depthLimit == 0) {
        throw ParseError(element.offset, "string chunks are nested too deep");
    }
    size_t count = 0;
    BerReader chunks(element.content, element.contentOffset, 1);
    while (!chunks.atEnd()) {
        count += stringChunkCount(chunks.read(), depthLimit - 1);
    }
    return count;
}

uint64_t unsignedValue(const BerElement& element, std::string_view what)
{
    const ByteView content = element.content;
    if (content.empty()) {
        throw ParseError(element.offset, std::string(what) + " is an INTEGER without content");
    }
    if (content[0] & 0x80) {
        throw ParseError(element.offset, std::string(what) + " is negative");
    }
    size_t first = 0;
    while (first + 1 < content.size() && content[first] == 0) {
        ++first;
    }
    if (content.size() - first > 8) {
        throw ParseError(element.offset, std::string(what) + " is wider than 64 bits");
    }
    uint64_t value = 0;
    for (size_t i = first; i < content.size(); ++i) {
        value = value << 8 | content[i];
    }
    return value;
}

}  // namespace tse
