#include "receipt_pictures.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>

#include <qrencode.h>
#include <stb_image_write.h>

#include "log_encoder.h"
#include "log_time.h"
#include "signer.h"

namespace pictures {

namespace {

constexpr uint8_t paperGrey = 238;
constexpr uint8_t tableGrey = 70;
constexpr uint8_t inkGrey = 25;
constexpr double pi = 3.14159265358979323846;

uint8_t& at(Picture& picture, int x, int y)
{
    return picture.pixels[static_cast<size_t>(y) * static_cast<size_t>(picture.width) + static_cast<size_t>(x)];
}

uint8_t clamped(double value)
{
    return static_cast<uint8_t>(std::clamp(std::lround(value), 0L, 255L));
}

Picture filled(int width, int height, uint8_t grey)
{
    return {width, height, std::vector<uint8_t>(static_cast<size_t>(width) * static_cast<size_t>(height), grey)};
}

void fillRect(Picture& picture, int left, int top, int width, int height, uint8_t grey)
{
    for (int y = std::max(top, 0); y < std::min(top + height, picture.height); ++y) {
        for (int x = std::max(left, 0); x < std::min(left + width, picture.width); ++x) {
            at(picture, x, y) = grey;
        }
    }
}

// Bilinear sample; outside the picture is the table.
double sample(const Picture& picture, double x, double y)
{
    const int x0 = static_cast<int>(std::floor(x));
    const int y0 = static_cast<int>(std::floor(y));
    const double fx = x - x0;
    const double fy = y - y0;
    auto pixel = [&](int px, int py) -> double {
        if (px < 0 || py < 0 || px >= picture.width || py >= picture.height) {
            return tableGrey;
        }
        return picture.pixels[static_cast<size_t>(py) * static_cast<size_t>(picture.width) + static_cast<size_t>(px)];
    };
    return (pixel(x0, y0) * (1 - fx) + pixel(x0 + 1, y0) * fx) * (1 - fy) +
           (pixel(x0, y0 + 1) * (1 - fx) + pixel(x0 + 1, y0 + 1) * fx) * fy;
}

struct QrModules {
    int size = 0;
    std::vector<bool> dark;
};

QrModules encodeQr(const std::string& text)
{
    std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_M, QR_MODE_8, 1), QRcode_free);
    if (!code) {
        throw std::runtime_error("libqrencode cannot encode the text");
    }
    QrModules modules{code->width, {}};
    for (int i = 0; i < code->width * code->width; ++i) {
        modules.dark.push_back((code->data[i] & 1) != 0);
    }
    return modules;
}

// Rows of word-like bars, as a receipt's printed lines look to a reader.
int drawPrintedLines(Picture& picture, int left, int top, int width, int lines, std::mt19937& random)
{
    const int lineHeight = 14;
    for (int line = 0; line < lines; ++line) {
        int x = left;
        const int y = top + line * (lineHeight + 8);
        while (true) {
            const int word = 10 + static_cast<int>(random() % 50);
            if (x + word > left + width) {
                break;
            }
            fillRect(picture, x, y, word, lineHeight, inkGrey);
            x += word + 8;
        }
    }
    return top + lines * (lineHeight + 8);
}

void appendTo(void* context, void* data, int size)
{
    auto* out = static_cast<Bytes*>(context);
    const auto* bytes = static_cast<const uint8_t*>(data);
    out->insert(out->end(), bytes, bytes + size);
}

