#ifndef TSE_CORE_QR_READER_H
#define TSE_CORE_QR_READER_H

#include <string>
#include <vector>

#include "grey_image.h"

namespace tse {

// The texts of every QR code in the image, top to bottom, then left to
// right; a text found twice (the same code read in two passes) once.
std::vector<std::string> readQrCodes(const GreyImage& image);

}  // namespace tse

#endif
