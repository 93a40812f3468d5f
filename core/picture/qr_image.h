#ifndef TSE_CORE_QR_IMAGE_H
#define TSE_CORE_QR_IMAGE_H

#include <array>
#include <string>
#include <vector>

#include "bytes.h"
#include "pdf_pages.h"
#include "qr_reader.h"

namespace tse {

// A QR code found in a picture: its text and where it was.
struct ImageCode {
    std::string text;
    int page = 0;  // 1-based page of a PDF; 0 for a picture of one page
    // Corners in the pixels of the upright picture (for a PDF page: of the
    // page rendered at pdfRenderDpi, or coarser for a huge page).
    std::array<PicturePoint, 4> corners;
};

// The codes and an error together, not a Result: a scan keeps the codes of
// the pages of a PDF read before a broken one, and those count.
struct ImageScan {
    std::vector<ImageCode> codes;  // every QR code found, in reading order
    std::string format;            // "PNG", "JPEG", "PDF", ...; empty when unknown
    std::string error;             // set when the data is no readable picture, or a page of it is not
};

// Reads every QR code in a picture (PNG, JPEG, WebP, HEIC/HEIF, TIFF, GIF,
// BMP) or on every page of a PDF, told apart by their content, not their
// name. A PDF is rendered by renderPdf when one is given, else here.
ImageScan scanImage(ByteView data, const PdfRenderer& renderPdf = {});

}  // namespace tse

#endif
