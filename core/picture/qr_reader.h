#ifndef TSE_CORE_QR_READER_H
#define TSE_CORE_QR_READER_H

#include <array>
#include <string>
#include <vector>

#include "grey_image.h"

namespace tse {

struct PicturePoint {
    double x = 0;
    double y = 0;
};

// A QR code read from a picture: its text and its four corners in the
// picture's pixels, as the reader located them (the first is the corner at
// the code's top left finder pattern, then around the code).
struct ReadCode {
    std::string text;
    std::array<PicturePoint, 4> corners;
};

// Every QR code in the image, top to bottom, then left to right; a text
// found twice (the same code read in two passes) once. The reading that
// costs little always runs; further passes stop before the pixels all
// readers went over would exceed workLimit (0: no limit besides the fixed
// list of passes).
std::vector<ReadCode> readQrCodes(const GreyImage& image, int64_t workLimit = 0);

}  // namespace tse

#endif
