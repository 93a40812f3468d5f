#include "serve/page_frame.h"

namespace tsecheck::serve {

void beginPage(report::Html& html, const std::string& title, const std::string& formToken, int refresh)
{
    html.trusted("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                 "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">");
    html.element("title", title);
    html.trusted("<link rel=\"stylesheet\" href=\"/static/app.css\"><script src=\"/static/app.js\" defer></script>");
    if (refresh > 0) {
        html.trusted("<noscript><meta http-equiv=\"refresh\" content=\"" + std::to_string(refresh) + "\"></noscript>");
    }
    html.trusted("</head>\n");
    html.open("body", {{"data-form-token", formToken}});
    html.trusted("<header class=\"top\"><a href=\"/\">tse-check</a></header>\n<main>");
}

void endPage(report::Html& html, const std::string& version)
{
    html.trusted("</main>\n<footer>");
    html.text(
        version +
        ": the checks of the command line, served on this machine. Files are deleted when their keep time is over.");
    html.trusted("</footer></body></html>\n");
}

std::string thousands(uint64_t n)
{
    const std::string digits = std::to_string(n);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

}  // namespace tsecheck::serve
