#ifndef TSE_CORE_RASTER_DECODE_H
#define TSE_CORE_RASTER_DECODE_H

#include <cstdint>
#include <string>

#include "bytes.h"
#include "grey_image.h"
#include "result.h"

namespace tse {

// Photos from phones reach 50 megapixels; beyond that a picture is more
// likely a decompression bomb than a receipt. Checked from the header,
// before any pixel is decoded.
constexpr int64_t maxPicturePixels = 100'000'000;
// The codes on a receipt photo keep enough pixels at this size, and the
// readers' passes over a larger picture would cost seconds each: larger
// pictures are shrunk to it while they are decoded.
constexpr int64_t maxReadPixels = 16'000'000;

// A picture decoded: its pixels and its format as a user knows it.
struct RasterPicture {
    GreyImage image;
    std::string format;  // "PNG", "JPEG", ...
};

// The name of the raster format the data is in, told by its content;
// empty when it is none tse-check reads.
std::string rasterFormat(ByteView data);

// The size a picture's header claims, read without decoding a pixel;
// 0 x 0 when the header cannot be read.
struct PictureSize {
    int64_t width = 0;
    int64_t height = 0;
};
PictureSize rasterSize(ByteView data);

// A PNG, JPEG, WebP, HEIC/HEIF, TIFF, GIF or BMP picture as grey pixels,
// turned upright as its EXIF orientation says, shrunk to maxReadPixels.
// The error names the format when the data begin like one ("the PNG
// picture is damaged or cut off"), and lists what is read when they do not.
Result<RasterPicture> decodeRaster(ByteView data);

}  // namespace tse

#endif
