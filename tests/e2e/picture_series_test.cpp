// The graded series of receipt photos: real receipt texts (to-qr on the
// Finish logs of real exports), photographed ever worse, read by
// `tse-check receipt --image` and by `zbarimg`, the scanner Debian ships.
// tse-check must read every picture zbarimg reads, and 90 % of all.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "bytes.h"
#include "file_reader.h"
#include "fixtures.h"
#include "log_message.h"
#include "receipt_pictures.h"

using fixtures::run;
using fixtures::tseCheckPath;

namespace {

namespace fs = std::filesystem;

constexpr int seriesSize = 60;
// TSE_PICTURE_SEED=N reproduces (or varies) the series.
unsigned seriesSeed()
{
    const char* seed = std::getenv("TSE_PICTURE_SEED");
    return seed != nullptr ? static_cast<unsigned>(std::strtoul(seed, nullptr, 10)) : 16;
}

// The receipt texts of the first Finish logs of each real export whose
// receipts name a key (P-256 with unixTime and utcTime, secp384r1).
std::vector<std::string> realReceiptTexts(const fixtures::TempDir& dir)
{
    std::vector<std::string> texts;
    for (const char* name : {"2021-09-30_63641_TSE", "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015",
                             "6e6c6a42-5c8d-4a9c-9572-26c10619d020"}) {
        const std::string exportDir = fixtures::unpackRealExport(dir, name);
        std::map<std::string, std::string> certificates;  // by the serial in the file name
        std::set<std::string> finishLogs;
        for (const auto& entry : fs::directory_iterator(exportDir)) {
            const std::string file = entry.path().filename().string();
            std::string serial = file.substr(0, 64);
            std::transform(serial.begin(), serial.end(), serial.begin(),
                           [](char c) { return static_cast<char>(std::toupper(c)); });
            if (file.find("_X509") != std::string::npos) certificates[serial] = entry.path();
            if (file.find("_Finish_") != std::string::npos) finishLogs.insert(entry.path().string());
        }
        int taken = 0;
        for (const std::string& log : finishLogs) {
            if (taken == 4) break;
            const tse::Result<tse::LogMessage> parse =
                tse::parseLogMessage(tse::readFileBounded(log, 1 << 20).value_or(tse::Bytes{}));
            if (!parse) continue;
            const auto qr =
                run(tseCheckPath(), {"to-qr", "--cert", certificates[tse::toHex(parse->serialNumber)], log});
            if (qr.status != 0) continue;
            texts.push_back(qr.out.substr(0, qr.out.find('\n')));
            ++taken;
        }
    }
    return texts;
}

bool zbarimgReads(const std::string& file, const std::string& text)
{
    const auto result = run("/usr/bin/env", {"zbarimg", "-q", "--raw", file}, {}, {60, 0});
    return result.out.find(text + "\n") != std::string::npos;
}

TEST(PictureSeries, ReadsEveryPhotoZbarimgReadsAndNineInTen)
{
    if (run("/usr/bin/env", {"zbarimg", "--version"}).status != 0) {
        FAIL() << "zbarimg is missing (Debian package zbar-tools)";
    }
    const fixtures::TempDir dir;
    const std::vector<std::string> texts = realReceiptTexts(dir);
    ASSERT_GE(texts.size(), 8u);
    const unsigned seed = seriesSeed();
    const std::vector<pictures::SeriesPicture> series = pictures::gradedSeries(texts, seriesSize, seed);

    std::vector<std::string> arguments = {"receipt", "--json", "-j2", "--image"};
    std::vector<std::string> files;
    for (size_t i = 0; i < series.size(); ++i) {
        files.push_back(dir.write("photo-" + std::to_string(i) + ".jpg", series[i].jpeg));
        arguments.push_back(files.back());
    }
    // Pictures without a code found make the status 2; what was read is
    // in the JSON all the same.
    const auto result = run(tseCheckPath(), arguments, {}, {300, 0});
    ASSERT_EQ(result.stopped, "");
    const nlohmann::json receipts = nlohmann::json::parse(result.out);
    std::set<std::pair<std::string, std::string>> readByProduct;  // source, text
    for (const auto& receipt : receipts) {
        EXPECT_EQ(receipt.at("verdict"), "valid") << receipt.dump();
        readByProduct.insert({receipt.at("source").get<std::string>(), receipt.at("text").get<std::string>()});
    }

    int product = 0, zbarimg = 0;
    for (size_t i = 0; i < series.size(); ++i) {
        const bool byProduct = readByProduct.count({files[i], series[i].text}) > 0;
        const bool byZbarimg = zbarimgReads(files[i], series[i].text);
        product += byProduct ? 1 : 0;
        zbarimg += byZbarimg ? 1 : 0;
        EXPECT_TRUE(byProduct || !byZbarimg)
            << "zbarimg reads what tse-check does not: picture " << series[i].name << " (seed " << seed << ")";
        if (!byProduct) std::cout << "not read: picture " << series[i].name << "\n";
    }
    std::cout << "graded series of " << series.size() << " receipt photos (seed " << seed << "): tse-check read "
              << product << ", zbarimg read " << zbarimg << std::endl;
    EXPECT_GE(product * 10, static_cast<int>(series.size()) * 9) << "tse-check read fewer than 90 %";
}

}  // namespace
