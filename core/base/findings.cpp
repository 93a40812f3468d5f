#include "findings.h"

#include <iterator>

namespace tse {
namespace {

constexpr FindingInfo CATALOGUE[] = {
#define TSE_FINDING_INFO(name, code, severity, parts, meaning)                                                         \
    {FindingCode::name, code, Severity::severity, parts, meaning},
    TSE_FINDINGS(TSE_FINDING_INFO)
#undef TSE_FINDING_INFO
};

}  // namespace

std::string_view severityName(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

const FindingInfo& findingInfo(FindingCode code)
{
    return CATALOGUE[static_cast<size_t>(code)];
}

std::string_view findingName(FindingCode code)
{
    return findingInfo(code).name;
}

Severity findingSeverity(FindingCode code)
{
    return findingInfo(code).severity;
}

std::optional<FindingCode> findingByName(std::string_view name)
{
    for (const FindingInfo& info : CATALOGUE) {
        if (info.name == name) return info.code;
    }
    return std::nullopt;
}

const FindingInfo* FindingCatalogue::begin() const
{
    return std::begin(CATALOGUE);
}

const FindingInfo* FindingCatalogue::end() const
{
    return std::end(CATALOGUE);
}

size_t FindingCatalogue::size() const
{
    return std::size(CATALOGUE);
}

FindingCatalogue findingCatalogue()
{
    return {};
}

}  // namespace tse
