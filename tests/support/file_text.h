#ifndef TESTS_FILE_TEXT_H
#define TESTS_FILE_TEXT_H

#include <string>

namespace fixtures {

// The whole contents of a file; empty when it cannot be read.
std::string fileText(const std::string& path);

}  // namespace fixtures

#endif
