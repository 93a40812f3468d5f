#include "html_writer.h"

#include "text.h"

namespace report {
namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";

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
        // A control, a separator or an invisible format character (one that
        // turns an amount around on screen) shows as one replacement
        // character; a byte outside well-formed UTF-8 as one each.
        const tse::Utf8Sequence sequence = tse::utf8At(text, i);
        if (sequence.length == 0) {
            out += REPLACEMENT;
            ++i;
        } else {
            if (sequence.printable) out.append(text, i, sequence.length);
            else out += REPLACEMENT;
            i += sequence.length;
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