Picture paperWithCodes(const std::vector<QrModules>& codes, int modulePixels)
{
    int codeWidth = 200;
    int codeHeights = 0;
    for (const QrModules& code : codes) {
        const int side = (code.size + 8) * modulePixels;
        codeWidth = std::max(codeWidth, side);
        codeHeights += side + 20;
    }
    const int paperWidth = codeWidth + 60;
    const int paperHeight = 40 + 6 * 22 + 20 + codeHeights + 40;
    const int margin = 60;
    Picture picture = filled(paperWidth + 2 * margin, paperHeight + 2 * margin, tableGrey);
    fillRect(picture, margin, margin, paperWidth, paperHeight, paperGrey);
    std::mt19937 random(7);
    int y = drawPrintedLines(picture, margin + 30, margin + 40, codeWidth, 6, random) + 20;
    for (const QrModules& code : codes) {
        const int side = (code.size + 8) * modulePixels;
        const int left = margin + (paperWidth - side) / 2;
        for (int row = 0; row < code.size; ++row) {
            for (int column = 0; column < code.size; ++column) {
                if (code.dark[static_cast<size_t>(row) * static_cast<size_t>(code.size) +
                              static_cast<size_t>(column)]) {
                    fillRect(picture, left + (column + 4) * modulePixels, y + (row + 4) * modulePixels, modulePixels,
                             modulePixels, inkGrey);
                }
            }
        }
        y += side + 20;
    }
    return picture;
}

}  // namespace

std::string signedReceiptText(tse::Curve curve, tse::Hash hash, uint64_t transactionNumber)
{
    const int64_t startTime = 1627903721;
    tse::TransactionData transaction;
    transaction.clientId = "DEMO-KASSE-01";
    const std::string processData = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
    transaction.processData = tse::Bytes(processData.begin(), processData.end());
    transaction.processType = "Kassenbeleg-V1";
    transaction.transactionNumber = transactionNumber;
    return tse::signedReceiptText(tse::Signer(curve), hash, transaction, transactionNumber * 2 + 1, startTime,
                                  startTime + 17);
}

Picture receipt(const std::vector<std::string>& codeTexts, int modulePixels)
{
    std::vector<QrModules> codes;
    for (const std::string& text : codeTexts) {
        codes.push_back(encodeQr(text));
    }
    return paperWithCodes(codes, modulePixels);
}

Picture receiptWithoutCode()
{
    return paperWithCodes({}, 1);
}

Picture rotated(const Picture& picture, double degrees)
{
    const double angle = degrees * pi / 180;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    const int width = static_cast<int>(std::ceil(std::abs(picture.width * c) + std::abs(picture.height * s)));
    const int height = static_cast<int>(std::ceil(std::abs(picture.width * s) + std::abs(picture.height * c)));
    Picture out = filled(width, height, tableGrey);
    const double cx = picture.width / 2.0;
    const double cy = picture.height / 2.0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double dx = x - width / 2.0;
            const double dy = y - height / 2.0;
            at(out, x, y) = clamped(sample(picture, cx + dx * c - dy * s, cy + dx * s + dy * c));
        }
    }
    return out;
}

Picture perspective(const Picture& picture, double narrowing)
{
    // The projective map of the unit square onto the source quadrilateral
    // whose bottom corners are the picture's and whose top corners lie
    // further apart: drawn into the full width, the top looks narrower.
    const double w = picture.width;
    const double h = picture.height;
    const double inset = -narrowing * w / 2;
    const double x0 = inset, y0 = 0, x1 = w - inset, y1 = 0, x2 = w, y2 = h, x3 = 0, y3 = h;
    const double dx1 = x1 - x2, dx2 = x3 - x2, dx3 = x0 - x1 + x2 - x3;
    const double dy1 = y1 - y2, dy2 = y3 - y2, dy3 = y0 - y1 + y2 - y3;
    const double det = dx1 * dy2 - dx2 * dy1;
    const double g = (dx3 * dy2 - dx2 * dy3) / det;
    const double k = (dx1 * dy3 - dx3 * dy1) / det;
    const double a = x1 - x0 + g * x1, b = x3 - x0 + k * x3, c = x0;
    const double d = y1 - y0 + g * y1, e = y3 - y0 + k * y3, f = y0;
    Picture out = filled(picture.width, picture.height, tableGrey);
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
            const double u = x / w;
            const double v = y / h;
            const double q = g * u + k * v + 1;
            at(out, x, y) = clamped(sample(picture, (a * u + b * v + c) / q, (d * u + e * v + f) / q));
        }
    }
    return out;
}

