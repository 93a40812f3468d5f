#ifndef TSE_CORE_INFO_CSV_H
#define TSE_CORE_INFO_CSV_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bytes.h"
#include "result.h"

namespace tse {

// The "key:",value pairs of one info.csv line, keys without the colon.
using InfoRecord = std::vector<std::pair<std::string, std::string>>;

// info.csv comes in two forms: one line with description, manufacturer and
// version, or one line per component (device, storage, ...) followed by a
// description line.
struct InfoCsv {
    bool perComponent = false;
    std::vector<InfoRecord> records;  // in file order, empty lines left out
};

// Quoted or bare fields, LF or CRLF, with or without a final line end.
Result<InfoCsv> parseInfoCsv(ByteView data);

}  // namespace tse

#endif
