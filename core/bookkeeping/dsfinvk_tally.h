#ifndef TSE_CORE_DSFINVK_TALLY_H
#define TSE_CORE_DSFINVK_TALLY_H

// Findings that are counted rather than raised one by one: a rule that a
// whole table breaks row for row is one finding with the number of rows
// and the first three of them, as the administration's checking software
// reports it, not half a million lines.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dsfinvk_findings.h"

namespace tse {

class FindingTally {
public:
    static constexpr size_t EXAMPLES = 3;

    // One more case of `group` (the finding's words before the count); the
    // example is asked for only while fewer than three are kept. `noun`
    // counts the cases ("row" gives "1 row", "2 rows").
    template <typename Example>
    void add(FindingCode code, const std::string& group, std::string_view noun, const Example& example)
    {
        Entry& entry = entry_(code, group, noun);
        if (entry.examples.size() < EXAMPLES) entry.examples.push_back(example());
        ++entry.count;
    }
    // As add, but a case at the same place as the group's last one is not
    // counted again (two checks may find the same value wanting).
    template <typename Example>
    void addOnce(FindingCode code, const std::string& group, std::string_view noun, uint64_t place,
                 const Example& example)
    {
        Entry& entry = entry_(code, group, noun);
        if (entry.count && entry.lastPlace == place) return;
        entry.lastPlace = place;
        if (entry.examples.size() < EXAMPLES) entry.examples.push_back(example());
        ++entry.count;
    }

    bool empty() const { return order_.empty(); }
    // Every group as one finding, in the order first seen:
    // "GROUP: 2 rows: EXAMPLE; EXAMPLE".
    void raiseAll(RaisedFindings& findings) const;

private:
    struct Entry {
        FindingCode code;
        std::string group, noun;
        size_t count = 0;
        uint64_t lastPlace = 0;
        std::vector<std::string> examples;
    };
    Entry& entry_(FindingCode code, const std::string& group, std::string_view noun);

    std::map<std::pair<FindingCode, std::string>, size_t> index_;
    std::vector<Entry> order_;
};

}  // namespace tse

#endif
