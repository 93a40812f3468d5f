// make-dsfinvk: the closings of the sales - one per register and German
// business day - numbered over every part, and the totals their
// cashpointclosing.csv row gives.
#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>

#include "make_dsfinvk_book.h"

namespace makedsfinvk {

namespace {

constexpr size_t NOT_IN_PART = std::numeric_limits<size_t>::max();

// Which register and, with terminals, which terminal each client is.
void assignRegisters(const std::vector<Sale>& sales, bool terminals, std::map<std::string, std::string>& registerOf,
                     Book& book)
{
    for (const Sale& sale : sales) {
        if (terminals) {
            registerOf.emplace(sale.clientId, "Kasse 1");
            book.terminals.emplace(sale.clientId, "T" + std::to_string(book.terminals.size() + 1));
        } else {
            registerOf.emplace(sale.clientId, "Kasse " + std::to_string(registerOf.size() + 1));
        }
    }
}

// The closing a register is booking into.
struct OpenClosing {
    int64_t day = 0;
    size_t part = 0;
    size_t index = NOT_IN_PART;  // in book.closings
};

// Opens the register's next closing when the sale falls on another business
// day or into another part; the number counts on over every part.
size_t closingFor(Book& book, std::map<std::string, OpenClosing>& open, std::map<std::string, uint64_t>& numbers,
                  const std::string& kasse, const Sale& sale, size_t part, const PlanOptions& options)
{
    const int64_t day = germanDay(sale.seconds);
    const auto found = open.find(kasse);
    if (found != open.end() && found->second.day == day && found->second.part == part) return found->second.index;
    OpenClosing next{day, part, NOT_IN_PART};
    const uint64_t number = ++numbers[kasse];
    if (part == options.part) {
        next.index = book.closings.size();
        Closing closing;
        closing.kasse = kasse;
        closing.registerSerial = options.terminals ? "REGISTER-1" : sale.clientId;
        closing.number = number;
        closing.day = day;
        book.closings.push_back(std::move(closing));
    }
    open[kasse] = next;
    return next.index;
}

// Where each part begins: after an even share of the sales, moved on to
// the next German business day, so that every part holds whole days and
// its closings cover all the sales of their time.
std::vector<size_t> partStarts(const std::vector<Sale>& sales, size_t parts)
{
    std::vector<size_t> starts{0};
    for (size_t k = 1; k < parts; ++k) {
        size_t at = std::max(starts.back(), sales.size() * k / parts);
        while (at > 0 && at < sales.size() && germanDay(sales[at].seconds) == germanDay(sales[at - 1].seconds)) ++at;
        starts.push_back(at);
    }
    starts.push_back(sales.size());
    return starts;
}

}  // namespace

Book planBook(const std::vector<Sale>& sales, const std::map<std::string, TseInfo>& keys, const PlanOptions& options)
{
    Book book;
    std::map<std::string, std::string> registerOf;
    assignRegisters(sales, options.terminals, registerOf, book);
    std::map<std::string, OpenClosing> open;
    std::map<std::string, uint64_t> closingNumbers, bonNumbers;
    const std::vector<size_t> starts = partStarts(sales, options.parts);
    if (starts[options.part] == starts[options.part - 1]) {
        throw std::runtime_error("part " + std::to_string(options.part) + " of " + std::to_string(options.parts) +
                                 " holds no sales: they fall on too few business days for so many parts");
    }
    size_t part = 1;
    for (size_t i = 0; i < sales.size(); ++i) {
        const Sale& sale = sales[i];
        while (i >= starts[part]) ++part;
        uint64_t& last = book.lastTransaction[sale.serial];
        last = std::max(last, sale.transaction);
        const std::string& kasse = registerOf[sale.clientId];
        const size_t index = closingFor(book, open, closingNumbers, kasse, sale, part, options);
        const uint64_t bon = ++bonNumbers[kasse];
        if (index == NOT_IN_PART) continue;
        Closing& closing = book.closings[index];
        Receipt receipt = receiptOf(sale, bon, options.lines);
        if (options.terminals) receipt.terminal = book.terminals[sale.clientId];
        closing.created = std::max(closing.created, receipt.end + 1);
        if (std::find(closing.tses.begin(), closing.tses.end(), sale.serial) == closing.tses.end())
            closing.tses.push_back(sale.serial);
        closing.receipts.push_back(std::move(receipt));
        if (!book.tses.count(sale.serial)) {
            const auto key = keys.find(sale.serial);
            TseInfo info = key == keys.end() ? TseInfo{} : key->second;
            info.algorithm = sale.algorithm;
            info.timeFormat = sale.timeFormat;
            book.tses.emplace(sale.serial, info);
        }
    }
    return book;
}

void computeTotals(Book& book)
{
    for (Closing& closing : book.closings) {
        ClosingTotals& totals = closing.totals;
        totals = ClosingTotals{};
        if (closing.receipts.empty()) continue;
        totals.firstBon = closing.receipts.front().bon;
        totals.lastBon = closing.receipts.back().bon;
        for (const Receipt& receipt : closing.receipts) {
            if (receipt.type != "Beleg") continue;  // only sales are booked in the closing
            for (const Payment& p : receipt.payments) {
                totals.payments += p.base;
                if (p.type == "Bar") totals.cash += p.base;
            }
        }
    }
}

void renumber(Book& book, size_t closing, size_t receipt, int64_t delta)
{
    const std::string kasse = book.closings[closing].kasse;
    for (size_t c = closing; c < book.closings.size(); ++c) {
        if (book.closings[c].kasse != kasse) continue;
        std::vector<Receipt>& receipts = book.closings[c].receipts;
        for (size_t r = c == closing ? receipt : 0; r < receipts.size(); ++r) {
            receipts[r].bon = static_cast<uint64_t>(static_cast<int64_t>(receipts[r].bon) + delta);
        }
    }
}

std::vector<ReceiptAt> receiptsWhere(const Book& book, const std::function<bool(const Receipt&)>& fits)
{
    std::vector<ReceiptAt> out;
    for (size_t c = 0; c < book.closings.size(); ++c) {
        for (size_t r = 0; r < book.closings[c].receipts.size(); ++r) {
            if (fits(book.closings[c].receipts[r])) out.push_back({c, r});
        }
    }
    return out;
}

}  // namespace makedsfinvk
