// Bytes read as an export member's name (the first line) and as the
// export's info.csv (all of it).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "export_names.h"
#include "info_csv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<uint8_t> input(data, data + size);
    const std::string text(input.begin(), input.end());
    const std::string name = text.substr(0, text.find('\n'));
    tse::classifyMember(name);
    tse::unsafeMemberName(name);
    tse::parseLogName(name);
    tse::certificateNameSerial(name);
    const tse::Result<tse::InfoCsv> info = tse::parseInfoCsv(input);
    if (!info && info.error().message.empty()) std::abort();
    return 0;
}
