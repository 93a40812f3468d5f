#ifndef TSE_CHECK_SERVE_JOB_RUN_H
#define TSE_CHECK_SERVE_JOB_RUN_H

#include <string>

#include "serve/jobs.h"

namespace tsecheck::serve {

// Runs a job's check through the same functions as the command line
// (tse_check_jobs.h) and writes the same documents into the job's folder.
// The documents name each upload by the name it is kept under, never by
// the server's folder; afterwards the uploads are deleted.
void runJob(Job& job);

// Copies `path` with every occurrence of `folder` taken out, in blocks;
// the documents mention the uploads by their paths.
bool stripFolder(const std::string& path, const std::string& folder);
std::string stripFolderText(std::string text, const std::string& folder);

}  // namespace tsecheck::serve

#endif
