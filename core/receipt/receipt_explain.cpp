#include "receipt_explain.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "der.h"
#include "log_message.h"
#include "receipt_verify.h"
#include "signature_search.h"
#include "text.h"
#include "thread_annotations.h"

namespace tse {
namespace {

constexpr int MAX_ZONE_HOURS = 14;
constexpr int64_t SECONDS_PER_HOUR = 3600;
// Seconds of the window one worker takes at a time: small enough that a hit
// near the printed time stops the search early, large enough to keep the
// hand-out cheap.
constexpr int64_t WINDOW_CHUNK = 32;

// One change to the receipt and the receipt as changed.
struct Candidate {
    std::string change;
    std::string field;
    std::string shownValue;
    std::string signedValue;
    Receipt receipt;
};

std::string signedDelta(int64_t seconds, const char* unit)
{
    return (seconds > 0 ? "+" : "") + std::to_string(seconds) + unit;
}

// "signed 3 s earlier than shown": the direction in words, not a sign.
std::string timeShift(int64_t delta)
{
    return "signed " + std::to_string(delta < 0 ? -delta : delta) + " s " + (delta < 0 ? "earlier" : "later") +
           " than shown";
}

// The signature checks one explanation may still spend, shared by the
// threads that search.
class Budget {
public:
    explicit Budget(uint64_t limit) : limit_(limit), left_(static_cast<int64_t>(std::min<uint64_t>(limit, INT64_MAX)))
    {}

    bool take()
    {
        if (left_.fetch_sub(1, std::memory_order_relaxed) > 0) return true;
        cut_ = true;
        return false;
    }
    bool cut() const { return cut_; }
    uint64_t spent() const
    {
        const int64_t left = left_.load();
        return left <= 0 ? limit_ : limit_ - static_cast<uint64_t>(left);
    }

private:
    const uint64_t limit_;
    std::atomic<int64_t> left_;
    std::atomic<bool> cut_{false};
};

// The tables of G that the explanations of a batch share, one per curve,
// built when first needed (none on P-256, where libcrypto has its own).
// The explanations run one after another, so no lock is needed.
class GeneratorTables {
public:
    std::shared_ptr<const GeneratorTable> of(Curve curve)
    {
        auto [entry, added] = built_.try_emplace(curve);
        if (added) entry->second = generatorTable(curve);
        return entry->second;
    }

private:
    std::map<Curve, std::shared_ptr<const GeneratorTable>> built_;
};

// What the search under one reading of the key shares among its
// candidates and threads: the signatures, their search over messages and
// the bound.
struct SearchContext {
    const std::vector<ReceiptSignature>& signatures;
    const SignatureSearch& search;
    Budget& budget;
};

// The receipt as changed, rebuilt in every shape and time encoding; each
// check counts against the bound.
std::optional<ReceiptForm> holdsInAnyForm(const Receipt& receipt, const SearchContext& context, VerifyScratch& scratch)
{
    return ReceiptMatcher(receipt, context.signatures, nullptr, &context.search)
        .holdsAt(
            receipt.logTime.time.seconds, [&] { return context.budget.take(); }, &scratch);
}

std::string fieldLabel(const std::string& field)
{
    if (field == "logTime") return "log time";
    if (field == "clientId") return "client ID";
    if (field == "signatureAlgorithm") return "signature algorithm";
    if (field == "transactionNumber") return "transaction number";
    if (field == "signatureCounter") return "signature counter";
    return field;
}

class CandidateList {
public:
    explicit CandidateList(const Receipt& receipt) : receipt_(receipt) {}

    std::vector<Candidate> items;

    void logTime(const std::string& change, int64_t seconds)
    {
        if (seconds == receipt_.logTime.time.seconds) return;
        Receipt changed = receipt_;
        changed.logTime.time.seconds = seconds;
        items.push_back({change, "logTime", receipt_.logTime.text, isoSeconds(seconds), std::move(changed)});
    }

    void text(const std::string& change, std::string Receipt::*field, const char* name, const std::string& value)
    {
        if (value == receipt_.*field) return;
        for (const Candidate& earlier : items) {
            if (earlier.field == name && earlier.receipt.*field == value) return;
        }
        Receipt changed = receipt_;
        changed.*field = value;
        items.push_back({change, name, quoted(receipt_.*field, std::string::npos), quoted(value, std::string::npos),
                         std::move(changed)});
    }

