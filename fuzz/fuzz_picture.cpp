// Bytes read as a picture of a receipt: PNG, JPEG, WebP, HEIC, TIFF, GIF,
// BMP or PDF, decoded, rendered
// and searched for QR codes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "qr_image.h"
#include "raster_decode.h"

namespace {

// The product reads pictures up to 100 megapixels, which takes seconds;
// the fuzzer looks for faults, not for slow inputs, so it stays below this.
constexpr long MAX_FUZZED_PIXELS = 4L << 20;

bool tooLargeToFuzz(const std::vector<uint8_t>& input)
{
    const tse::PictureSize size = tse::rasterSize(input);
    return size.width * size.height > MAX_FUZZED_PIXELS;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<uint8_t> input(data, data + size);
    if (tooLargeToFuzz(input)) return 0;
    const tse::ImageScan scan = tse::scanImage(input);
    for (const tse::ImageCode& code : scan.codes) {
        if (code.page < 0) std::abort();
    }
    return 0;
}
