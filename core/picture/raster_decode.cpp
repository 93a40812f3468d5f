#include "raster_decode.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include <vips/vips.h>

namespace tse {

namespace {

struct Loader {
    const char* vipsName;  // the class of the operation that reads it from memory
    const char* format;    // what a user calls it
};

// The formats phones and scanners write. libvips can read many more
// (through ImageMagick even PostScript and SVG); those stay blocked so that
// a file of an unexpected kind never reaches a large, rarely hardened
// decoder.
constexpr Loader loaders[] = {
    {"VipsForeignLoadPngBuffer", "PNG"},    {"VipsForeignLoadJpegBuffer", "JPEG"},
    {"VipsForeignLoadWebpBuffer", "WebP"},  {"VipsForeignLoadHeifBuffer", "HEIC"},
    {"VipsForeignLoadTiffBuffer", "TIFF"},  {"VipsForeignLoadNsgifBuffer", "GIF"},
    {"VipsForeignLoadMagickBuffer", "BMP"},
};

// libvips keeps process-wide state (its type system, plugin modules, an
// operation cache and a thread pool) that must be set up once before the
// first use and is never torn down; it is a library initialisation, not
// state of ours, and call_once makes it safe from any thread.
bool vipsReady()
{
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] {
        if (VIPS_INIT("tse-check") != 0) {
            return;
        }
        // libvips logs its complaints about broken files to standard error;
        // the reasons the core gives are its own.
        g_log_set_handler(
            "VIPS", static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO),
            [](const gchar*, GLogLevelFlags, const gchar*, gpointer) {}, nullptr);
        // Cached operations would keep decoded pictures alive after use.
        vips_cache_set_max(0);
        // Pictures are read one per thread of ours; libvips' own pool would
        // only compete with them for the cores.
        vips_concurrency_set(1);
        vips_operation_block_set("VipsForeignLoad", TRUE);
        for (const Loader& loader : loaders) {
            vips_operation_block_set(loader.vipsName, FALSE);
        }
        ready = true;
    });
    return ready;
}

struct Unref {
    void operator()(VipsImage* image) const { g_object_unref(image); }
};
using ImagePtr = std::unique_ptr<VipsImage, Unref>;

struct GFree {
    void operator()(void* memory) const { g_free(memory); }
};

bool startsWith(ByteView data, const char* magic, size_t length)
{
    return data.size() >= length && std::memcmp(data.data(), magic, length) == 0;
}

// The format by its first bytes alone, for a message about a file too
// short or damaged for its decoder to recognise it.
const char* formatByMagic(ByteView data)
{
    const struct {
        const char* magic;
        size_t offset;
        size_t length;
        const char* format;
    } magics[] = {
        {"\x89PNG", 0, 4, "PNG"}, {"\xff\xd8\xff", 0, 3, "JPEG"}, {"GIF8", 0, 4, "GIF"},  {"II*\0", 0, 4, "TIFF"},
        {"MM\0*", 0, 4, "TIFF"},  {"WEBP", 8, 4, "WebP"},         {"ftyp", 4, 4, "HEIC"}, {"BM", 0, 2, "BMP"},
    };
    for (const auto& m : magics) {
        if (data.size() >= m.offset + m.length && std::memcmp(data.data() + m.offset, m.magic, m.length) == 0) {
            return m.format;
        }
    }
    return nullptr;
}

const Loader* loaderFor(ByteView data)
{
    // ImageMagick's detection accepts far more than BMP; it is used only
    // for data that starts like one.
    if (startsWith(data, "BM", 2)) {
        return &loaders[6];
    }
    if (!vipsReady()) {
        return nullptr;
    }
    const char* found = vips_foreign_find_load_buffer(data.data(), data.size());
    vips_error_clear();
    if (found == nullptr) {
        return nullptr;
    }
    for (const Loader& loader : loaders) {
        if (std::strcmp(found, loader.vipsName) == 0 && std::strcmp(loader.format, "BMP") != 0) {
            return &loader;
        }
    }
    return nullptr;
}

uint32_t bigEndian32(const uint8_t* bytes)
{
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | uint32_t{bytes[3]};
}

std::string tooLarge(int64_t width, int64_t height)
{
    return "the picture has " + std::to_string(width) + "x" + std::to_string(height) +
           " pixels, more than the 100 megapixels allowed";
}

// libpng refuses a header claiming more than a million pixels a side
// before libvips sees the size; a user should hear the same reason as for
// any other picture too large.
std::string pngClaimTooLarge(ByteView data)
{
    if (!startsWith(data, "\x89PNG\r\n\x1a\n", 8) || data.size() < 24 ||
        std::memcmp(data.data() + 12, "IHDR", 4) != 0) {
        return {};
    }
    const int64_t width = bigEndian32(data.data() + 16);
    const int64_t height = bigEndian32(data.data() + 20);
    return width * height > maxPicturePixels ? tooLarge(width, height) : std::string();
}

// Each step makes a new image from the one before; a failure anywhere is
// a damaged picture.
template <typename Step>
bool apply(ImagePtr& image, Step step)
{
    VipsImage* out = nullptr;
    if (step(image.get(), &out) != 0 || out == nullptr) {
        return false;
    }
    image.reset(out);
    return true;
}