Picture blurred(const Picture& picture, double sigma)
{
    const int radius = static_cast<int>(std::ceil(3 * sigma));
    std::vector<double> kernel;
    double total = 0;
    for (int i = -radius; i <= radius; ++i) {
        kernel.push_back(std::exp(-i * i / (2 * sigma * sigma)));
        total += kernel.back();
    }
    auto pass = [&](const Picture& in, int stepX, int stepY) {
        Picture out = in;
        for (int y = 0; y < in.height; ++y) {
            for (int x = 0; x < in.width; ++x) {
                double sum = 0;
                for (int i = -radius; i <= radius; ++i) {
                    const int sx = std::clamp(x + i * stepX, 0, in.width - 1);
                    const int sy = std::clamp(y + i * stepY, 0, in.height - 1);
                    const int tap = i + radius;
                    sum +=
                        kernel[static_cast<size_t>(tap)] *
                        in.pixels[(static_cast<size_t>(sy) * static_cast<size_t>(in.width)) + static_cast<size_t>(sx)];
                }
                at(out, x, y) = clamped(sum / total);
            }
        }
        return out;
    };
    return pass(pass(picture, 1, 0), 0, 1);
}

Picture overexposed(const Picture& picture)
{
    Picture out = picture;
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
            uint8_t lightest = 0;
            for (int sy = std::max(y - 1, 0); sy <= std::min(y + 1, picture.height - 1); ++sy) {
                for (int sx = std::max(x - 1, 0); sx <= std::min(x + 1, picture.width - 1); ++sx) {
                    lightest =
                        std::max(lightest, picture.pixels[static_cast<size_t>(sy) * static_cast<size_t>(picture.width) +
                                                          static_cast<size_t>(sx)]);
                }
            }
            at(out, x, y) = lightest;
        }
    }
    return out;
}

Picture noisy(const Picture& picture, double sigma, unsigned seed)
{
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0, sigma);
    Picture out = picture;
    for (uint8_t& pixel : out.pixels) {
        pixel = clamped(pixel + noise(random));
    }
    return out;
}

Picture shaded(const Picture& picture, double strength)
{
    Picture out = picture;
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
            const double distance =
                (static_cast<double>(x) / picture.width + static_cast<double>(y) / picture.height) / 2;
            at(out, x, y) = clamped(at(out, x, y) * (1 - strength * distance));
        }
    }
    return out;
}

Picture scaled(const Picture& picture, double factor)
{
    const int width = std::max(1, static_cast<int>(picture.width * factor));
    const int height = std::max(1, static_cast<int>(picture.height * factor));
    Picture out = filled(width, height, tableGrey);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            at(out, x, y) = clamped(sample(picture, (x + 0.5) / factor - 0.5, (y + 0.5) / factor - 0.5));
        }
    }
    return out;
}

Picture faded(const Picture& picture, double contrast)
{
    Picture out = picture;
    for (uint8_t& pixel : out.pixels) {
        pixel = clamped(128 + (pixel - 128) * contrast);
    }
    return out;
}

std::vector<SeriesPicture> gradedSeries(const std::vector<std::string>& texts, int count, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<SeriesPicture> series;
    for (int i = 0; i < count && !texts.empty(); ++i) {
        const double grade = count > 1 ? static_cast<double>(i) / (count - 1) : 0;
        const std::string& text = texts[static_cast<size_t>(i) % texts.size()];
        const int module = 3 + static_cast<int>(random() % 3);
        // Each distortion somewhere between half and all of what the grade
        // allows, so that pictures of one grade differ.
        auto upTo = [&](double most) { return most * grade * (0.5 + 0.5 * unit(random)); };
        const double narrowing = upTo(0.25);
        const double angle = i == 0 ? 0 : 360 * unit(random);
        const double blur = module * (0.15 + upTo(0.2));
        const double noise = 2 + upTo(16);
        const double shade = upTo(0.6);
        const double contrast = 1 - upTo(0.5);
        const int quality = 92 - static_cast<int>(upTo(52));
        Picture photo = rotated(perspective(receipt({text}, module), narrowing), angle);
        photo = noisy(faded(shaded(blurred(photo, blur), shade), contrast), noise, seed + static_cast<unsigned>(i));
        char name[200];
        std::snprintf(name, sizeof(name),
                      "%02d module %d, perspective %.2f, turned %.0f, blur %.1f, shade %.2f, contrast %.2f, "
                      "noise %.1f, JPEG %d",
                      i, module, narrowing, angle, blur, shade, contrast, noise, quality);
        series.push_back({name, text, jpeg(photo, quality)});
    }
    return series;
}

