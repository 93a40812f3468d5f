#include "shared/html_head.h"

#include <chrono>

#include "log_time.h"

namespace tsecheck {
namespace {

std::string nowUtc()
{
    const auto now = std::chrono::system_clock::now();
    return tse::isoSeconds(std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count());
}

}  // namespace

report::PageHead pageHead(const std::string& title, report::Verdict verdict, const std::string& verdictLine,
                          const HtmlContext& context)
{
    report::PageHead head;
    head.title = title;
    head.verdict = verdict;
    head.verdictLine = verdictLine;
    head.inputs = report::describeInputs(context.inputs);
    head.tool = std::string("tse-check ") + TSE_CHECK_VERSION;
    head.madeAt = nowUtc();
    return head;
}

}  // namespace tsecheck