// Only the header is read here; the pixels are decoded when written to
// memory. A file cut short is an error, not a grey lower half.
ImagePtr openHeader(ByteView data)
{
    ImagePtr image(vips_image_new_from_buffer(data.data(), data.size(), "", "access", VIPS_ACCESS_SEQUENTIAL, "fail_on",
                                              VIPS_FAIL_ON_TRUNCATED, nullptr));
    // Turning a picture upright needs its rows out of order, which a
    // sequential read cannot give.
    int orientation = 1;
    if (image && vips_image_get_typeof(image.get(), VIPS_META_ORIENTATION) != 0 &&
        vips_image_get_int(image.get(), VIPS_META_ORIENTATION, &orientation) == 0 && orientation != 1) {
        image.reset(vips_image_new_from_buffer(data.data(), data.size(), "", "access", VIPS_ACCESS_RANDOM, "fail_on",
                                               VIPS_FAIL_ON_TRUNCATED, nullptr));
    }
    vips_error_clear();
    return image;
}

// The loader for the data's format; an error that says what the data
// are not when there is none.
Result<const Loader*> knownLoader(ByteView data)
{
    const Loader* loader = loaderFor(data);
    if (loader != nullptr && vipsReady()) return loader;
    const char* format = formatByMagic(data);
    if (format == nullptr) {
        return Error{"not a picture tse-check reads (PNG, JPEG, WebP, HEIC/HEIF, TIFF, GIF, BMP or PDF)"};
    }
    const std::string claim = pngClaimTooLarge(data);
    return Error{claim.empty() ? "the " + std::string(format) + " picture's header cannot be read" : claim};
}

// Upright, without alpha, one band of grey bytes, at most maxReadPixels;
// false when the picture breaks on the way, a damaged one.
bool toGrey(ImagePtr& image, int64_t pixels)
{
    return apply(image, [](VipsImage* in, VipsImage** out) { return vips_autorot(in, out, nullptr); }) &&
           (!vips_image_hasalpha(image.get()) || apply(image,
                                                       [](VipsImage* in, VipsImage** out) {
                                                           // A code printed on a transparent background is dark on
                                                           // white.
                                                           VipsArrayDouble* white = vips_array_double_newv(1, 255.0);
                                                           const int status =
                                                               vips_flatten(in, out, "background", white, nullptr);
                                                           vips_area_unref(VIPS_AREA(white));
                                                           return status;
                                                       })) &&
           apply(image, [](VipsImage* in,
                           VipsImage** out) { return vips_colourspace(in, out, VIPS_INTERPRETATION_B_W, nullptr); }) &&
           apply(image, [](VipsImage* in, VipsImage** out) { return vips_cast_uchar(in, out, nullptr); }) &&
           (pixels <= maxReadPixels ||
            apply(image,
                  [&](VipsImage* in, VipsImage** out) {
                      const double scale = std::sqrt(static_cast<double>(maxReadPixels) / static_cast<double>(pixels));
                      return vips_resize(in, out, scale, nullptr);
                  })) &&
           // A grey picture with an alpha band flattened may keep two bands.
           (vips_image_get_bands(image.get()) == 1 ||
            apply(image, [](VipsImage* in, VipsImage** out) { return vips_extract_band(in, out, 0, nullptr); }));
}

// The pixels decoded into memory; nullopt when decoding fails (a file cut
// short, say).
std::optional<GreyImage> pixelsOf(VipsImage* image)
{
    size_t size = 0;
    std::unique_ptr<void, GFree> pixels(vips_image_write_to_memory(image, &size));
    vips_error_clear();
    const int width = vips_image_get_width(image);
    const int height = vips_image_get_height(image);
    if (!pixels || size != static_cast<size_t>(width) * static_cast<size_t>(height)) return std::nullopt;
    const auto* bytes = static_cast<const uint8_t*>(pixels.get());
    return GreyImage{width, height, std::vector<uint8_t>(bytes, bytes + size)};
}

}  // namespace

PictureSize rasterSize(ByteView data)
{
    if (loaderFor(data) == nullptr) {
        return {};
    }
    const ImagePtr image = openHeader(data);
    if (!image) {
        return {};
    }
    return {vips_image_get_width(image.get()), vips_image_get_height(image.get())};
}

std::string rasterFormat(ByteView data)
{
    const Loader* loader = loaderFor(data);
    return loader == nullptr ? std::string() : loader->format;
}

Result<RasterPicture> decodeRaster(ByteView data)
{
    const Result<const Loader*> loader = knownLoader(data);
    if (!loader) return loader.error();
    const std::string format = (*loader)->format;
    ImagePtr image = openHeader(data);
    if (!image) {
        const std::string claim = pngClaimTooLarge(data);
        return Error{claim.empty() ? "the " + format + " picture's header cannot be read" : claim};
    }
    const int64_t width = vips_image_get_width(image.get());
    const int64_t height = vips_image_get_height(image.get());
    if (width <= 0 || height <= 0) return Error{"the picture has no pixels"};
    if (width * height > maxPicturePixels) return Error{tooLarge(width, height)};
    std::optional<GreyImage> grey = toGrey(image, width * height) ? pixelsOf(image.get()) : std::nullopt;
    if (!grey) return Error{"the " + format + " picture is damaged or cut off"};
    return RasterPicture{std::move(*grey), format};
}

}  // namespace tse
