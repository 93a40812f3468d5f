#include "qr_image.h"

#include <algorithm>

#include "pdf_pages.h"
#include "raster_decode.h"

namespace tse {

namespace {

bool isPdf(ByteView data)
{
    // PDF readers accept the header anywhere in the first kilobyte: some
    // producers put a byte order mark or mail headers in front of it.
    const ByteView head = data.sub(0, std::min<size_t>(data.size(), 1024));
    const char marker[] = "%PDF-";
    return std::search(head.begin(), head.end(), marker, marker + 5) != head.end();
}

// The readers' passes over one file together, in pixels (about 8 s of one
// core): a hard photo or A4 page at 300 dpi gets every pass, each of 50
// pages the cheap reading and what is left of its share.
constexpr int64_t maxReadWork = 300'000'000;

void addCodes(ImageScan& scan, int page, const GreyImage& image, int64_t workLimit)
{
    for (ReadCode& code : readQrCodes(image, workLimit)) {
        scan.codes.push_back({std::move(code.text), page, code.corners});
    }
}

}  // namespace

ImageScan scanImage(ByteView data, const PdfRenderer& renderPdf)
{
    ImageScan scan;
    if (isPdf(data)) {
        scan.format = "PDF";
        const PdfPageHandler onPage = [&scan](int page, int pages, const GreyImage& image) {
            addCodes(scan, page, image, maxReadWork / std::max(pages, 1));
        };
        const Result<void> rendered = renderPdf ? renderPdf(data, onPage) : renderPdfPages(data, onPage);
        if (!rendered) scan.error = rendered.error().message;
        return scan;
    }
    const Result<RasterPicture> decoded = decodeRaster(data);
    if (!decoded) {
        scan.format = rasterFormat(data);
        scan.error = decoded.error().message;
        return scan;
    }
    scan.format = decoded->format;
    addCodes(scan, 0, decoded->image, maxReadWork);
    return scan;
}

}  // namespace tse
