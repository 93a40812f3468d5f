// An argument vector through the option reader: the input's NUL bytes
// separate the arguments.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "signature-verification.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::cout.setstate(std::ios::badbit);
    std::vector<std::string> arguments{"signature-verification"};
    arguments.emplace_back();
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\0') {
            arguments.emplace_back();
        } else {
            arguments.back() += static_cast<char>(data[i]);
        }
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(&argument[0]);
    }
    argv.push_back(nullptr);
    GetOptions(static_cast<int>(arguments.size()), argv.data());
    // The paths point into this input's arguments: check them while they
    // live, then forget them.
    for (const char* path : {certPath, logPath}) {
        if (path != nullptr && std::string(path).size() > size) {
            std::abort();
        }
    }
    certPath = nullptr;
    logPath = nullptr;
    qrString.clear();
    return 0;
}
