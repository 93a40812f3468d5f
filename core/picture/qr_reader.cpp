#include "qr_reader.h"

#include <algorithm>
#include <functional>

// Results as UTF-8 text; without this ZXing 1.4 hands out wide strings.
#define ZX_USE_UTF8 1
#include <ReadBarcode.h>

namespace tse {

namespace {

struct FoundCode {
    std::string text;
    double centreX;
    double centreY;
};

struct PassResult {
    std::vector<FoundCode> codes;
    bool sawUnreadable = false;  // a code was located but its data did not decode
};

PassResult readPass(const GreyImage& image, ZXing::Binarizer binarizer, double scale)
{
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::QRCode);
    hints.setTryHarder(true);
    hints.setTryRotate(true);
    hints.setTryDownscale(true);
    hints.setBinarizer(binarizer);
    hints.setReturnErrors(true);
    const ZXing::ImageView view(image.pixels.data(), image.width, image.height, ZXing::ImageFormat::Lum);
    PassResult pass;
    for (const ZXing::Result& result : ZXing::ReadBarcodes(view, hints)) {
        if (!result.isValid()) {
            pass.sawUnreadable = true;
            continue;
        }
        const ZXing::Position& corners = result.position();
        double x = 0;
        double y = 0;
        for (const auto& corner : corners) {
            x += corner.x;
            y += corner.y;
        }
        pass.codes.push_back({result.text(), x / 4 * scale, y / 4 * scale});
    }
    return pass;
}

void addNew(std::vector<FoundCode>& all, const std::vector<FoundCode>& more)
{
    for (const FoundCode& code : more) {
        const bool known =
            std::any_of(all.begin(), all.end(), [&](const FoundCode& seen) { return seen.text == code.text; });
        if (!known) {
            all.push_back(code);
        }
    }
}

// Pictures above this size are not enlarged: their codes have enough
// pixels, and four times the pixels would cost too much time and memory.
constexpr int64_t maxPixelsToEnlarge = 2'000'000;

using Pass = std::function<PassResult(const GreyImage&)>;

// Photos defeat the plain reading in different ways, and each of these
// passes undoes one of them: halving averages noise away and narrows blur,
// sharpening steepens blurred edges, enlarging gives modules of one or two
// pixels room for the reader's sampling grid. A code missed by the plain
// reading while another one on the same picture is found leaves no trace,
// so these always run.
std::vector<Pass> photoPasses()
{
    return {
        [](const GreyImage& image) { return readPass(halved(image), ZXing::Binarizer::LocalAverage, 2.0); },
        [](const GreyImage& image) { return readPass(sharpened(image), ZXing::Binarizer::LocalAverage, 1.0); },
        [](const GreyImage& image) {
            if (static_cast<int64_t>(image.width) * image.height > maxPixelsToEnlarge) {
                return PassResult{};
            }
            return readPass(doubled(image), ZXing::Binarizer::LocalAverage, 0.5);
        },
    };
}

// Dividing out uneven light costs more and is rarely needed; it runs only
// when nothing was found yet or a code was located but not decoded.
PassResult evenlyLitPass(const GreyImage& image)
{
    return readPass(evenlyLit(image), ZXing::Binarizer::LocalAverage, 1.0);
}

}  // namespace

std::vector<std::string> readQrCodes(const GreyImage& image)
{
    if (image.width <= 0 || image.height <= 0) {
        return {};
    }
    std::vector<FoundCode> found;
    bool sawUnreadable = false;
    auto run = [&](const Pass& pass) {
        const PassResult result = pass(image);
        addNew(found, result.codes);
        sawUnreadable = sawUnreadable || result.sawUnreadable;
    };
    run([](const GreyImage& plain) { return readPass(plain, ZXing::Binarizer::LocalAverage, 1.0); });
    for (const Pass& pass : photoPasses()) {
        run(pass);
    }
    if (found.empty() || sawUnreadable) {
        run(evenlyLitPass);
    }
    std::stable_sort(found.begin(), found.end(), [](const FoundCode& a, const FoundCode& b) {
        return a.centreY != b.centreY ? a.centreY < b.centreY : a.centreX < b.centreX;
    });
    std::vector<std::string> texts;
    for (FoundCode& code : found) {
        texts.push_back(std::move(code.text));
    }
    return texts;
}

}  // namespace tse
