#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "code_findings.h"
#include "parallel.h"
#include "qr_image.h"
#include "receipt_pictures.h"

using pictures::Bytes;
using pictures::Picture;

namespace {

// Two real receipts, one per common curve: the longer one makes a denser
// code.
const std::string& p256Receipt()
{
    static const std::string text = pictures::signedReceiptText(tse::Curve::Secp256r1, tse::Hash::Sha256, 41);
    return text;
}
const std::string& brainpoolReceipt()
{
    static const std::string text = pictures::signedReceiptText(tse::Curve::BrainpoolP384r1, tse::Hash::Sha384, 42);
    return text;
}

std::vector<std::string> sortedTexts(const tse::ImageScan& scan)
{
    std::vector<std::string> texts;
    for (const tse::ImageCode& code : scan.codes) {
        texts.push_back(code.text);
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

struct PhotoCase {
    const char* name;
    std::function<Bytes(const Picture&)> spoil;
};

// The receipt, four pixels to a module, as photos and scans spoil it.
TEST(ScanImage, ReadsBothCodesOfASpoiltReceipt)
{
    const Picture receipt = pictures::receipt({p256Receipt(), brainpoolReceipt()}, 4);
    const std::vector<PhotoCase> cases = {
        {"plain PNG", [](const Picture& p) { return pictures::png(p); }},
        {"turned 37 degrees", [](const Picture& p) { return pictures::jpeg(pictures::rotated(p, 37), 85); }},
        {"turned 90 degrees", [](const Picture& p) { return pictures::jpeg(pictures::rotated(p, 90), 85); }},
        {"upside down", [](const Picture& p) { return pictures::jpeg(pictures::rotated(p, 180), 85); }},
        {"turned 200 degrees", [](const Picture& p) { return pictures::jpeg(pictures::rotated(p, 200), 85); }},
        {"perspective", [](const Picture& p) { return pictures::jpeg(pictures::perspective(p, 0.2), 85); }},
        {"blurred", [](const Picture& p) { return pictures::jpeg(pictures::blurred(p, 2.0), 85); }},
        {"noisy", [](const Picture& p) { return pictures::jpeg(pictures::noisy(p, 50, 1), 85); }},
        {"shaded", [](const Picture& p) { return pictures::jpeg(pictures::shaded(p, 0.8), 85); }},
        {"JPEG quality 15", [](const Picture& p) { return pictures::jpeg(p, 15); }},
        {"two pixels a module", [](const Picture& p) { return pictures::jpeg(pictures::scaled(p, 0.5), 85); }},
        // Every spoiling at once, at a strength every run reads: the codes
        // carry fresh signatures each time, so a harsher mix is read in some
        // runs and not others (the graded series measures the hard end).
        {"all at once",
         [](const Picture& p) {
             const Picture photo = pictures::perspective(pictures::rotated(p, 163), 0.08);
             return pictures::jpeg(pictures::noisy(pictures::shaded(pictures::blurred(photo, 1.0), 0.6), 8, 3), 70);
         }},
    };
    std::vector<std::string> expected = {p256Receipt(), brainpoolReceipt()};
    std::sort(expected.begin(), expected.end());
    for (const PhotoCase& photo : cases) {
        const tse::ImageScan scan = tse::scanImage(photo.spoil(receipt));
        EXPECT_EQ(scan.error, "") << photo.name;
        EXPECT_EQ(sortedTexts(scan), expected) << photo.name;
        for (const tse::ImageCode& code : scan.codes) {
            EXPECT_EQ(code.page, 0) << photo.name;
        }
    }
}

TEST(ScanImage, ReportsCodesTopToBottom)
{
    const tse::ImageScan scan =
        tse::scanImage(pictures::png(pictures::receipt({brainpoolReceipt(), p256Receipt()}, 4)));
    ASSERT_EQ(scan.codes.size(), 2u);
    EXPECT_EQ(scan.codes[0].text, brainpoolReceipt());
    EXPECT_EQ(scan.codes[1].text, p256Receipt());
}

// The corners start at the code's top left finder pattern and go round as
// ZXing gives them, whichever reader read the code. Overexposed and turned,
// this fixed code is read by ZBar alone on the plain picture, and the
// corners of its first reading are kept; they must be those ZXing finds on
// the clean picture, corner by corner.
TEST(ScanImage, CornersComeInOneOrderFromEitherReader)
{
    const std::string text =
        "V0;DEMO-KASSE-01;Kassenbeleg-V1;Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar;538;1207;2021-08-02T11:28:41.000Z;"
        "2021-08-02T11:28:58.000Z;ecdsa-plain-SHA384;unixTime;TCZA4eHPRLygJBYAtyLHgjxYz8cI5/M8wTh/BbkR9pJJ6wTecTlUZNcCOpU"
        "OaR72W1jYWmZXc2V28G5pQ0DefcPiRfnBCOheeMjLpnQJeK3he/aeV9rCGGWarozZHocF;BEhXFllXTpBXLq/R1rkKvcAen8kybZb8gyWTUf5+"
        "YkaSxqPCsuKCeXnE6V2TVAVxh4A+oOWKlhwgBeMwPjBSBuZG0z5Iqh7F+Jzsqd6RkIU6DcaXarQi474c1y75+g0CJw==";
    const Picture turned = pictures::rotated(pictures::receipt({text}, 4), 200);
    const tse::ImageScan clean = tse::scanImage(pictures::png(turned));
    const tse::ImageScan bleached = tse::scanImage(pictures::png(pictures::overexposed(turned)));
    ASSERT_EQ(clean.codes.size(), 1u);
    ASSERT_EQ(bleached.codes.size(), 1u);
    EXPECT_EQ(bleached.codes[0].text, text);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(bleached.codes[0].corners[i].x, clean.codes[0].corners[i].x, 4) << "corner " << i;
        EXPECT_NEAR(bleached.codes[0].corners[i].y, clean.codes[0].corners[i].y, 4) << "corner " << i;
    }
}

// The passes over a picture stop once every code was read twice, but not
// while a code is located where none was read: a photo with one clean code
// and one that only a later preparation reads gives both. ZXing 1.4 hands
// out no QR code that it located but could not decode, so no picture gets
// there today; the rule is pinned here.
TEST(CodeFindings, ACodeLocatedButUnreadKeepsThePassesGoing)
{
    const auto code = [](const std::string& text, double top) {
        return tse::ReadCode{text, {{{100, top}, {200, top}, {200, top + 100}, {100, top + 100}}}};
    };
    const tse::Reading a{{code("A", 100)}, {}}, b{{code("B", 400)}, {}};
    const tse::Reading unreadAtA{{}, {{150, 150}}}, unreadAtB{{}, {{150, 450}}};
    const struct {
        const char* name;
        std::vector<tse::Reading> readings;
        bool complete;
    } cases[] = {
        {"nothing", {}, false},
        {"a code located, none read", {unreadAtB}, false},
        {"read once", {a}, false},
        {"read twice", {a, a}, true},
        {"read twice, and located where it was read", {a, unreadAtA, a}, true},
        {"read twice, another located elsewhere", {a, unreadAtB, a}, false},
        {"the other read twice later", {a, unreadAtB, a, b, b}, true},
    };
    for (const auto& c : cases) {
        tse::CodeFindings findings;
        for (const tse::Reading& reading : c.readings) findings.add(reading);
        EXPECT_EQ(findings.complete(), c.complete) << c.name;
    }
    tse::CodeFindings both;
    for (const tse::Reading& reading : {b, a, unreadAtB, b}) both.add(reading);
    const std::vector<tse::ReadCode> codes = both.codes();
    ASSERT_EQ(codes.size(), 2u);
    EXPECT_EQ(codes[0].text, "A");  // top to bottom
    EXPECT_EQ(codes[1].text, "B");
}

TEST(ScanImage, ReadsEveryPageOfAPdfAndNamesThePage)
{
    const Picture first = pictures::rotated(pictures::receipt({p256Receipt()}, 4), 8);
    const Picture second = pictures::receipt({brainpoolReceipt(), p256Receipt()}, 4);
    const tse::ImageScan scan = tse::scanImage(pictures::pdfOfJpegs({first, second}, 75, 200));
    EXPECT_EQ(scan.error, "");
    ASSERT_EQ(scan.codes.size(), 3u);
    EXPECT_EQ(scan.codes[0].page, 1);
    EXPECT_EQ(scan.codes[0].text, p256Receipt());
    EXPECT_EQ(scan.codes[1].page, 2);
    EXPECT_EQ(scan.codes[1].text, brainpoolReceipt());
    EXPECT_EQ(scan.codes[2].page, 2);
}

TEST(ScanImage, APictureWithoutCodeHasNoCodeAndNoError)
{
    for (const Bytes& data : {pictures::png(pictures::receiptWithoutCode()),
                              pictures::pdfOfJpegs({pictures::receiptWithoutCode()}, 75, 200)}) {
        const tse::ImageScan scan = tse::scanImage(data);
        EXPECT_EQ(scan.error, "");
        EXPECT_TRUE(scan.codes.empty());
    }
}

uint32_t crc32(const uint8_t* data, size_t size)
{
    uint32_t crc = 0xffffffff;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// A PNG that is all header: a decoder that believed it would allocate
// width x height bytes before finding that no pixel data follows.
Bytes pngHeaderClaiming(uint32_t width, uint32_t height)
{
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n', 0, 0, 0, 13, 'I', 'H', 'D', 'R'};
    auto append32 = [&png](uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) png.push_back(static_cast<uint8_t>(value >> shift));
    };
    append32(width);
    append32(height);
    png.insert(png.end(), {8, 0, 0, 0, 0});  // grey, 8 bits
    append32(crc32(png.data() + 12, 17));
    return png;
}

TEST(ScanImage, RejectsWhatIsNoReadablePicture)
{
    std::mt19937 random(5);
    Bytes noise(4096);
    for (uint8_t& byte : noise) {
        byte = static_cast<uint8_t>(random());
    }
    const Bytes png = pictures::png(pictures::receipt({p256Receipt()}, 4));
    const Bytes jpeg = pictures::jpeg(pictures::receipt({p256Receipt()}, 4), 80);
    const std::string brokenPdf = "%PDF-1.4\n1 0 obj << /Type /Catalog >> endobj\ntrailer << >>\n";
    const struct {
        const char* name;
        Bytes data;
        const char* error;
    } cases[] = {
        {"empty", {}, "not a picture tse-check reads"},
        {"random bytes", noise, "not a picture tse-check reads"},
        {"truncated PNG", Bytes(png.begin(), png.begin() + static_cast<long>(png.size() / 2)),
         "PNG picture is damaged or cut off"},
        {"PNG signature only", Bytes(png.begin(), png.begin() + 8), "PNG picture's header cannot be read"},
        {"JPEG marker only", Bytes(jpeg.begin(), jpeg.begin() + 3), "JPEG picture's header cannot be read"},
        {"PNG of 11000 x 11000 pixels", pngHeaderClaiming(11000, 11000), "11000x11000 pixels, more than the 100"},
        {"PNG of 100000 x 100000 pixels", pngHeaderClaiming(100000, 100000), "100000x100000 pixels, more than the"},
        {"PDF without pages", Bytes(brokenPdf.begin(), brokenPdf.end()), "PDF"},
    };
    for (const auto& bad : cases) {
        const tse::ImageScan scan = tse::scanImage(bad.data);
        EXPECT_NE(scan.error.find(bad.error), std::string::npos) << bad.name << ": " << scan.error;
        EXPECT_TRUE(scan.codes.empty()) << bad.name;
    }
}

TEST(ScanImage, ScansManyPicturesAtOnce)
{
    const std::vector<Bytes> inputs = {
        pictures::jpeg(pictures::rotated(pictures::receipt({p256Receipt()}, 4), 30), 80),
        pictures::pdfOfJpegs({pictures::receipt({brainpoolReceipt()}, 4)}, 75, 200),
    };
    std::vector<tse::ImageScan> scans(8);
    tse::parallelFor(scans.size(), 4, [&](size_t i) { scans[i] = tse::scanImage(inputs[i % 2]); });
    for (size_t i = 0; i < scans.size(); ++i) {
        ASSERT_EQ(scans[i].codes.size(), 1u) << i;
        EXPECT_EQ(scans[i].codes[0].text, i % 2 == 0 ? p256Receipt() : brainpoolReceipt());
    }
}

}  // namespace
