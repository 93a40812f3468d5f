#ifndef TSE_CHECK_SHARED_HTML_HEAD_H
#define TSE_CHECK_SHARED_HTML_HEAD_H

#include <string>
#include <vector>

#include "report_page.h"

namespace tsecheck {

// What a subcommand knows of its run that its HTML report shows.
struct HtmlContext {
    std::vector<std::string> inputs;  // the paths as the user gave them
    bool strict = false;
};

// What the head of every report of tse-check says beside its own facts:
// the title, the verdict, the inputs with their sizes and digests, the tool
// and the time the report was made. The layout, escaping and charts live in
// report/; each subcommand's page says what its report holds.
report::PageHead pageHead(const std::string& title, report::Verdict verdict, const std::string& verdictLine,
                          const HtmlContext& context);

}  // namespace tsecheck

#endif
