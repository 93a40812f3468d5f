// Stands in for libFuzzer where it is missing: runs the target once over
// every file named, and every file inside the directories named, so that
// any compiler can replay the corpora.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replay(const std::filesystem::path& file)
{
    std::ifstream input(file, std::ios::binary);
    if (!input) {
        std::cerr << "cannot read " << file << '\n';
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
    // A fresh copy of exactly the input's size, as libFuzzer hands it over.
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    size_t count = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path argument(argv[i]);
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argument)) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(argument)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
        } else {
            files.push_back(argument);
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            ok = replay(file) && ok;
            ++count;
        }
    }
    std::cerr << "replayed " << count << " inputs\n";
    return ok && count > 0 ? 0 : 1;
}
