#ifndef TSE_CORE_AUDIT_RULES_H
#define TSE_CORE_AUDIT_RULES_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "audit_report.h"

namespace tse {

// Adds the findings that follow from the verified logs and certificates:
// per-log verdicts and names, counters, transactions and time of each TSE,
// and certificates (their chain only counts when trust anchors were given).
void applyIntegrityRules(AuditReport& report, bool trustGiven);

// "2, 5-9, 12": missing counters as ranges.
std::string counterRanges(const std::vector<std::pair<uint64_t, uint64_t>>& ranges, size_t maxShown);

}  // namespace tse

#endif
