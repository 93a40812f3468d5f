#ifndef TSE_CORE_DSFINVK_VAT_RATES_H
#define TSE_CORE_DSFINVK_VAT_RATES_H

// The rate each DSFinV-K VAT key stands for on a day: keys 1 to 4 are the
// rates in force when the sale was recorded (16 % and 5 % from 2020-07-01
// to 2020-12-31, the farmers' average rate falling from 2022 on), 5 to 8
// carry none, and the historic keys keep the rate they were made for.

#include <cstdint>
#include <optional>

namespace tse {

// In hundredths of a percent (1900 = 19 %), for the German civil day
// (days since 1970-01-01); nullopt for a key whose rate the DSFinV-K does
// not fix (the business's own from 1000 on, and the reserved ones).
std::optional<int64_t> legalVatRate(uint32_t key, int64_t day);

// The German civil day of a moment.
int64_t germanDay(int64_t utc);

}  // namespace tse

#endif
