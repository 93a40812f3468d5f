#ifndef TSE_CHECK_SERVE_PAGE_FRAME_H
#define TSE_CHECK_SERVE_PAGE_FRAME_H

#include <string>

#include "html_writer.h"

namespace tsecheck::serve {

// The head and the end every page shares. `refresh` reloads the page
// after that many seconds where no script runs (0: never).
void beginPage(report::Html& html, const std::string& title, const std::string& formToken, int refresh = 0);
void endPage(report::Html& html, const std::string& version);

// "1,234,567"
std::string thousands(uint64_t n);

}  // namespace tsecheck::serve

#endif