    void number(const std::string& change, uint64_t Receipt::*field, const char* name, uint64_t value)
    {
        Receipt changed = receipt_;
        changed.*field = value;
        items.push_back({change, name, std::to_string(receipt_.*field), std::to_string(value), std::move(changed)});
    }

    void algorithm(const SignatureAlgorithm& algorithm)
    {
        Receipt changed = receipt_;
        changed.algorithm = &algorithm;
        items.push_back({"another hash of the same family", "signatureAlgorithm", std::string(receipt_.algorithm->name),
                         std::string(algorithm.name), std::move(changed)});
    }

private:
    const Receipt& receipt_;
};

std::string mapped(std::string text, int (*convert)(int))
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [convert](unsigned char c) { return static_cast<char>(convert(c)); });
    return text;
}

std::string firstLetterFlipped(std::string text)
{
    if (!text.empty() && std::isalpha(static_cast<unsigned char>(text[0]))) {
        const auto c = static_cast<unsigned char>(text[0]);
        text[0] = static_cast<char>(std::isupper(c) ? std::tolower(c) : std::toupper(c));
    }
    return text;
}

// "KASSENBELEG-V1" -> "Kassenbeleg-V1": a capital after every non-letter,
// as most printed words and codes are written.
std::string capitalizedWords(std::string text)
{
    bool afterLetter = false;
    for (char& ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        const bool letter = std::isalpha(c) != 0;
        if (letter) ch = static_cast<char>(afterLetter ? std::tolower(c) : std::toupper(c));
        afterLetter = letter;
    }
    return text;
}

std::string trailingBlanksRemoved(std::string text)
{
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.pop_back();
    return text;
}

std::string replaced(const std::string& text, const std::string& from, const std::string& to)
{
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text.compare(i, from.size(), from) == 0) {
            out += to;
            i += from.size();
        } else {
            out += text[i++];
        }
    }
    return out;
}

// The text's code points when it is UTF-8 of at most two octets a character,
// all below 256, so that Latin-1 can hold it.
std::optional<std::string> utf8AsLatin1(const std::string& text)
{
    std::string out;
    bool changed = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if ((c == 0xC2 || c == 0xC3) && i + 1 < text.size() &&
                   (static_cast<unsigned char>(text[i + 1]) & 0xC0) == 0x80) {
            out += static_cast<char>(((c & 0x03) << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F));
            changed = true;
        } else {
            return std::nullopt;
        }
    }
    return changed ? std::optional<std::string>(out) : std::nullopt;
}