Bytes jpeg(const Picture& picture, int quality)
{
    Bytes out;
    if (stbi_write_jpg_to_func(appendTo, &out, picture.width, picture.height, 1, picture.pixels.data(), quality) == 0) {
        throw std::runtime_error("stb cannot write the JPEG");
    }
    return out;
}

Bytes png(const Picture& picture)
{
    Bytes out;
    if (stbi_write_png_to_func(appendTo, &out, picture.width, picture.height, 1, picture.pixels.data(),
                               picture.width) == 0) {
        throw std::runtime_error("stb cannot write the PNG");
    }
    return out;
}

Bytes pdfOfJpegs(const std::vector<Picture>& pages, int quality, double pictureDpi)
{
    // Objects: 1 catalog, 2 page tree, then per page: page, content, image.
    std::string pdf = "%PDF-1.4\n";
    std::vector<size_t> offsets;
    auto object = [&](const std::string& body) {
        offsets.push_back(pdf.size());
        pdf += std::to_string(offsets.size()) + " 0 obj\n" + body + "\nendobj\n";
    };
    object("<< /Type /Catalog /Pages 2 0 R >>");
    std::string kids;
    for (size_t i = 0; i < pages.size(); ++i) {
        kids += std::to_string(3 + 3 * i) + " 0 R ";
    }
    object("<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages.size()) + " >>");
    const double pageWidth = 595;
    const double pageHeight = 842;
    for (size_t i = 0; i < pages.size(); ++i) {
        const Picture& picture = pages[i];
        const size_t pageObject = 3 + 3 * i;
        const double width = picture.width * 72 / pictureDpi;
        const double height = picture.height * 72 / pictureDpi;
        std::ostringstream placement;
        placement << "q " << width << " 0 0 " << height << " " << (pageWidth - width) / 2 << " "
                  << (pageHeight - height) / 2 << " cm /Im0 Do Q";
        const std::string content = placement.str();
        // stb writes every JPEG with three colour components, grey or not.
        const Bytes image = jpeg(picture, quality);
        object("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Resources << /XObject << /Im0 " +
               std::to_string(pageObject + 2) + " 0 R >> >> /Contents " + std::to_string(pageObject + 1) + " 0 R >>");
        object("<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content + "\nendstream");
        object("<< /Type /XObject /Subtype /Image /Width " + std::to_string(picture.width) + " /Height " +
               std::to_string(picture.height) + " /ColorSpace /DeviceRGB /BitsPerComponent 8 /Filter /DCTDecode" +
               " /Length " + std::to_string(image.size()) + " >>\nstream\n" + std::string(image.begin(), image.end()) +
               "\nendstream");
    }
    const size_t xref = pdf.size();
    pdf += "xref\n0 " + std::to_string(offsets.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t offset : offsets) {
        char entry[21];
        std::snprintf(entry, sizeof(entry), "%010zu 00000 n \n", offset);
        pdf += entry;
    }
    pdf += "trailer\n<< /Size " + std::to_string(offsets.size() + 1) + " /Root 1 0 R >>\nstartxref\n" +
           std::to_string(xref) + "\n%%EOF\n";
    return Bytes(pdf.begin(), pdf.end());
}

}  // namespace pictures
