#ifndef TSE_CHECK_RECEIPT_PDF_CHILD_PROCESS_H
#define TSE_CHECK_RECEIPT_PDF_CHILD_PROCESS_H

#include <cstddef>

#include "bytes.h"
#include "pdf_pages.h"
#include "result.h"

namespace tsecheck {

// How tse-check runs itself to render a PDF; not a subcommand for people.
constexpr const char* RENDER_PDF_WORD = "__render-pdf";

// What the renderer may take: address space for poppler and the pages, and
// processor time per page and per file. A 50-page A4 receipt file renders
// well within them.
constexpr size_t PDF_MEMORY_LIMIT = size_t{1} << 30;
constexpr unsigned PDF_SECONDS_PER_PAGE = 5;
constexpr unsigned PDF_SECONDS_PER_FILE = 60;

// Renders the PDF's pages in a child process of this program under those
// limits, and hands each page on as renderPdfPages would. A PDF that takes
// more, or crashes poppler, is an error naming the limit or the signal; the
// pages rendered before it are handed on all the same.
tse::Result<void> renderPdfOutOfProcess(tse::ByteView data, const tse::PdfPageHandler& onPage);

// The child's side: the PDF on standard input, the pages on standard output.
int renderPdfChild();

}  // namespace tsecheck

#endif
