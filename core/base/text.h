#ifndef TSE_CORE_TEXT_H
#define TSE_CORE_TEXT_H

#include <string_view>

namespace tse {

// ASCII letters only: names in logs, exports and receipts are ASCII, and a
// locale must not change what matches.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace tse

#endif
