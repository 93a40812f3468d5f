// Stands in for libFuzzer where it is missing: runs the target once over
// every file named and every file below the directories named, so that any
// compiler can replay the corpora.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char* argv[])
{
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            files.emplace_back(argv[i]);
            continue;
        }
        for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path());
            }
        }
    }
    for (const fs::path& file : files) {
        std::ifstream input(file, std::ios::binary);
        if (!input) {
            std::cerr << "cannot read " << file << '\n';
            return 1;
        }
        // A copy of exactly the input's size, as libFuzzer hands it over.
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::cerr << "replayed " << files.size() << " inputs\n";
    return files.empty() ? 1 : 0;
}
