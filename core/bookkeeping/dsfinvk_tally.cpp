#include "dsfinvk_tally.h"

namespace tse {

FindingTally::Entry& FindingTally::entry_(FindingCode code, const std::string& group, std::string_view noun)
{
    const auto found = index_.find({code, group});
    if (found != index_.end()) return order_[found->second];
    index_.emplace(std::make_pair(code, group), order_.size());
    Entry entry;
    entry.code = code;
    entry.group = group;
    entry.noun = noun;
    order_.push_back(std::move(entry));
    return order_.back();
}

void FindingTally::raiseAll(RaisedFindings& findings) const
{
    for (const Entry& entry : order_) {
        std::string words =
            entry.group + ": " + std::to_string(entry.count) + " " + entry.noun + (entry.count == 1 ? "" : "s");
        for (size_t i = 0; i < entry.examples.size(); ++i) words += (i ? "; " : ": ") + entry.examples[i];
        if (entry.count > entry.examples.size())
            words += "; and " + std::to_string(entry.count - entry.examples.size()) + " more";
        findings.raise(entry.code, words);
    }
}

}  // namespace tse
