#ifndef TSE_CORE_OID_H
#define TSE_CORE_OID_H

#include <optional>
#include <string>
#include <string_view>

#include "bytes.h"

namespace tse {

// The dotted form of an OBJECT IDENTIFIER's content ("0.4.0.127..."), or
// nullopt when the content is not a well-formed identifier.
std::optional<std::string> oidToText(ByteView content);
// The content octets of a dotted identifier; nullopt for a malformed text.
std::optional<Bytes> oidFromText(std::string_view dotted);

}  // namespace tse

#endif
