#ifndef TSE_CORE_GREY_IMAGE_H
#define TSE_CORE_GREY_IMAGE_H

#include <cstdint>
#include <vector>

namespace tse {

// One byte of brightness per pixel, rows top to bottom without padding:
// all the QR reader needs, whatever the picture's colour model was.
struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;
};

// Half the size in each direction, each pixel the mean of four: halves the
// width of a blur and averages noise away.
GreyImage halved(const GreyImage& image);
// Divides out slowly varying brightness (a shadow, a lamp on one side) and
// stretches what is left to the full range.
GreyImage evenlyLit(const GreyImage& image);

// Each pixel pushed away from the mean of its 5x5 neighbourhood: steeper
// edges where blur has flattened them.
GreyImage sharpened(const GreyImage& image);
// Twice the size in each direction, interpolated.
GreyImage doubled(const GreyImage& image);

// A factor smaller in each direction, each pixel the mean of its block.
GreyImage shrunk(const GreyImage& image, int factor);
// Each pixel the mean of its (2 radius + 1) square, twice over: close to a
// Gaussian, it smooths sensor noise finer than the modules.
GreyImage smoothed(const GreyImage& image, int radius);
// Black where a pixel is darker than its surroundings, white elsewhere:
// a threshold that follows shadows and uneven light.
GreyImage thresholded(const GreyImage& image);

}  // namespace tse

#endif
