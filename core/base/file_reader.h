#ifndef TSE_CORE_FILE_READER_H
#define TSE_CORE_FILE_READER_H

#include <cstddef>
#include <string>

#include "bytes.h"
#include "result.h"

namespace tse {

// Opens the path once and reads at most maxSize bytes, plus one to tell a
// file of exactly the limit from a larger one. Works on FIFOs and
// /dev/fd/N; a directory or a larger input is an error, never a hang on a
// second open or an unbounded buffer. The error completes a sentence that
// begins with the file's name: "does not exist", "cannot be read: ...".
Result<Bytes> readFileBounded(const std::string& path, size_t maxSize);

// The SHA-256 of a file of any size, read a piece at a time. The error
// completes a sentence that begins with the file's name.
Result<Bytes> sha256OfFile(const std::string& path);

}  // namespace tse

#endif
