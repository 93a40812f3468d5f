#ifndef TSE_CORE_PDF_PAGES_H
#define TSE_CORE_PDF_PAGES_H

#include <cstdint>
#include <functional>

#include "bytes.h"
#include "grey_image.h"
#include "result.h"

namespace tse {

// Receipts come one per page or a month's worth in one file; a file with
// more pages than this is no receipt collection and is refused whole.
constexpr int maxPdfPages = 50;
// 300 dpi sets about 4 pixels on each module of a 2 cm code holding a
// 300-character receipt (an A4 page is 8.7 megapixels). A larger page is
// rendered coarser so that it stays within maxPageRenderPixels, and the
// pages of one file share maxPdfRenderPixels, so that neither a huge page
// nor many pages make the work of one file unbounded.
constexpr double pdfRenderDpi = 300.0;
constexpr int64_t maxPageRenderPixels = 9'000'000;
constexpr int64_t maxPdfRenderPixels = 200'000'000;

// Is handed each rendered page with its 1-based number and the number of
// pages.
using PdfPageHandler = std::function<void(int page, int pages, const GreyImage&)>;

// Renders every page of the PDF in grey and hands each to onPage. An error
// when the data is no PDF poppler can open (or has too many pages), or when
// a page cannot be rendered; the pages before that one were handed on all
// the same, since the codes on them count.
Result<void> renderPdfPages(ByteView data, const PdfPageHandler& onPage);

// Renders as renderPdfPages does, somewhere else. Poppler decodes a page's
// streams whole before any bound of ours applies, and a small stream may
// inflate to gigabytes; a program can render in a process of its own under
// limits of memory and time, which the core leaves to it.
using PdfRenderer = std::function<Result<void>(ByteView data, const PdfPageHandler& onPage)>;

}  // namespace tse

#endif
