// tse-check receipt --image with the picture formats phones and scanners
// write, made at test time by the tools that write them, and with pictures
// and PDFs built to make the reader work without end.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "fixtures.h"
#include "receipt_pictures.h"

using fixtures::run;
using fixtures::tseCheckPath;
using pictures::Bytes;

namespace {

const std::string& receiptText()
{
    static const std::string text = pictures::signedReceiptText(tse::Curve::Secp256r1, tse::Hash::Sha256, 16);
    return text;
}

Bytes readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// path holding the picture, converted by a command line; empty when the
// tool is missing.
std::string converted(const fixtures::TempDir& dir, const std::string& source, const std::string& name,
                      const std::vector<std::string>& command)
{
    std::vector<std::string> arguments(command.begin() + 1, command.end());
    for (std::string& argument : arguments) {
        if (argument == "IN") argument = source;
        if (argument == "OUT") argument = dir.path(name);
    }
    // run() starts a program by its path, not through the search path.
    const auto result = run("/usr/bin/env", [&] {
        std::vector<std::string> all{command[0]};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }());
    EXPECT_EQ(result.status, 0) << command[0] << ": " << result.err;
    return dir.path(name);
}

// An EXIF block (APP1) saying "turn 90 degrees clockwise to show", put
// right after the JPEG's start marker.
Bytes withExifOrientation6(const Bytes& jpeg)
{
    const Bytes exif = {0xff, 0xe1, 0,    34,   'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8,
                        0,    1,    0x01, 0x12, 0,   3,   0,   0,   0, 1, 0,   6,   0, 0,  0, 0, 0, 0};
    Bytes out(jpeg.begin(), jpeg.begin() + 2);
    out.insert(out.end(), exif.begin(), exif.end());
    out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
    return out;
}

nlohmann::json receiptJson(const std::vector<std::string>& arguments)
{
    std::vector<std::string> all = {"receipt", "--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const auto result = run(tseCheckPath(), all, {}, {60, 0});
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out.empty() ? "[]" : result.out);
}

std::pair<double, double> centreOf(const nlohmann::json& corners)
{
    double x = 0, y = 0;
    for (const auto& corner : corners) {
        x += corner.at(0).get<double>() / 4;
        y += corner.at(1).get<double>() / 4;
    }
    return {x, y};
}

// Every format is read and its code found where it is in the PNG: the
// JPEG, stored sideways with an EXIF orientation, is read upright.
TEST(PictureFormats, EachFormatIsReadAndItsTruncationIsAClearError)
{
    const fixtures::TempDir dir;
    const pictures::Picture upright = pictures::receipt({receiptText()}, 4);
    const std::string png = dir.write("receipt.png", pictures::png(upright));
    const std::string sideways =
        dir.write("sideways.jpg", withExifOrientation6(pictures::jpeg(pictures::rotated(upright, 90), 90)));
    const std::vector<std::pair<std::string, std::string>> files = {
        {"PNG", png},
        {"JPEG", sideways},
        {"HEIC", converted(dir, png, "receipt.heic", {"heif-enc", "-q", "90", "IN", "-o", "OUT"})},
        {"WebP", converted(dir, png, "receipt.webp", {"cwebp", "-quiet", "-q", "90", "IN", "-o", "OUT"})},
        {"TIFF", converted(dir, png, "receipt.tif", {"convert", "IN", "-compress", "lzw", "OUT"})},
        {"GIF", converted(dir, png, "receipt.gif", {"convert", "IN", "OUT"})},
        {"BMP", converted(dir, png, "receipt.bmp", {"convert", "IN", "OUT"})},
    };
    std::pair<double, double> pngCentre;
    for (const auto& [format, file] : files) {
        const nlohmann::json receipts = receiptJson({"--image", file});
        ASSERT_EQ(receipts.size(), 1u) << format;
        EXPECT_EQ(receipts[0].at("text"), receiptText()) << format;
        EXPECT_EQ(receipts[0].at("verdict"), "valid") << format;
        EXPECT_TRUE(receipts[0].at("page").is_null()) << format;
        const nlohmann::json& corners = receipts[0].at("corners");
        ASSERT_EQ(corners.size(), 4u) << format;
        const std::pair<double, double> centre = centreOf(corners);
        if (format == "PNG") pngCentre = centre;
        EXPECT_NEAR(centre.first, pngCentre.first, 4) << format;
        EXPECT_NEAR(centre.second, pngCentre.second, 4) << format;

        // Cut at two thirds and after the first 40 bytes: the file is named
        // and the picture called damaged, never "holds no QR code".
        const Bytes whole = readAll(file);
        for (size_t keep : {whole.size() * 2 / 3, size_t{40}}) {
            const std::string cut = dir.write("cut-" + std::to_string(keep) + "-" + format,
                                              Bytes(whole.begin(), whole.begin() + static_cast<long>(keep)));
            const auto result = run(tseCheckPath(), {"receipt", "--image", cut}, {}, {60, 0});
            EXPECT_EQ(result.status, 2) << format << " cut to " << keep;
            EXPECT_NE(result.err.find("Picture " + cut + " cannot be read: the " + format + " picture"),
                      std::string::npos)
                << format << " cut to " << keep << ": " << result.err;
        }
    }
}

TEST(PictureFormats, OnePictureOnStandardInput)
{
    const fixtures::TempDir dir;
    const std::string photo = dir.write(
        "photo.jpg",
        pictures::jpeg(pictures::noisy(pictures::rotated(pictures::receipt({receiptText()}, 4), 30), 8, 1), 80));
    const auto result = run("/bin/sh", {"-c", "\"$0\" receipt --json --image - < \"$1\"", tseCheckPath(), photo});
    ASSERT_EQ(result.status, 0) << result.err;
    const nlohmann::json receipts = nlohmann::json::parse(result.out);
    ASSERT_EQ(receipts.size(), 1u);
    EXPECT_EQ(receipts[0].at("source"), "stdin");
    EXPECT_EQ(receipts[0].at("text"), receiptText());

    const auto twice = run(tseCheckPath(), {"receipt", "--image", "-", "--from", "-"});
    EXPECT_EQ(twice.status, 2);
    EXPECT_NE(twice.err.find("Standard input can be read once"), std::string::npos) << twice.err;
}

// Two codes on one receipt are told apart by where they are.
TEST(PictureFormats, CornersTellTwoCodesApart)
{
    const fixtures::TempDir dir;
    const std::string other = pictures::signedReceiptText(tse::Curve::BrainpoolP256r1, tse::Hash::Sha256, 17);
    const std::string file = dir.write("two.png", pictures::png(pictures::receipt({receiptText(), other}, 4)));
    const nlohmann::json receipts = receiptJson({"--image", file});
    ASSERT_EQ(receipts.size(), 2u);
    EXPECT_EQ(receipts[0].at("text"), receiptText());
    EXPECT_EQ(receipts[1].at("text"), other);
    auto bottom = [](const nlohmann::json& receipt) {
        int most = 0;
        for (const auto& corner : receipt.at("corners")) most = std::max(most, corner.at(1).get<int>());
        return most;
    };
    auto top = [](const nlohmann::json& receipt) {
        int least = 1 << 30;
        for (const auto& corner : receipt.at("corners")) least = std::min(least, corner.at(1).get<int>());
        return least;
    };
    EXPECT_LT(bottom(receipts[0]), top(receipts[1]));
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

// A small real picture whose header then claims width x height: the size
// fields of a PNG's IHDR (with its checksum made right) or a JPEG's frame
// header.
Bytes claimingSize(Bytes picture, uint32_t width, uint32_t height)
{
    if (picture[0] == 0x89) {
        for (int i = 0; i < 4; ++i) {
            picture[16 + static_cast<size_t>(i)] = static_cast<uint8_t>(width >> (24 - 8 * i));
            picture[20 + static_cast<size_t>(i)] = static_cast<uint8_t>(height >> (24 - 8 * i));
        }
        const uint32_t crc = crc32(picture.data() + 12, 17);
        for (int i = 0; i < 4; ++i) picture[29 + static_cast<size_t>(i)] = static_cast<uint8_t>(crc >> (24 - 8 * i));
        return picture;
    }
    for (size_t at = 2; at + 9 < picture.size();) {
        const uint8_t marker = picture[at + 1];
        if (marker == 0xc0 || marker == 0xc2) {
            picture[at + 5] = static_cast<uint8_t>(height >> 8);
            picture[at + 6] = static_cast<uint8_t>(height);
            picture[at + 7] = static_cast<uint8_t>(width >> 8);
            picture[at + 8] = static_cast<uint8_t>(width);
            return picture;
        }
        at += 2 + (size_t{picture[at + 2]} << 8 | picture[at + 3]);
    }
    ADD_FAILURE() << "no frame header in the JPEG";
    return picture;
}

// A PDF of the objects given after the catalog (object 1) and the page
// tree (object 2), whose pages are objects 3 to 2 + pages.
std::string pdfOf(int pages, const std::vector<std::string>& objects)
{
    std::string pdf = "%PDF-1.4\n";
    std::vector<size_t> offsets;
    auto object = [&](const std::string& body) {
        offsets.push_back(pdf.size());
        pdf += std::to_string(offsets.size()) + " 0 obj\n" + body + "\nendobj\n";
    };
    object("<< /Type /Catalog /Pages 2 0 R >>");
    std::string kids;
    for (int i = 0; i < pages; ++i) kids += std::to_string(3 + i) + " 0 R ";
    object("<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages) + " >>");
    for (const std::string& body : objects) object(body);
    const size_t xref = pdf.size();
    pdf += "xref\n0 " + std::to_string(offsets.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t offset : offsets) {
        char entry[21];
        std::snprintf(entry, sizeof(entry), "%010zu 00000 n \n", offset);
        pdf += entry;
    }
    return pdf + "trailer\n<< /Size " + std::to_string(offsets.size() + 1) + " /Root 1 0 R >>\nstartxref\n" +
           std::to_string(xref) + "\n%%EOF\n";
}

std::string streamObject(const std::string& dictionary, const std::string& data)
{
    return "<< /Length " + std::to_string(data.size()) + " " + dictionary + " >>\nstream\n" + data + "\nendstream";
}

// The given number of blank pages of size points square.
std::string blankPdf(int pages, int size)
{
    std::vector<std::string> objects;
    for (int i = 0; i < pages; ++i) {
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + std::to_string(size) + " " +
                          std::to_string(size) + "] >>");
    }
    return pdfOf(pages, objects);
}

// One page whose content draws a form that draws the next form ten times,
// nine forms deep: a billion rectangles from two kilobytes.
std::string nestedFormsPdf()
{
    constexpr int depth = 9;
    std::vector<std::string> objects = {
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 4 0 R /Resources << /XObject << /F 5 0 R >> >> >>",
        streamObject("", "/F Do")};
    for (int level = 0; level < depth; ++level) {
        const std::string form = "/Type /XObject /Subtype /Form /BBox [0 0 200 200]";
        if (level + 1 == depth) {
            objects.push_back(streamObject(form, "0 0 1 1 re f"));
        } else {
            std::string draws;
            for (int i = 0; i < 10; ++i) draws += "/F Do ";
            objects.push_back(streamObject(
                form + " /Resources << /XObject << /F " + std::to_string(6 + level) + " 0 R >> >>", draws));
        }
    }
    return pdfOf(1, objects);
}

// A zlib stream of `count` spaces, written as one block of fixed codes: a
// literal space, then copies of 258 bytes from one back (13 bits each).
std::string spacesDeflated(uint64_t count)
{
    std::string out = "\x78\x01";
    uint32_t bits = 0;
    int used = 0;
    const auto put = [&](uint32_t value, int length) {  // least significant bit first
        bits |= value << used;
        for (used += length; used >= 8; used -= 8, bits >>= 8) out += static_cast<char>(bits & 0xFF);
    };
    // Huffman codes go most significant bit first.
    const auto code = [&](uint32_t value, int length) {
        for (int i = length - 1; i >= 0; --i) put((value >> i) & 1, 1);
    };
    put(1, 1);            // the last block
    put(1, 2);            // fixed codes
    code(0x30 + ' ', 8);  // the literal
    const uint64_t copies = (count - 1) / 258;
    for (uint64_t i = 0; i < copies; ++i) {
        code(0xC0 + 5, 8);  // length 258
        code(0, 5);         // distance 1
    }
    code(0, 7);  // end of block
    if (used > 0) put(0, 8 - used);
    const uint64_t n = 1 + copies * 258;
    const uint64_t a = (1 + 32 * n) % 65521, b = (n + 32 * (n % 65521) * ((n + 1) % 65521) % 65521 * 32761) % 65521;
    const uint32_t adler = static_cast<uint32_t>(b << 16 | a);
    for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((adler >> shift) & 0xFF);
    return out;
}

// One page whose 14 MB content stream inflates to 2 GiB of spaces.
std::string inflatingPdf()
{
    return pdfOf(1, {"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 4 0 R >>",
                     streamObject("/Filter /FlateDecode", spacesDeflated(uint64_t{2} << 30))});
}

// Inputs made to cost memory or time, and a format not read: each is
// refused or bounded with a clear message, within a time limit on the
// process and a memory limit far below what decoding the claimed pixels
// would take.
TEST(PictureFormats, HugeClaimsAndPagesAreBounded)
{
    const fixtures::TempDir dir;
    const pictures::Picture small = pictures::receiptWithoutCode();
    const struct {
        const char* name;
        std::string content;
        int status;
        const char* message;
    } cases[] = {
        {"huge.png",
         [&] {
             const Bytes b = claimingSize(pictures::png(small), 100000, 100000);
             return std::string(b.begin(), b.end());
         }(),
         2, "100000x100000 pixels, more than the 100 megapixels allowed"},
        {"large.png",
         [&] {
             const Bytes b = claimingSize(pictures::png(small), 11000, 11000);
             return std::string(b.begin(), b.end());
         }(),
         2, "11000x11000 pixels, more than the 100 megapixels allowed"},
        {"huge.jpg",
         [&] {
             const Bytes b = claimingSize(pictures::jpeg(small, 80), 60000, 60000);
             return std::string(b.begin(), b.end());
         }(),
         2, "60000x60000 pixels, more than the 100 megapixels allowed"},
        // 200 x 200 inches: rendered coarser, within the page bound.
        {"huge-page.pdf", blankPdf(1, 14400), 2, "holds no QR code"},
        {"50-huge-pages.pdf", blankPdf(50, 14400), 2, "holds no QR code"},
        {"200-pages.pdf", blankPdf(200, 14400), 2, "the PDF has 200 pages, more than the 50 read from one file"},
        // Poppler draws and inflates all of a page before any bound of ours
        // applies: the renderer's own process runs out of time instead.
        {"nested-forms.pdf", nestedFormsPdf(), 2, "page 1 of the PDF could not be rendered within its processor time"},
        {"inflating.pdf", inflatingPdf(), 2, "page 1 of the PDF could not be rendered within its processor time"},
        // libvips could read it, but a drawing is no photo of a receipt.
        {"drawing.svg",
         "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"9\" height=\"9\"><rect width=\"9\" height=\"9\"/></svg>", 2,
         "not a picture tse-check reads (PNG, JPEG, WebP, HEIC/HEIF, TIFF, GIF, BMP or PDF)"},
    };
    for (const auto& c : cases) {
        const std::string file = dir.write(c.name, c.content);
        const auto result = run(tseCheckPath(), {"receipt", "--image", file}, {}, {120, 1'000'000});
        EXPECT_EQ(result.stopped, "") << c.name;
        EXPECT_EQ(result.status, c.status) << c.name << ": " << result.err;
        EXPECT_NE(result.err.find(file), std::string::npos) << c.name << ": " << result.err;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << c.name << ": " << result.err;
    }
}

}  // namespace
