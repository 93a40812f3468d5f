#ifndef TOOLS_MAKE_DSFINVK_DEFECTS_H
#define TOOLS_MAKE_DSFINVK_DEFECTS_H

#include <string_view>
#include <vector>

#include "make_dsfinvk_book.h"

namespace makedsfinvk {

// A defect make-dsfinvk can plant, alone, in an otherwise consistent
// bookkeeping, and what `tse-check dsfinvk` should find for it.
struct Defect {
    std::string_view name;
    std::vector<std::string_view> codes;  // the findings it should give (a code twice: two findings)
    std::string_view what;
    bool afterTotals;  // planted once the closings' totals are computed, so that they keep the old values
    void (*plant)(Book& book);
};

const std::vector<Defect>& defects();

// nullptr for a name that is not in the table.
const Defect* defectNamed(std::string_view name);

}  // namespace makedsfinvk

#endif
