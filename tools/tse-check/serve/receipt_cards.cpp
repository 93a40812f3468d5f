// One card per QR code of a finished receipt job: the verdict large, what
// the receipt says (register, transaction, time, amounts) and, for an
// invalid one, what the explanation found. Read back from the job's JSON,
// the same document the API hands out.
#include <fstream>

#include <nlohmann/json.hpp>

#include "dsfinvk_check.h"
#include "html_writer.h"
#include "receipt_text.h"

#include "serve/pages.h"

namespace tsecheck::serve {
namespace {

using nlohmann::json;
using report::Html;

std::string text(const json& value)
{
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number_unsigned()) return std::to_string(value.get<uint64_t>());
    return "-";
}

std::string amount(int64_t hundredths)
{
    const int64_t whole = hundredths / 100, cents = std::llabs(hundredths % 100);
    return (hundredths < 0 && whole == 0 ? "-" : "") + std::to_string(whole) + "." + (cents < 10 ? "0" : "") +
           std::to_string(cents);
}

// The gross amounts per VAT rate and the payments of a Kassenbeleg-V1.
std::string amountsOf(const std::string& qrText)
{
    std::string_view rest = tse::trimReceiptText(qrText);
    for (int field = 0; field < 3; ++field) {
        const size_t semicolon = rest.find(';');
        if (semicolon == std::string_view::npos) return {};
        rest.remove_prefix(semicolon + 1);
    }
    const std::optional<tse::ReceiptAmounts> amounts = tse::parseReceiptAmounts(rest.substr(0, rest.find(';')));
    if (!amounts) return {};
    static const char* RATES[5] = {"19 %", "7 %", "10.7 %", "5.5 %", "0 %"};
    std::string out;
    for (int i = 0; i < 5; ++i) {
        if (amounts->vat[i] != 0) out += (out.empty() ? "" : ", ") + amount(amounts->vat[i]) + " at " + RATES[i];
    }
    for (const tse::ReceiptAmounts::Payment& payment : amounts->payments) {
        out += (out.empty() ? "" : "; ") + std::string(payment.cash ? "paid in cash " : "paid otherwise ") +
               amount(payment.amount) + (payment.currency.empty() ? "" : " " + payment.currency);
    }
    return out;
}

void card(Html& html, const json& receipt)
{
    const std::string verdict = text(receipt.value("verdict", json()));
    html.open("li", {{"class", "card " + verdict}});
    std::string word = verdict;
    for (char& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    html.element("p", word, {{"class", "big"}});
    html.element("p", text(receipt.value("source", json())), {{"class", "source"}});
    html.open("dl");
    html.element("dt", "Register").element("dd", text(receipt.value("clientId", json())));
    html.element("dt", "Transaction")
        .element("dd", text(receipt.value("transactionNumber", json())) + ", signature " +
                           text(receipt.value("signatureCounter", json())));
    html.element("dt", "Time (UTC)").element("dd", text(receipt.value("logTime", json())));
    const std::string amounts = amountsOf(text(receipt.value("text", json())));
    if (!amounts.empty()) html.element("dt", "Amounts").element("dd", amounts);
    html.element("dt", "Signed with")
        .element("dd", text(receipt.value("signatureAlgorithm", json())) + " " + text(receipt.value("curve", json())));
    html.close("dl");
    if (receipt.value("reason", json()).is_string()) html.element("p", text(receipt["reason"]), {{"class", "reason"}});
    const json explanation = receipt.value("explanation", json());
    if (explanation.is_object() && explanation.value("sentence", json()).is_string()) {
        html.element("p", text(explanation["sentence"]), {{"class", "explanation"}});
    }
    html.close("li");
}

}  // namespace

std::string receiptCards(const Job& job)
{
    std::ifstream in(job.documentPath("receipt.json"), std::ios::binary);
    const json document = json::parse(in, nullptr, false);
    std::string out;
    Html html(out);
    if (!document.is_array()) return out;
    for (const json& receipt : document) {
        if (receipt.is_object()) card(html, receipt);
    }
    return out;
}

}  // namespace tsecheck::serve
