#ifndef TSE_CORE_FILE_READER_H
#define TSE_CORE_FILE_READER_H

#include <cstddef>
#include <optional>
#include <string>

#include "bytes.h"

namespace tse {

struct FileRead {
    std::optional<Bytes> contents;
    std::string error;  // "does not exist", "cannot be read: Permission denied", ...
};

// Opens the path once and reads at most maxSize bytes, plus one to tell a
// file of exactly the limit from a larger one. Works on FIFOs and
// /dev/fd/N; a directory or a larger input is an error, never a hang on a
// second open or an unbounded buffer.
FileRead readFileBounded(const std::string& path, size_t maxSize);

}  // namespace tse

#endif
