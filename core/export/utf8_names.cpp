#include "utf8_names.h"

#include <cwchar>

namespace tse {

Utf8Names::Utf8Names()
{
    const locale_t base = duplocale(uselocale(static_cast<locale_t>(nullptr)));
    if (base == static_cast<locale_t>(nullptr)) return;
    utf8_ = newlocale(LC_CTYPE_MASK, "C.UTF-8", base);
    if (utf8_ == static_cast<locale_t>(nullptr)) {
        freelocale(base);
        return;
    }
    previous_ = uselocale(utf8_);
}

Utf8Names::~Utf8Names()
{
    if (utf8_ == static_cast<locale_t>(nullptr)) return;
    uselocale(previous_);
    freelocale(utf8_);
}

bool isUtf8(const char* name)
{
    const char* c = name;
    while (*c != 0 && static_cast<unsigned char>(*c) < 0x80) ++c;
    if (*c == 0) return true;
    std::mbstate_t state{};
    return std::mbsrtowcs(nullptr, &c, 0, &state) != static_cast<size_t>(-1);
}

}  // namespace tse
