#include "raster_decode.h"

#include <climits>
#include <memory>

#include <stb_image.h>

namespace tse {

namespace {

struct StbFree {
    void operator()(uint8_t* pixels) const { stbi_image_free(pixels); }
};

}  // namespace

RasterDecode decodeRaster(ByteView data)
{
    if (data.size() > static_cast<size_t>(INT_MAX)) {
        return {{}, "the picture is larger than 2 GB"};
    }
    const auto* bytes = reinterpret_cast<const stbi_uc*>(data.data());
    const int length = static_cast<int>(data.size());
    int width = 0;
    int height = 0;
    int channels = 0;
    if (stbi_info_from_memory(bytes, length, &width, &height, &channels) == 0) {
        return {{}, "the picture's header cannot be read"};
    }
    if (width <= 0 || height <= 0) {
        return {{}, "the picture has no pixels"};
    }
    if (static_cast<int64_t>(width) * height > maxPicturePixels) {
        return {{}, "the picture has " + std::to_string(width) + "x" + std::to_string(height) +
                        " pixels, more than the 100 megapixels allowed"};
    }
    std::unique_ptr<uint8_t, StbFree> pixels(stbi_load_from_memory(bytes, length, &width, &height, &channels, 1));
    if (!pixels) {
        // stb's own reasons ("bad huffman code", "outofdata") mean nothing to
        // a user; what they all mean is a damaged or cut-off file.
        return {{}, "the picture is damaged or cut off"};
    }
    GreyImage image{width, height, {}};
    image.pixels.assign(pixels.get(), pixels.get() + static_cast<size_t>(width) * static_cast<size_t>(height));
    return {std::move(image), {}};
}

}  // namespace tse
