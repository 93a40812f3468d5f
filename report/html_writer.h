#ifndef TSE_REPORT_HTML_WRITER_H
#define TSE_REPORT_HTML_WRITER_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace report {

// Appends text for an HTML element or a quoted attribute value: the five
// characters that could end either are written as references, bytes that
// are not UTF-8 and control characters as U+FFFD, so that nothing from an
// export can open a tag, end an attribute or break the document's encoding.
// Every value that comes from the input goes through here.
void appendEscaped(std::string& out, std::string_view text);
std::string escaped(std::string_view text);

struct Attribute {
    std::string_view name;   // written by this program, never from the input
    std::string_view value;  // escaped
};

// Writes markup into a string. Tag and attribute names are this program's
// words; text and attribute values are always escaped.
class Html {
public:
    explicit Html(std::string& out) : out_(out) {}

    Html& open(std::string_view tag, std::initializer_list<Attribute> attributes = {});
    Html& close(std::string_view tag);
    Html& text(std::string_view text);
    // <tag attributes>text</tag>
    Html& element(std::string_view tag, std::string_view text, std::initializer_list<Attribute> attributes = {});
    // Markup this program made itself, such as an SVG chart or the styles.
    Html& trusted(std::string_view markup);

    std::string& out() { return out_; }

private:
    std::string& out_;
};

}  // namespace report

#endif
