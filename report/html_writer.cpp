#include "html_writer.h"

namespace report {
namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";

// The length of the well-formed UTF-8 sequence at the start of text, or 0:
// no overlong forms, no surrogates, nothing above U+10FFFF.
size_t utf8Length(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;
    if (first >= 0xC2 && first <= 0xDF) length = 2;
    else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        if (first == 0xE0) low = 0xA0;
        if (first == 0xED) high = 0x9F;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        if (first == 0xF0) low = 0x90;
        if (first == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (text.size() < length) return 0;
    if (byte(1) < low || byte(1) > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
    }
    return length;
}

}  // namespace

void appendEscaped(std::string& out, std::string_view text)
{
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            case '\t':
            case '\n':
            case '\r': out += static_cast<char>(c); break;
            default:
                if (c < 0x20 || c == 0x7F) out += REPLACEMENT;
                else out += static_cast<char>(c);
            }
            ++i;
            continue;
        }
        const size_t length = utf8Length(text.substr(i));
        if (length == 0) {
            out += REPLACEMENT;
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
}

std::string escaped(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    appendEscaped(out, text);
    return out;
}

Html& Html::open(std::string_view tag, std::initializer_list<Attribute> attributes)
{
    out_ += '<';
    out_ += tag;
    for (const Attribute& attribute : attributes) {
        out_ += ' ';
        out_ += attribute.name;
        out_ += "=\"";
        appendEscaped(out_, attribute.value);
        out_ += '"';
    }
    out_ += '>';
    return *this;
}

Html& Html::close(std::string_view tag)
{
    out_ += "</";
    out_ += tag;
    out_ += '>';
    return *this;
}

Html& Html::text(std::string_view text)
{
    appendEscaped(out_, text);
    return *this;
}

Html& Html::element(std::string_view tag, std::string_view text, std::initializer_list<Attribute> attributes)
{
    return open(tag, attributes).text(text).close(tag);
}

Html& Html::trusted(std::string_view markup)
{
    out_ += markup;
    return *this;
}

}  // namespace report
