// The start page: the two checks as forms, and what the verdicts mean.
#include "serve/page_frame.h"
#include "serve/pages.h"

namespace tsecheck::serve {
namespace {

using report::Html;

void fileField(Html& html, const std::string& name, const std::string& label, const std::string& hint,
               const std::string& accept)
{
    html.open("label", {{"class", "drop"}}).element("span", label, {{"class", "label"}});
    html.element("span", hint, {{"class", "hint"}});
    html.trusted("<input type=\"file\" multiple name=\"" + name + "\" accept=\"" + accept + "\">");
    html.close("label");
}

void exportForm(Html& html, const std::string& formToken)
{
    html.open("section", {{"id", "export"}}).element("h2", "Check a TSE export");
    html.element("p", "Every log's signature, the certificates and the export's integrity, as tse-check audit "
                      "checks them. Add the DSFinV-K export as well to check the bookkeeping against it.");
    html.open("form",
              {{"method", "post"}, {"action", "/jobs/audit?form=" + formToken}, {"enctype", "multipart/form-data"}});
    fileField(html, "export", "The TSE export",
              "TAR archives (also .tar.gz, split .tar.001), log and certificate files",
              ".tar,.gz,.tgz,.bz2,.xz,.001,.002,.003,.log,.pem,.cer,.crt,.der,.csv,application/x-tar");
    fileField(html, "dsfinvk", "The DSFinV-K export (optional)", "ZIP or TAR archive of the register's bookkeeping",
              ".zip,.tar,.gz,.tgz,.bz2,.xz,application/zip");
    html.trusted(
        "<label class=\"check\"><input type=\"checkbox\" name=\"strict\" value=\"1\"> Count warnings as errors</label>");
    html.trusted("<button type=\"submit\">Check the export</button></form></section>\n");
}

void receiptForm(Html& html, const std::string& formToken)
{
    const std::string action = "/jobs/receipt?form=" + formToken;
    html.open("section", {{"id", "receipts"}}).element("h2", "Check receipts");
    html.element("p", "The QR code on a receipt holds what the TSE signed and its key: no certificate is needed.");
    html.open("form",
              {{"method", "post"}, {"action", action}, {"enctype", "multipart/form-data"}, {"id", "scan-form"}});
    html.trusted("<input type=\"hidden\" name=\"explain\" value=\"1\">");
    html.trusted("<label class=\"label\" for=\"scan\">Scan or paste one QR code</label>"
                 "<input id=\"scan\" name=\"text\" autocomplete=\"off\" autocapitalize=\"off\" spellcheck=\"false\" "
                 "placeholder=\"V0;...\" autofocus>");
    html.element("p",
                 "A handheld scanner types into this field: each code is checked as soon as it is complete, "
                 "and the next one can follow.",
                 {{"class", "hint"}});
    html.trusted("<button type=\"submit\">Check this code</button></form>");
    html.trusted("<ol id=\"scan-list\" class=\"cards\" aria-live=\"polite\"></ol>");
    html.open("form", {{"method", "post"}, {"action", action}, {"enctype", "multipart/form-data"}});
    html.trusted("<input type=\"hidden\" name=\"explain\" value=\"1\">");
    html.open("label", {{"class", "drop"}}).element("span", "Photos or PDFs of receipts", {{"class", "label"}});
    html.element("span", "On a phone this opens the camera.", {{"class", "hint"}});
    html.trusted(
        "<input type=\"file\" name=\"image\" multiple accept=\"image/*,application/pdf\" capture=\"environment\">");
    html.close("label");
    html.trusted("<label class=\"label\" for=\"texts\">or QR code texts, one per line</label>"
                 "<textarea id=\"texts\" name=\"texts\" rows=\"3\" spellcheck=\"false\"></textarea>");
    html.trusted("<button type=\"submit\">Check the receipts</button></form></section>\n");
}

void verdicts(Html& html)
{
    html.open("section", {{"id", "verdicts"}}).element("h2", "What the verdicts mean");
    html.open("dl");
    html.element("dt", "PASSED")
        .element("dd", "Every signature in the export holds under its TSE's key and nothing "
                       "is missing: the logs are what the TSE signed.");
    html.element("dt", "PASSED WITH WARNINGS")
        .element("dd", "The signatures hold, but something deserves a look, "
                       "such as a gap in the signature counter or an unfinished transaction.");
    html.element("dt", "FAILED")
        .element("dd", "At least one error: a signature that does not hold, a log without its "
                       "certificate or unreadable, a counter used twice, or an archive cut short.");
    html.element("dt", "VALID")
        .element("dd", "The receipt's signature holds: the TSE signed exactly what the QR code says.");
    html.element("dt", "INVALID")
        .element("dd", "It does not: the receipt shows something other than what was signed. "
                       "Where it can, the check finds what was signed (for example another time).");
    html.element("dt", "MALFORMED").element("dd", "The text cannot be read as a receipt's QR code at all.");
    html.close("dl").close("section");
}

}  // namespace

std::string startPage(const PageContext& context)
{
    std::string out;
    Html html(out);
    beginPage(html, "tse-check: check what a TSE signed", context.formToken);
    html.element("h1", "Check what a TSE signed");
    html.element("p",
                 "Exports and receipts are checked on this machine by the same code as the command line "
                 "tse-check; nothing leaves it.",
                 {{"class", "lead"}});
    exportForm(html, context.formToken);
    receiptForm(html, context.formToken);
    verdicts(html);
    endPage(html, context.version);
    return out;
}

std::string errorPage(int status, const std::string& message)
{
    std::string out;
    Html html(out);
    beginPage(html, "tse-check: " + std::to_string(status), "");
    html.element("h1", "The request was refused");
    html.open("p", {{"class", "verdict failed"}, {"id", "error"}})
        .text(std::to_string(status) + ": " + message)
        .close("p");
    html.trusted("<p><a class=\"button\" href=\"/\">Back to the start</a></p>");
    endPage(html, "tse-check");
    return out;
}

}  // namespace tsecheck::serve
