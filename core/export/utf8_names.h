#ifndef TSE_CORE_UTF8_NAMES_H
#define TSE_CORE_UTF8_NAMES_H

#include <locale.h>

namespace tse {

// libarchive converts the names an archive declares as UTF-8 (a ZIP's flag,
// a pax header) into the thread's character set, and in the C locale loses
// every name with a letter outside ASCII. While a source is read, its
// thread works in UTF-8; the locale it had comes back after.
class Utf8Names {
public:
    Utf8Names();
    ~Utf8Names();
    Utf8Names(const Utf8Names&) = delete;
    Utf8Names& operator=(const Utf8Names&) = delete;

private:
    locale_t utf8_ = static_cast<locale_t>(nullptr);
    locale_t previous_ = static_cast<locale_t>(nullptr);
};

// Whether a name is UTF-8, in the locale above. Names are nearly always
// ASCII; only the others are checked in full.
bool isUtf8(const char* name);

}  // namespace tse

#endif
