#ifndef TSE_CORE_DSFINVK_AMOUNTS_H
#define TSE_CORE_DSFINVK_AMOUNTS_H

// The amounts a Kassenbeleg-V1 processData signs, and how the booked VAT
// keys map onto its five gross amounts.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tse {

// Kassenbeleg-V1 processData: the gross amounts of the five kinds of VAT
// rate and the payments, in hundredths; nullopt when it does not have that
// form.
struct ReceiptAmounts {
    int64_t vat[5] = {0, 0, 0, 0, 0};
    struct Payment {
        bool cash = false;
        std::string currency;  // "" for the base currency
        int64_t amount = 0;
    };
    std::vector<Payment> payments;
};
std::optional<ReceiptAmounts> parseReceiptAmounts(std::string_view processData);

// The processData field (0 to 4) that a booked VAT key's gross belongs
// to: the general rate (1, and the historic 11, 21), the reduced rate (2,
// 12, 22), the farmers' average rate (3 and its historic keys), the
// forestry rate (4), and the rate-free keys (5 to 8). nullopt for a key
// that names no kind of rate the processData knows.
std::optional<size_t> processDataField(uint32_t vatKey);

}  // namespace tse

#endif
