#ifndef TSE_CORE_RASTER_DECODE_H
#define TSE_CORE_RASTER_DECODE_H

#include <cstdint>
#include <string>

#include "bytes.h"
#include "grey_image.h"

namespace tse {

// Photos from phones reach 50 megapixels; beyond that a picture is more
// likely a decompression bomb than a receipt.
constexpr int64_t maxPicturePixels = 100'000'000;

struct RasterDecode {
    GreyImage image;
    std::string error;  // set when the data is no readable PNG or JPEG
};

// A PNG or JPEG picture as grey pixels. The size is checked from the header
// before any pixel is decoded.
RasterDecode decodeRaster(ByteView data);

}  // namespace tse

#endif
