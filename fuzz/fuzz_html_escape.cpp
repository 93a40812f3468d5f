// Any bytes from an export, escaped for the HTML report: what comes out
// must be well-formed UTF-8 in which no character can open a tag, end an
// attribute or start a reference other than the ones escaping wrote.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "html_writer.h"

namespace {

bool wellFormedUtf8(std::string_view text)
{
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t length = c < 0x80                 ? 1
                        : c >= 0xC2 && c <= 0xDF ? 2
                        : c >= 0xE0 && c <= 0xEF ? 3
                        : c >= 0xF0 && c <= 0xF4 ? 4
                                                 : 0;
        if (length == 0 || i + length > text.size()) return false;
        for (size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        }
        i += length;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string out = report::escaped(input);
    if (!wellFormedUtf8(out)) std::abort();
    if (out.find_first_of("<>\"'") != std::string::npos) std::abort();
    for (size_t at = out.find('&'); at != std::string::npos; at = out.find('&', at + 1)) {
        const std::string_view rest = std::string_view(out).substr(at);
        bool known = false;
        for (const char* reference : {"&amp;", "&lt;", "&gt;", "&quot;", "&#39;"}) {
            known |= rest.rfind(reference, 0) == 0;
        }
        if (!known) std::abort();
    }
    // Plain printable ASCII without the five characters passes unchanged.
    if (input.find_first_of("<>\"'&") == std::string_view::npos && out.size() < input.size()) std::abort();
    return 0;
}
