#include "qr_image.h"

#include <algorithm>
#include <cstring>

#include "pdf_pages.h"
#include "qr_reader.h"
#include "raster_decode.h"

namespace tse {

namespace {

enum class PictureKind { Png, Jpeg, Pdf, Unknown };

bool startsWith(ByteView data, const char* magic, size_t length)
{
    return data.size() >= length && std::memcmp(data.data(), magic, length) == 0;
}

PictureKind pictureKind(ByteView data)
{
    if (startsWith(data, "\x89PNG\r\n\x1a\n", 8)) {
        return PictureKind::Png;
    }
    if (startsWith(data, "\xff\xd8\xff", 3)) {
        return PictureKind::Jpeg;
    }
    // PDF readers accept the header anywhere in the first kilobyte: some
    // producers put a byte order mark or mail headers in front of it.
    const ByteView head = data.sub(0, std::min<size_t>(data.size(), 1024));
    const char marker[] = "%PDF-";
    const auto* at = std::search(head.begin(), head.end(), marker, marker + 5);
    if (at != head.end()) {
        return PictureKind::Pdf;
    }
    return PictureKind::Unknown;
}

ImageScan scanRaster(ByteView data)
{
    const RasterDecode decoded = decodeRaster(data);
    if (!decoded.error.empty()) {
        return {{}, decoded.error};
    }
    ImageScan scan;
    for (std::string& text : readQrCodes(decoded.image)) {
        scan.codes.push_back({std::move(text), 0});
    }
    return scan;
}

ImageScan scanPdf(ByteView data)
{
    ImageScan scan;
    scan.error = renderPdfPages(data, [&scan](int page, const GreyImage& image) {
        for (std::string& text : readQrCodes(image)) {
            scan.codes.push_back({std::move(text), page});
        }
    });
    return scan;
}

}  // namespace

ImageScan scanImage(ByteView data)
{
    switch (pictureKind(data)) {
    case PictureKind::Png:
    case PictureKind::Jpeg:
        return scanRaster(data);
    case PictureKind::Pdf:
        return scanPdf(data);
    case PictureKind::Unknown:
        break;
    }
    return {{}, "not a PNG, JPEG or PDF file"};
}

}  // namespace tse
