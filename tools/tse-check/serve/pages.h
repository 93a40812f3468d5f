#ifndef TSE_CHECK_SERVE_PAGES_H
#define TSE_CHECK_SERVE_PAGES_H

// The server's pages, written with the report library's escaping in the
// style of the --html reports. They work without script; app.js only adds
// drag and drop, live progress and the scanner field.

#include <string>
#include <string_view>

#include "serve/jobs.h"

namespace tsecheck::serve {

struct PageContext {
    std::string formToken;  // for the forms that start and cancel jobs
    std::string version;    // "tse-check 0.3.0"
};

std::string startPage(const PageContext& context);
std::string jobPage(const Job& job, const PageContext& context);
// The verdict cards of a finished receipt job, for the scanner's list.
std::string receiptCards(const Job& job);
std::string errorPage(int status, const std::string& message);

extern const std::string_view APP_CSS;
extern const std::string_view APP_JS;

}  // namespace tsecheck::serve

#endif
