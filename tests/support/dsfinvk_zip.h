#ifndef TESTS_DSFINVK_ZIP_H
#define TESTS_DSFINVK_ZIP_H

// A DSFinV-K export as the members of a ZIP, to change one member and pack
// them again the way registers hand them over.

#include <string>
#include <vector>

#include "file_text.h"
#include "fixtures.h"

namespace fixtures {

struct Member {
    std::string name, data;
    std::string link;        // a symbolic link to this target instead of data
    bool encrypted = false;  // in a ZIP of its own, read beside the others
};

// A ZIP of the members, encrypted with the traditional PKWARE cipher when asked.
void writeZip(const std::string& path, const std::vector<Member>& members, bool encrypted = false);

// The tables make-dsfinvk writes for the real cloud export's sales, each
// named FOLDER + its file name.
std::vector<Member> realTables(const TempDir& dir, const std::string& folder);

// The member whose name ends in SUFFIX; throws when there is none.
Member& memberNamed(std::vector<Member>& members, const std::string& suffix);

}  // namespace fixtures

#endif
