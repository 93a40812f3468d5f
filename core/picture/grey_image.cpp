#include "grey_image.h"

#include <algorithm>
#include <cstddef>

namespace tse {

namespace {

// Pixel positions as the vector's index type; widths and heights are never
// negative.
size_t at(int y, int width, int x)
{
    return static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
}
size_t cells(int width, int height)
{
    return at(height, width, 0);
}

// Mean over a (2r+1)-pixel window along rows, then along columns, with
// running sums so the cost does not grow with the radius.
std::vector<uint32_t> boxMean(const GreyImage& image, int radius)
{
    const int w = image.width;
    const int h = image.height;
    std::vector<uint32_t> rows(cells(w, h));
    for (int y = 0; y < h; ++y) {
        const uint8_t* in = &image.pixels[at(y, w, 0)];
        uint32_t* out = &rows[at(y, w, 0)];
        uint32_t sum = 0;
        uint32_t count = 0;
        for (int x = 0; x <= std::min(radius, w - 1); ++x, ++count) sum += in[x];
        for (int x = 0; x < w; ++x) {
            out[x] = sum / count;
            if (x + radius + 1 < w) {
                sum += in[x + radius + 1];
                ++count;
            }
            if (x - radius >= 0) {
                sum -= in[x - radius];
                --count;
            }
        }
    }
    std::vector<uint32_t> mean(rows.size());
    for (int x = 0; x < w; ++x) {
        uint32_t sum = 0;
        uint32_t count = 0;
        for (int y = 0; y <= std::min(radius, h - 1); ++y, ++count) sum += rows[at(y, w, x)];
        for (int y = 0; y < h; ++y) {
            mean[at(y, w, x)] = sum / count;
            if (y + radius + 1 < h) {
                sum += rows[at(y + radius + 1, w, x)];
                ++count;
            }
            if (y - radius >= 0) {
                sum -= rows[at(y - radius, w, x)];
                --count;
            }
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
    out.pixels.resize(cells(out.width, out.height));
    for (int y = 0; y < out.height; ++y) {
        const uint8_t* top = &image.pixels[at(2 * y, image.width, 0)];
        const uint8_t* bottom = top + image.width;
        for (int x = 0; x < out.width; ++x) {
            const auto sum = static_cast<unsigned>(top[2 * x] + top[2 * x + 1] + bottom[2 * x] + bottom[2 * x + 1]);
            out.pixels[at(y, out.width, x)] = static_cast<uint8_t>((sum + 2) / 4);
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
    out.pixels.resize(cells(out.width, out.height));
    for (int y = 0; y < out.height; ++y) {
        const int sy = std::min(y / 2 + (y % 2), image.height - 1);
        const int ty = y / 2;
        for (int x = 0; x < out.width; ++x) {
            const int sx = std::min(x / 2 + (x % 2), image.width - 1);
            const int tx = x / 2;
            const auto sum =
                static_cast<unsigned>(image.pixels[at(ty, image.width, tx)] + image.pixels[at(ty, image.width, sx)] +
                                      image.pixels[at(sy, image.width, tx)] + image.pixels[at(sy, image.width, sx)]);
            out.pixels[at(y, out.width, x)] = static_cast<uint8_t>((sum + 2) / 4);
        }
    }
    return out;
}

GreyImage shrunk(const GreyImage& image, int factor)
{
    GreyImage out{image.width / factor, image.height / factor, {}};
    out.pixels.resize(static_cast<size_t>(out.width) * static_cast<size_t>(out.height));
    const auto area = static_cast<unsigned>(factor * factor);
    for (int y = 0; y < out.height; ++y) {
        for (int x = 0; x < out.width; ++x) {
            unsigned sum = 0;
            for (int dy = 0; dy < factor; ++dy) {
                const uint8_t* row =
                    &image.pixels[static_cast<size_t>(y * factor + dy) * static_cast<size_t>(image.width) +
                                  static_cast<size_t>(x * factor)];
                for (int dx = 0; dx < factor; ++dx) sum += row[dx];
            }
            out.pixels[static_cast<size_t>(y) * static_cast<size_t>(out.width) + static_cast<size_t>(x)] =
                static_cast<uint8_t>((sum + area / 2) / area);
        }
    }
    return out;
}

GreyImage smoothed(const GreyImage& image, int radius)
{
    GreyImage out = image;
    for (int round = 0; round < 2 && image.width > 0 && image.height > 0; ++round) {
        const std::vector<uint32_t> mean = boxMean(out, radius);
        std::transform(mean.begin(), mean.end(), out.pixels.begin(),
                       [](uint32_t v) { return static_cast<uint8_t>(v); });
    }
    return out;
}

GreyImage thresholded(const GreyImage& image)
{
    if (image.width == 0 || image.height == 0) {
        return image;
    }
    // Several modules wide, so that a large dark module still has light
    // around it in its window.
    const int radius = std::max(7, std::min(image.width, image.height) / 40);
    const std::vector<uint32_t> local = boxMean(image, radius);
    GreyImage out{image.width, image.height, std::vector<uint8_t>(image.pixels.size())};
    for (size_t i = 0; i < image.pixels.size(); ++i) {
        out.pixels[i] = image.pixels[i] + 3u < local[i] ? 0 : 255;
    }
    return out;
}

}  // namespace tse
