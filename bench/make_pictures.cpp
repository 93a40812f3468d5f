// make-pictures DIR COUNT SEED < TEXTS: writes the graded series of receipt
// photos that the picture test reads (DIR/NN.jpg, one per picture) from
// the QR code texts on standard input, one a line, and DIR/expected.txt
// with the text each picture shows, for bench/pictures.sh.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "receipt_pictures.h"

int main(int argc, char** argv)
{
    const long count = argc == 4 ? std::strtol(argv[2], nullptr, 10) : 0;
    if (count <= 0 || count > 1000) {
        std::cerr << "usage: make-pictures DIR COUNT SEED < TEXTS (COUNT 1 to 1000)" << std::endl;
        return 2;
    }
    std::vector<std::string> texts;
    for (std::string line; std::getline(std::cin, line);) {
        if (!line.empty()) texts.push_back(line);
    }
    const auto seed = static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10));
    const std::string dir = argv[1];
    std::ofstream expected(dir + "/expected.txt");
    const auto series = pictures::gradedSeries(texts, static_cast<int>(count), seed);
    for (size_t i = 0; i < series.size(); ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "%03zu.jpg", i);
        std::ofstream(dir + "/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(series[i].jpeg.data()),
                   static_cast<std::streamsize>(series[i].jpeg.size()));
        expected << name << "\t" << series[i].text << "\t" << series[i].name << "\n";
    }
    return 0;
}