std::string latin1AsUtf8(const std::string& text)
{
    std::string out;
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x80) {
            out += ch;
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

struct TextField {
    std::string Receipt::*member;
    const char* name;
};

void addTextChanges(CandidateList& list, const Receipt& r)
{
    static const TextField FIELDS[] = {{&Receipt::processType, "processType"},
                                       {&Receipt::processData, "processData"},
                                       {&Receipt::clientId, "clientId"}};
    for (const TextField& f : FIELDS) {
        const std::string& value = r.*f.member;
        list.text("other case", f.member, f.name, mapped(value, std::tolower));
        list.text("other case", f.member, f.name, mapped(value, std::toupper));
        list.text("other case", f.member, f.name, firstLetterFlipped(value));
        list.text("other case", f.member, f.name, capitalizedWords(value));
        list.text("a trailing blank", f.member, f.name, value + " ");
        list.text("trailing blanks", f.member, f.name, trailingBlanksRemoved(value));
        if (std::optional<std::string> latin1 = utf8AsLatin1(value)) {
            list.text("Latin-1 in place of UTF-8", f.member, f.name, *latin1);
        }
        list.text("UTF-8 in place of Latin-1", f.member, f.name, latin1AsUtf8(value));
    }
    const std::string& data = r.processData;
    list.text("CR LF line ends", &Receipt::processData, "processData",
              replaced(replaced(data, "\r\n", "\n"), "\n", "\r\n"));
    list.text("LF line ends", &Receipt::processData, "processData", replaced(data, "\r\n", "\n"));
    list.text("a line end", &Receipt::processData, "processData", data + "\r\n");
    list.text("a line end", &Receipt::processData, "processData", data + "\n");
}

std::vector<std::string> discreteChanges(CandidateList& list, const Receipt& r)
{
    std::vector<std::string> tried;
    const int64_t printed = r.logTime.time.seconds;
    // Before the whole hours, which would name a printed offset of whole
    // hours as just another zone.
    if (r.logTime.time.offsetMinutes != 0) {
        list.logTime("the time zone offset ignored", printed + r.logTime.time.offsetMinutes * 60);
        tried.push_back("the time zone offset ignored");
    }
    for (int hours = -MAX_ZONE_HOURS; hours <= MAX_ZONE_HOURS; ++hours) {
        list.logTime("the log time read in time zone UTC" + signedDelta(hours, ""), printed - hours * SECONDS_PER_HOUR);
    }
    tried.push_back("log time in the time zones UTC-14 to UTC+14");
    list.logTime("start and log time swapped", r.startTime.time.seconds);
    tried.push_back("start and log time swapped");
    addTextChanges(list, r);
    tried.insert(tried.end(), {"other case of processType, processData and client ID", "trailing blanks",
                               "CR LF line ends", "UTF-8 and Latin-1"});
    for (const Hash hash : sameFamily(r.algorithm->hash)) {
        if (hash != r.algorithm->hash) list.algorithm(ecdsaPlain(hash));
    }
    tried.push_back("another hash of the same family");
    for (const int delta : {-1, 1}) {
        if (r.transactionNumber > 0 || delta > 0) {
            list.number("transaction number off by one", &Receipt::transactionNumber, "transactionNumber",
                        r.transactionNumber + static_cast<uint64_t>(delta));
        }
        if (r.signatureCounter > 0 || delta > 0) {
            list.number("signature counter off by one", &Receipt::signatureCounter, "signatureCounter",
                        r.signatureCounter + static_cast<uint64_t>(delta));
        }
    }
    tried.insert(tried.end(), {"transaction number off by one", "signature counter off by one"});
    return tried;
}

Explanation explained(const Candidate& c, const ReceiptForm& form)
{
    Explanation e;
    e.found = true;
    e.change = c.change;
    e.field = c.field;
    e.shownValue = c.shownValue;
    e.signedValue = c.signedValue;
    e.form = describeForm(form);
    e.sentence = "the receipt was signed with " + fieldLabel(c.field) + " " + c.signedValue + "; it shows " +
                 c.shownValue + " (" + c.change + ")";
    return e;
}

std::optional<Explanation> firstDiscrete(const std::vector<Candidate>& candidates, const SearchContext& context,
                                         unsigned jobs)
{
    std::atomic<size_t> first{SIZE_MAX};
    std::vector<std::optional<ReceiptForm>> results(candidates.size());
    parallelFor(candidates.size(), jobs, [&](size_t i) {
        if (i > first) return;
        VerifyScratch scratch;
        results[i] = holdsInAnyForm(candidates[i].receipt, context, scratch);
        if (!results[i]) return;
        size_t seen = first.load();
        while (i < seen && !first.compare_exchange_weak(seen, i)) {
        }
    });
    if (first == SIZE_MAX) return std::nullopt;
    return explained(candidates[first], *results[first]);
}

struct WindowHit {
    int64_t delta = 0;
    ReceiptForm form;
};

// Nearest seconds first, so that a bound cuts off the least likely ones;
// a chunk stops as soon as a nearer one has a hit. `searched` is how far
// either side every second was tried.
std::optional<WindowHit> searchWindow(const Receipt& r, const SearchContext& context, int64_t window, unsigned jobs,
                                      int64_t& searched)
{
    const ReceiptMatcher search(r, context.signatures, nullptr, &context.search);
    Budget& budget = context.budget;
    const auto chunks = static_cast<size_t>((window + WINDOW_CHUNK - 1) / WINDOW_CHUNK);
    std::atomic<size_t> firstChunk{SIZE_MAX};
    struct {
        Mutex lock;
        std::optional<WindowHit> hit TSE_GUARDED_BY(lock);
    } best;
    std::vector<char> complete(chunks, 0);
    parallelFor(chunks, jobs, [&](size_t chunk) {
        if (chunk > firstChunk || budget.cut()) return;
        VerifyScratch scratch;
        const int64_t from = static_cast<int64_t>(chunk) * WINDOW_CHUNK + 1;
        const int64_t to = std::min(window, from + WINDOW_CHUNK - 1);
        for (int64_t distance = from; distance <= to && chunk <= firstChunk; ++distance) {
            for (const int64_t delta : {distance, -distance}) {
                const std::optional<ReceiptForm> form = search.holdsAt(
                    r.logTime.time.seconds + delta, [&] { return budget.take(); }, &scratch);
                if (budget.cut()) return;
                if (!form) continue;
                ExclusiveLock<Mutex> guard(best.lock);
                if (!best.hit || std::abs(delta) < std::abs(best.hit->delta)) best.hit = WindowHit{delta, *form};
                firstChunk = std::min(firstChunk.load(), chunk);
                return;
            }
        }
        if (chunk <= firstChunk) complete[chunk] = 1;
    });
    size_t whole = 0;
    while (whole < chunks && complete[whole]) ++whole;
    searched = std::min(window, static_cast<int64_t>(whole) * WINDOW_CHUNK);
    ExclusiveLock<Mutex> guard(best.lock);
    return best.hit;
}

Explanation explainWithKey(const Receipt& receipt, const ExplainOptions& options, Budget& budget,
                           GeneratorTables& tables)
{
    const Result<std::vector<ReceiptSignature>> signatures = receiptSignatures(receipt);
    Explanation none;
    if (!signatures) {
        none.sentence = "nothing to explain: " + signatures.error().message;
        return none;
    }
    const SignatureSearch search(receipt.key, plainOctets(receipt, *signatures), tables.of(receipt.key.curve()));
    const SearchContext context{*signatures, search, budget};
    CandidateList list(receipt);
    none.tried = discreteChanges(list, receipt);
    if (std::optional<Explanation> found = firstDiscrete(list.items, context, options.jobs)) return *found;

    const int64_t window = std::min(options.timeWindow, MAX_TIME_WINDOW);
    if (window > 0 && !budget.cut()) {
        int64_t searched = 0;
        std::optional<WindowHit> hit = searchWindow(receipt, context, window, options.jobs, searched);
        none.searchedWindow = searched;
        if (hit) {
            const int64_t seconds = receipt.logTime.time.seconds + hit->delta;
            Receipt changed = receipt;
            changed.logTime.time.seconds = seconds;
            const Candidate c{"the log time " + timeShift(hit->delta), "logTime", receipt.logTime.text,
                              isoSeconds(seconds), std::move(changed)};
            Explanation e = explained(c, hit->form);
            e.searchedWindow = searched;
            return e;
        }
        none.tried.push_back("log time off by up to " + std::to_string(searched) + " s");
    }
    std::string joined;
    for (const std::string& t : none.tried) joined += (joined.empty() ? "" : ", ") + t;
    none.sentence = "no change explains the failure; tried: " + joined;
    return none;
}

Explanation explainWithTables(const Receipt& receipt, const ExplainOptions& options, GeneratorTables& tables)
{
    Budget budget(options.maxChecks);
    Explanation result;
    const std::vector<Receipt> readings = withEachKey(receipt);
    for (size_t i = 0; i < readings.size() && !budget.cut(); ++i) {
        Explanation e = explainWithKey(readings[i], options, budget, tables);
        if (e.found || i == 0) result = std::move(e);
        if (result.found) break;
    }
    result.checks = budget.spent();
    if (!result.found && budget.cut()) {
        result.cutShort = true;
        const int64_t window = std::min(options.timeWindow, MAX_TIME_WINDOW);
        result.sentence = "the search was cut short after " +
                          counted(result.checks, "signature check", "signature checks") + ", the work bound" +
                          (window > 0 ? ", with the log time searched " + std::to_string(result.searchedWindow) +
                                            " s of " + std::to_string(window) + " s either side"
                                      : std::string()) +
                          "; " + result.sentence;
    }
    return result;
}

}  // namespace

Explanation explainReceipt(const Receipt& receipt, const ExplainOptions& options)
{
    GeneratorTables tables;
    return explainWithTables(receipt, options, tables);
}

std::vector<Explanation> explainReceipts(const std::vector<const Receipt*>& receipts, const ExplainOptions& options,
                                         uint64_t batchChecks)
{
    std::vector<Explanation> out;
    out.reserve(receipts.size());
    uint64_t left = batchChecks;
    GeneratorTables tables;
    for (size_t i = 0; i < receipts.size(); ++i) {
        ExplainOptions share = options;
        share.maxChecks = std::min(options.maxChecks, left / (receipts.size() - i));
        out.push_back(explainWithTables(*receipts[i], share, tables));
        left -= std::min(left, out.back().checks);
    }
    return out;
}

}  // namespace tse
