#include <gtest/gtest.h>

#include <set>

#include <nlohmann/json.hpp>

#include "fixtures.h"
#include "receipt_pictures.h"

using fixtures::run;
using fixtures::tseCheckPath;

namespace {

// Until the receipt command is merged, the help lists no such subcommand
// (and "receipt --help" prints the general help with status 0).
bool receiptCommandBuilt()
{
    return run(tseCheckPath(), {"--help"}).out.find("\n  receipt ") != std::string::npos;
}

// Photographed and scanned receipts go through tse-check receipt --image
// and come out verified, each code named by its file and page.
TEST(ReceiptPictures, VerifiesEveryCodeInPhotosAndPdfPages)
{
    if (!receiptCommandBuilt()) {
        GTEST_SKIP() << "tse-check receipt is not built in this version";
    }
    const std::string p256 = pictures::signedReceiptText(tse::Curve::Secp256r1, tse::Hash::Sha256, 7);
    const std::string brainpool = pictures::signedReceiptText(tse::Curve::BrainpoolP256r1, tse::Hash::Sha256, 8);
    const pictures::Picture both = pictures::receipt({p256, brainpool}, 4);
    const fixtures::TempDir dir;
    const std::string photo = dir.write(
        "photo.jpg", pictures::jpeg(pictures::noisy(pictures::blurred(pictures::rotated(both, 160), 1.0), 10, 2), 70));
    const std::string scan =
        dir.write("scan.pdf", pictures::pdfOfJpegs({pictures::receiptWithoutCode(), both}, 75, 200));

    const auto result = run(tseCheckPath(), {"receipt", "--json", "--image", photo, scan});
    EXPECT_EQ(result.status, 0) << result.err;
    const nlohmann::json receipts = nlohmann::json::parse(result.out);
    ASSERT_EQ(receipts.size(), 4u) << result.out;
    std::multiset<std::string> texts;
    for (const auto& receipt : receipts) {
        EXPECT_EQ(receipt.at("verdict"), "valid") << receipt.dump();
        texts.insert(receipt.at("text").get<std::string>());
    }
    EXPECT_EQ(texts, (std::multiset<std::string>{p256, p256, brainpool, brainpool}));
    EXPECT_NE(receipts[0].at("source").get<std::string>().find("photo.jpg"), std::string::npos);
    EXPECT_NE(receipts[3].at("source").get<std::string>().find("scan.pdf page 2"), std::string::npos);
}

TEST(ReceiptPictures, APictureWithoutCodeOrNoPictureAtAllIsAnError)
{
    if (!receiptCommandBuilt()) {
        GTEST_SKIP() << "tse-check receipt is not built in this version";
    }
    const fixtures::TempDir dir;
    const std::vector<std::string> files = {
        dir.write("empty.png", pictures::png(pictures::receiptWithoutCode())),
        dir.write("notes.txt", std::string("not a picture\n")),
        dir.path("missing.png"),
    };
    for (const std::string& file : files) {
        const auto result = run(tseCheckPath(), {"receipt", "--image", file});
        EXPECT_EQ(result.status, 2) << file << ": " << result.out << result.err;
        EXPECT_NE((result.out + result.err).find(file), std::string::npos) << file;
    }
}

}  // namespace
