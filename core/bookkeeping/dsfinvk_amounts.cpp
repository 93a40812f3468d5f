#include "dsfinvk_amounts.h"

#include "dsfinvk_csv.h"

namespace tse {

std::optional<ReceiptAmounts> parseReceiptAmounts(std::string_view processData)
{
    const size_t first = processData.find('^');
    if (first == std::string_view::npos) return std::nullopt;
    const size_t second = processData.find('^', first + 1);
    if (second == std::string_view::npos || processData.find('^', second + 1) != std::string_view::npos)
        return std::nullopt;
    const std::string_view vat = processData.substr(first + 1, second - first - 1);
    const std::string_view payments = processData.substr(second + 1);
    ReceiptAmounts out;
    size_t at = 0;
    for (size_t i = 0; i < 5; ++i) {
        const size_t end = vat.find('_', at);
        if ((end == std::string_view::npos) != (i == 4)) return std::nullopt;
        const std::optional<int64_t> amount =
            parseAmount(vat.substr(at, end == std::string_view::npos ? vat.npos : end - at), '.', ',');
        if (!amount) return std::nullopt;
        out.vat[i] = *amount;
        at = end + 1;
    }
    at = 0;
    while (at < payments.size()) {
        size_t end = payments.find('_', at);
        if (end == std::string_view::npos) end = payments.size();
        const std::string_view part = payments.substr(at, end - at);
        at = end + 1;
        const size_t colon = part.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        const std::optional<int64_t> amount = parseAmount(part.substr(0, colon), '.', ',');
        const std::string_view rest = part.substr(colon + 1);
        const size_t colon2 = rest.find(':');
        const std::string_view type = rest.substr(0, colon2);
        if (!amount || (type != "Bar" && type != "Unbar")) return std::nullopt;
        out.payments.push_back({type == "Bar",
                                colon2 == std::string_view::npos ? std::string() : std::string(rest.substr(colon2 + 1)),
                                *amount});
    }
    return out;
}

std::optional<size_t> processDataField(uint32_t vatKey)
{
    switch (vatKey) {
    case 1:
    case 11:
    case 21: return 0;
    case 2:
    case 12:
    case 22: return 1;
    case 3:
    case 13:
    case 23:
    case 33:
    case 43: return 2;
    case 4: return 3;
    case 5:
    case 6:
    case 7:
    case 8: return 4;
    default: return std::nullopt;
    }
}

}  // namespace tse
