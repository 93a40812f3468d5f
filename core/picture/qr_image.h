#ifndef TSE_CORE_QR_IMAGE_H
#define TSE_CORE_QR_IMAGE_H

#include <string>
#include <vector>

#include "bytes.h"

namespace tse {

// A QR code found in a picture: its text and where it was.
struct ImageCode {
    std::string text;
    int page = 0;  // 1-based page of a PDF; 0 for a PNG or JPEG picture
};

struct ImageScan {
    std::vector<ImageCode> codes;  // every QR code found, in reading order
    std::string error;             // set when the data is no readable picture
};

// Reads every QR code in a PNG or JPEG picture or on every page of a PDF,
// told apart by their content, not their name.
ImageScan scanImage(ByteView data);

}  // namespace tse

#endif
