#include "grey_image.h"

#include <algorithm>
#include <cstddef>

namespace tse {

namespace {

// Where pixel (x, y) of a picture `width` pixels wide lies in its pixels;
// every coordinate here is at least 0.
size_t offset(int x, int y, int width)
{
    return static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
}

// Mean over a (2r+1)-pixel window along rows, then along columns, with
// running sums so the cost does not grow with the radius.
std::vector<uint32_t> boxMean(const GreyImage& image, int radius)
{
    const int w = image.width;
    const int h = image.height;
    std::vector<uint32_t> rows(offset(0, w, h));
    for (int y = 0; y < h; ++y) {
        const uint8_t* in = &image.pixels[offset(0, y, w)];
        uint32_t* out = &rows[offset(0, y, w)];
        uint32_t sum = 0;
        uint32_t count = 0;
        for (int x = 0; x <= std::min(radius, w - 1); ++x, ++count) sum += in[x];
        for (int x = 0; x < w; ++x) {
            out[x] = sum / count;
            if (x + radius + 1 < w) { sum += in[x + radius + 1]; ++count; }
            if (x - radius >= 0) { sum -= in[x - radius]; --count; }
        }
    }
    std::vector<uint32_t> mean(rows.size());
    for (int x = 0; x < w; ++x) {
        uint32_t sum = 0;
        uint32_t count = 0;
        for (int y = 0; y <= std::min(radius, h - 1); ++y, ++count) sum += rows[offset(x, y, w)];
        for (int y = 0; y < h; ++y) {
            mean[offset(x, y, w)] = sum / count;
            if (y + radius + 1 < h) { sum += rows[offset(x, y + radius + 1, w)]; ++count; }
            if (y - radius >= 0) { sum -= rows[offset(x, y - radius, w)]; --count; }
        }
    }
    return mean;
}

}  // namespace

GreyImage halved(const GreyImage& image)
{
    GreyImage out;
    out.width = image.width / 2;
    out.height = image.height / 2;
    out.pixels.resize(offset(0, out.width, out.height));
    for (int y = 0; y < out.height; ++y) {
        const uint8_t* top = &image.pixels[offset(0, 2 * y, image.width)];
        const uint8_t* bottom = top + image.width;
        for (int x = 0; x < out.width; ++x) {
            const auto sum = static_cast<unsigned>(top[2 * x] + top[2 * x + 1] + bottom[2 * x] + bottom[2 * x + 1]);
            out.pixels[offset(x, y, out.width)] = static_cast<uint8_t>((sum + 2) / 4);
        }
    }
    return out;
}

GreyImage evenlyLit(const GreyImage& image)
{
    if (image.width == 0 || image.height == 0) {
        return image;
    }
    // Wider than a QR code's modules, narrower than a lighting gradient.
    const int radius = std::max(8, std::min(image.width, image.height) / 16);
    const std::vector<uint32_t> background = boxMean(image, radius);
    GreyImage out{image.width, image.height, std::vector<uint8_t>(image.pixels.size())};
    for (size_t i = 0; i < image.pixels.size(); ++i) {
        const uint32_t level = std::max<uint32_t>(background[i], 1);
        // A pixel as bright as its surroundings becomes light grey, darker
        // ones scale down from there.
        const uint32_t value = image.pixels[i] * 200u / level;
        out.pixels[i] = static_cast<uint8_t>(std::min<uint32_t>(value, 255));
    }
    return out;
}

GreyImage sharpened(const GreyImage& image)
{
    if (image.width == 0 || image.height == 0) {
        return image;
    }
    const std::vector<uint32_t> local = boxMean(image, 2);
    GreyImage out{image.width, image.height, std::vector<uint8_t>(image.pixels.size())};
    for (size_t i = 0; i < image.pixels.size(); ++i) {
        const int value = 2 * image.pixels[i] - static_cast<int>(local[i]);
        out.pixels[i] = static_cast<uint8_t>(std::clamp(value, 0, 255));
    }
    return out;
}

GreyImage doubled(const GreyImage& image)
{
    GreyImage out{image.width * 2, image.height * 2, {}};
    out.pixels.resize(offset(0, out.width, out.height));
    for (int y = 0; y < out.height; ++y) {
        const int sy = std::min(y / 2 + (y % 2), image.height - 1);
        const int ty = y / 2;
        for (int x = 0; x < out.width; ++x) {
            const int sx = std::min(x / 2 + (x % 2), image.width - 1);
            const int tx = x / 2;
            const auto sum = static_cast<unsigned>(image.pixels[offset(tx, ty, image.width)] +
                                                   image.pixels[offset(sx, ty, image.width)] +
                                                   image.pixels[offset(tx, sy, image.width)] +
                                                   image.pixels[offset(sx, sy, image.width)]);
            out.pixels[offset(x, y, out.width)] = static_cast<uint8_t>((sum + 2) / 4);
        }
    }
    return out;
}

}  // namespace tse
