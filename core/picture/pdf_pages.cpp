#include "pdf_pages.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <mutex>

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-image.h>
#include <poppler-page-renderer.h>
#include <poppler-page.h>

namespace tse {

namespace {

void ignorePopplerMessage(const std::string& /*message*/, void* /*closure*/) {}

// Poppler writes its complaints about broken files to standard error unless
// told otherwise; the core never writes to the console. The setting is
// process-wide, so it is made once and never changed back.
void silencePoppler()
{
    static std::once_flag once;
    std::call_once(once, [] { poppler::set_debug_error_function(ignorePopplerMessage, nullptr); });
}

double renderDpi(const poppler::page& page, int64_t pixelBound)
{
    const poppler::rectf box = page.page_rect();
    const double widthInches = std::max(box.width(), 1.0) / 72.0;
    const double heightInches = std::max(box.height(), 1.0) / 72.0;
    const double pixelsAtDpi = widthInches * heightInches * pdfRenderDpi * pdfRenderDpi;
    if (pixelsAtDpi <= static_cast<double>(pixelBound)) {
        return pdfRenderDpi;
    }
    return pdfRenderDpi * std::sqrt(static_cast<double>(pixelBound) / pixelsAtDpi);
}

GreyImage greyCopy(const poppler::image& rendered)
{
    GreyImage image{rendered.width(), rendered.height(), {}};
    const auto width = static_cast<size_t>(image.width);
    image.pixels.resize(width * static_cast<size_t>(image.height));
    const auto* data = reinterpret_cast<const uint8_t*>(rendered.const_data());
    for (size_t y = 0; y < static_cast<size_t>(image.height); ++y) {
        const uint8_t* row = data + y * static_cast<size_t>(rendered.bytes_per_row());
        std::copy(row, row + width, &image.pixels[y * width]);
    }
    return image;
}

}  // namespace

Result<void> renderPdfPages(ByteView data, const PdfPageHandler& onPage)
{
    silencePoppler();
    if (data.size() > static_cast<size_t>(INT_MAX)) {
        return Error{"the PDF is larger than 2 GB"};
    }
    std::unique_ptr<poppler::document> document(poppler::document::load_from_raw_data(
        reinterpret_cast<const char*>(data.data()), static_cast<int>(data.size())));
    if (!document) {
        return Error{"the PDF is damaged or cut off"};
    }
    if (document->is_locked()) {
        return Error{"the PDF is protected by a password"};
    }
    const int pages = document->pages();
    if (pages > maxPdfPages) {
        return Error{"the PDF has " + std::to_string(pages) + " pages, more than the " + std::to_string(maxPdfPages) +
                     " read from one file; split it into smaller files"};
    }
    const int64_t pixelBound = std::min(maxPageRenderPixels, maxPdfRenderPixels / std::max(pages, 1));
    poppler::page_renderer renderer;
    renderer.set_image_format(poppler::image::format_gray8);
    renderer.set_render_hint(poppler::page_renderer::antialiasing, true);
    for (int index = 0; index < pages; ++index) {
        std::unique_ptr<poppler::page> page(document->create_page(index));
        if (!page) {
            return Error{"page " + std::to_string(index + 1) + " of the PDF cannot be read"};
        }
        const double dpi = renderDpi(*page, pixelBound);
        const poppler::image rendered = renderer.render_page(page.get(), dpi, dpi);
        if (!rendered.is_valid() || rendered.format() != poppler::image::format_gray8) {
            return Error{"page " + std::to_string(index + 1) + " of the PDF cannot be rendered"};
        }
        onPage(index + 1, pages, greyCopy(rendered));
    }
    return {};
}

}  // namespace tse
