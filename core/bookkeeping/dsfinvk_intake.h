#ifndef TSE_CORE_DSFINVK_INTAKE_H
#define TSE_CORE_DSFINVK_INTAKE_H

// The first stage of the bookkeeping check: one or more DSFinV-K exports
// (folders, ZIP or TAR archives) read into the plain model, each file with
// its own columns and encoding. What cannot be read is a finding naming the
// table and what is wrong, never a table of zero rows.

#include <cstddef>
#include <string>
#include <vector>

#include "dsfinvk_findings.h"
#include "dsfinvk_model.h"
#include "result.h"

namespace tse {

struct IntakeOptions {
    std::vector<std::string> paths;
    size_t maxTableSize = 256u << 20;  // one table file
    size_t maxTotalSize = 1u << 30;    // all tables of all exports, uncompressed
};

// The tables of the official description, for an export without index.xml.
const std::vector<std::string>& standardTables();

// An error when an export cannot be opened, when its tables hold more than
// maxTotalSize, or when no export holds transactions_tse.csv and tse.csv.
Result<Bookkeeping> readBookkeeping(const IntakeOptions& options, RaisedFindings& findings);

}  // namespace tse

#endif
