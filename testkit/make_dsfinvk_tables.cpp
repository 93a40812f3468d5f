// make-dsfinvk: every table of the bookkeeping written from the book, one
// writer per table. The closing module (businesscases, payment,
// cash_per_currency) sums the closing's sales (BON_TYP Beleg) as they stand
// in the book, so it agrees with the receipts unless a defect changed them.
#include <algorithm>
#include <initializer_list>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

#include "log_time.h"
#include "make_dsfinvk_tables.h"

namespace makedsfinvk {

namespace {

constexpr size_t CERTIFICATE_PART = 1000;  // TSE_ZERTIFIKAT_I holds the first 1000 characters

using Fields = std::vector<std::pair<std::string_view, std::string>>;

// The value as a field: in quotes, doubled inside, where it holds a
// delimiter, a quote or a line break.
void appendField(std::string& text, const std::string& value, bool bare)
{
    if (bare || value.find_first_of(";\"\r\n") == std::string::npos) {
        text += value;
        return;
    }
    text += '"';
    for (const char c : value) {
        if (c == '"') text += '"';
        text += c;
    }
    text += '"';
}

// Each table's text, row by row in its declared columns.
class Tables {
public:
    Tables(const std::vector<tse::TableDescription>& tables, const Book& book) : book_(book)
    {
        for (const tse::TableDescription& table : tables) {
            Table& out = tables_[table.url];
            for (size_t i = 0; i < table.columns.size(); ++i) {
                const std::string& name = table.columns[i].name;
                out.columns.push_back(name);
                const bool renamed = name == "TSE_VORGANGSDATEN" && !book.processDataColumn.empty();
                out.text += (i ? ";" : "") + (renamed ? book.processDataColumn : name);
            }
            out.text += "\r\n";
        }
    }

    void add(const std::string& url, const Fields& fields)
    {
        const auto table = tables_.find(url);
        if (table == tables_.end()) return;
        std::string& text = table->second.text;
        for (size_t i = 0; i < table->second.columns.size(); ++i) {
            const std::string* value = &EMPTY;
            for (const auto& field : fields) {
                if (field.first == table->second.columns[i]) value = &field.second;
            }
            if (i) text += ';';
            appendField(text, *value, !book_.bareValue.empty() && *value == book_.bareValue);
        }
        text += "\r\n";
    }

    std::map<std::string, std::string> take()
    {
        std::map<std::string, std::string> out;
        for (auto& [url, table] : tables_) out[url] = std::move(table.text);
        return out;
    }

private:
    struct Table {
        std::vector<std::string> columns;
        std::string text;
    };
    inline static const std::string EMPTY;
    const Book& book_;
    std::map<std::string, Table> tables_;
};

std::string cents(int64_t amount)
{
    return decimalText(amount, 2);
}

std::string fine(int64_t amount, bool emptyWhenZero)
{
    return emptyWhenZero && amount == 0 ? std::string() : decimalText(amount, 5);
}

Fields closingKey(const Closing& closing)
{
    return {{"Z_KASSE_ID", closing.kasse},
            {"Z_ERSTELLUNG", tse::isoSeconds(closing.created)},
            {"Z_NR", std::to_string(closing.number)}};
}

Fields receiptKey(const Closing& closing, const Receipt& receipt)
{
    Fields key = closingKey(closing);
    key.emplace_back("BON_ID", std::to_string(receipt.bon));
    return key;
}

Fields with(Fields key, std::initializer_list<std::pair<std::string_view, std::string>> more)
{
    key.insert(key.end(), more.begin(), more.end());
    return key;
}

std::string isoText(int64_t seconds)
{
    tse::LogTime time;
    time.seconds = seconds;
    return time.iso();
}

std::string tseId(const Closing& closing, const std::string& serial)
{
    return std::to_string(std::find(closing.tses.begin(), closing.tses.end(), serial) - closing.tses.begin() + 1);
}

void writeTse(Tables& out, const Book& book, const Closing& closing)
{
    for (size_t i = 0; i < closing.tses.size(); ++i) {
        const TseInfo& tse = book.tses.at(closing.tses[i]);
        std::string serial = closing.tses[i];
        if (serial == book.falseSerial) serial[0] = serial[0] == '0' ? '1' : '0';
        const std::string& certificate = tse.certificateBase64;
        out.add("tse.csv", with(closingKey(closing),
                                {{"TSE_ID", std::to_string(i + 1)},
                                 {"TSE_SERIAL", serial},
                                 {"TSE_SIG_ALGO", tse.algorithm},
                                 {"TSE_ZEITFORMAT", tse.timeFormat},
                                 {"TSE_PD_ENCODING", "UTF-8"},
                                 {"TSE_PUBLIC_KEY", tse.keyBase64},
                                 {"TSE_ZERTIFIKAT_I", certificate.substr(0, CERTIFICATE_PART)},
                                 {"TSE_ZERTIFIKAT_II",
                                  certificate.size() > CERTIFICATE_PART ? certificate.substr(CERTIFICATE_PART) : ""}}));
    }
}

void writeMasterData(Tables& out, const Book& book, const Closing& closing)
{
    const Fields key = closingKey(closing);
    out.add("location.csv", with(key, {{"LOC_NAME", "Beispiel GmbH, Filiale Mitte"},
                                       {"LOC_STRASSE", "Musterstraße 1"},
                                       {"LOC_PLZ", "12345"},
                                       {"LOC_ORT", "Musterstadt"},
                                       {"LOC_LAND", "DEU"},
                                       {"LOC_USTID", "DE123456789"}}));
    out.add("cashregister.csv", with(key, {{"KASSE_BRAND", "make-dsfinvk"},
                                           {"KASSE_MODELL", "Testkasse"},
                                           {"KASSE_SERIENNR", closing.registerSerial},
                                           {"KASSE_SW_BRAND", "make-dsfinvk"},
                                           {"KASSE_SW_VERSION", "1.0"},
                                           {"KASSE_BASISWAEH_CODE", "EUR"},
                                           {"KEINE_UST_ZUORDNUNG", "0"}}));
    for (const auto& [client, terminal] : book.terminals) {
        out.add("slaves.csv", with(key, {{"TERMINAL_ID", terminal}, {"TERMINAL_SERIENNR", client}}));
    }
    writeTse(out, book, closing);
}

// vat.csv: the register's keys, 1 to 7 and its own for what processData
// leaves out, each at the rate it has on the closing's business day.
void writeVat(Tables& out, const Closing& closing)
{
    for (const int key : {1, 2, 3, 4, 5, 6, 7, DIFFERENCE_KEY}) {
        out.add("vat.csv", with(closingKey(closing), {{"UST_SCHLUESSEL", std::to_string(key)},
                                                      {"UST_SATZ", cents(rateOf(closing, key))},
                                                      {"UST_BESCHR", vatDescription(key)}}));
    }
}

void writeClosing(Tables& out, const Closing& closing)
{
    const ClosingTotals& totals = closing.totals;
    out.add("cashpointclosing.csv", with(closingKey(closing), {{"Z_BUCHUNGSTAG", dateText(closing.day)},
                                                               {"TAXONOMIE_VERSION", "2.3"},
                                                               {"Z_START_ID", std::to_string(totals.firstBon)},
                                                               {"Z_ENDE_ID", std::to_string(totals.lastBon)},
                                                               {"NAME", "Beispiel GmbH"},
                                                               {"STRASSE", "Musterstraße 1"},
                                                               {"PLZ", "12345"},
                                                               {"ORT", "Musterstadt"},
                                                               {"LAND", "DEU"},
                                                               {"STNR", "123/456/78901"},
                                                               {"USTID", "DE123456789"},
                                                               {"Z_SE_ZAHLUNGEN", cents(totals.payments)},
                                                               {"Z_SE_BARZAHLUNGEN", cents(totals.cash)}}));
}

void writeHead(Tables& out, const Book& book, const Closing& closing, const Receipt& receipt)
{
    const int64_t gross = receipt.gross();
    for (const std::string& name : {receipt.name, receipt.brokenCopy ? book.bareValue : std::string()}) {
        if (name.empty()) continue;
        out.add("transactions.csv",
                with(receiptKey(closing, receipt),
                     {{"BON_NR", std::to_string(receipt.bon)},
                      {"BON_TYP", receipt.type},
                      {"BON_NAME", name},
                      {"TERMINAL_ID", receipt.terminal},
                      {"BON_STORNO", "0"},
                      {"BON_START", isoText(receipt.start)},
                      {"BON_ENDE", isoText(receipt.end)},
                      {"UMS_BRUTTO", receipt.extraDecimal ? decimalText(gross * 10, 3) : cents(gross)}}));
    }
    for (const Reference& r : receipt.references) {
        out.add("references.csv", with(receiptKey(closing, receipt), {{"REF_TYP", r.type},
                                                                      {"REF_DATUM", r.date},
                                                                      {"REF_Z_KASSE_ID", r.kasse},
                                                                      {"REF_Z_NR", r.closing},
                                                                      {"REF_BON_ID", r.bonId}}));
    }
}

void writeTseRows(Tables& out, const Closing& closing, const Receipt& receipt)
{
    for (const TseRow& row : receipt.tse) {
        out.add("transactions_tse.csv", with(receiptKey(closing, receipt), {{"TSE_ID", tseId(closing, row.serial)},
                                                                            {"TSE_TANR", row.number},
                                                                            {"TSE_TA_START", row.start},
                                                                            {"TSE_TA_ENDE", row.end},
                                                                            {"TSE_TA_VORGANGSART", row.processType},
                                                                            {"TSE_TA_SIGZ", row.counter},
                                                                            {"TSE_TA_SIG", row.signature},
                                                                            {"TSE_TA_FEHLER", row.failure},
                                                                            {"TSE_VORGANGSDATEN", row.processData}}));
    }
}

// A line's net: to five decimals, or to the cent as writers do that add up
// a receipt's net from its lines.
int64_t lineNet(const Book& book, const Closing& closing, const Line& line)
{
    return netOf(line.gross, rateOf(closing, line.key), book.variants.vatFromLines ? LINE_UNITS_PER_CENT : 1);
}

// transactions_vat.csv: the receipt's printed amounts per key, two
// decimals, net and VAT computed on the key's total. Writers that add up
// the net of the lines instead, and take the VAT of the total, end a cent
// apart now and then.
void writeReceiptVat(Tables& out, const Book& book, const Closing& closing, const Receipt& receipt)
{
    for (const KeyGross& k : receipt.keys) {
        const int64_t rate = rateOf(closing, k.key);
        const int64_t vat = k.gross - netOf(k.gross, rate);
        int64_t net = k.gross - vat;
        if (book.variants.vatFromLines) {
            net = 0;
            for (const Line& line : receipt.lines) net += line.key == k.key ? lineNet(book, closing, line) : 0;
            net = roundUnits(net, LINE_UNITS_PER_CENT);
        }
        out.add("transactions_vat.csv", with(receiptKey(closing, receipt), {{"UST_SCHLUESSEL", std::to_string(k.key)},
                                                                            {"BON_BRUTTO", cents(k.gross)},
                                                                            {"BON_NETTO", cents(net)},
                                                                            {"BON_UST", cents(vat)}}));
    }
}

void writeLines(Tables& out, const Book& book, const Closing& closing, const Receipt& receipt)
{
    const bool empty = book.variants.emptyZeroAmounts;
    for (size_t i = 0; i < receipt.lines.size(); ++i) {
        const Line& line = receipt.lines[i];
        const Fields key = with(receiptKey(closing, receipt), {{"POS_ZEILE", std::to_string(i + 1)}});
        out.add("lines.csv", with(key, {{"ARTIKELTEXT", line.text},
                                        {"GV_TYP", line.type},
                                        {"GV_NAME", line.name},
                                        {"INHAUS", "0"},
                                        {"P_STORNO", "0"},
                                        {"AGENTUR_ID", "0"},
                                        {"MENGE", decimalText(line.quantity, 3)},
                                        {"STK_BR", decimalText(line.unitPrice, 5)}}));
        const int64_t net = lineNet(book, closing, line);
        out.add("lines_vat.csv", with(key, {{"UST_SCHLUESSEL", std::to_string(line.key)},
                                            {"POS_BRUTTO", fine(line.gross, empty)},
                                            {"POS_NETTO", fine(net, empty)},
                                            {"POS_UST", fine(line.gross - net, empty)}}));
    }
}

// datapayment.csv: BASISWAEH_BETRAG always; ZAHLWAEH_CODE and
// ZAHLWAEH_BETRAG only for a foreign currency.
void writePayments(Tables& out, const Closing& closing, const Receipt& receipt)
{
    for (const Payment& p : receipt.payments) {
        const bool foreign = !p.currency.empty();
        out.add("datapayment.csv",
                with(receiptKey(closing, receipt), {{"ZAHLART_TYP", p.type},
                                                    {"ZAHLART_NAME", p.name},
                                                    {"ZAHLWAEH_CODE", p.currency},
                                                    {"ZAHLWAEH_BETRAG", foreign ? cents(p.amount) : ""},
                                                    {"BASISWAEH_BETRAG", cents(p.base)}}));
    }
}

struct CaseTotal {
    int64_t gross = 0, net = 0, vat = 0;
};

// The closing module: business cases per type, name, agency and key (five
// decimals, the sums of the lines), payments per type and name, cash per
// currency in that currency.
void writeClosingModule(Tables& out, const Book& book, const Closing& closing)
{
    std::map<std::tuple<std::string, std::string, int>, CaseTotal> cases;
    std::map<std::pair<std::string, std::string>, int64_t> payments;
    std::map<std::string, int64_t> cash;
    bool baseCash = false;
    for (const Receipt& receipt : closing.receipts) {
        if (receipt.type != "Beleg") continue;
        for (const Line& line : receipt.lines) {
            CaseTotal& total = cases[{line.type, line.name, line.key}];
            const int64_t net = lineNet(book, closing, line);
            total.gross += line.gross, total.net += net, total.vat += line.gross - net;
        }
        for (const Payment& p : receipt.payments) {
            payments[{p.type, p.name}] += p.base;
            if (p.type != "Bar") continue;
            cash[p.currency.empty() ? "EUR" : p.currency] += p.currency.empty() ? p.base : p.amount;
            baseCash = baseCash || p.currency.empty();
        }
    }
    if (!baseCash && !book.variants.noCashlessCurrencyRow) cash.emplace("EUR", 0);
    const Fields key = closingKey(closing);
    for (const auto& [c, total] : cases) {
        out.add("businesscases.csv", with(key, {{"GV_TYP", std::get<0>(c)},
                                                {"GV_NAME", std::get<1>(c)},
                                                {"AGENTUR_ID", "0"},
                                                {"UST_SCHLUESSEL", std::to_string(std::get<2>(c))},
                                                {"Z_UMS_BRUTTO", decimalText(total.gross, 5)},
                                                {"Z_UMS_NETTO", decimalText(total.net, 5)},
                                                {"Z_UST", decimalText(total.vat, 5)}}));
    }
    for (const auto& [p, amount] : payments) {
        out.add("payment.csv",
                with(key, {{"ZAHLART_TYP", p.first}, {"ZAHLART_NAME", p.second}, {"Z_ZAHLART_BETRAG", cents(amount)}}));
    }
    for (const auto& [currency, amount] : cash) {
        out.add("cash_per_currency.csv",
                with(key, {{"ZAHLART_WAEH", currency}, {"ZAHLART_BETRAG_WAEH", cents(amount)}}));
    }
}

}  // namespace

std::map<std::string, std::string> writeTables(const Book& book, const std::vector<tse::TableDescription>& tables)
{
    Tables out(tables, book);
    for (const Closing& closing : book.closings) {
        writeClosing(out, closing);
        writeMasterData(out, book, closing);
        writeVat(out, closing);
        for (const Receipt& receipt : closing.receipts) {
            writeHead(out, book, closing, receipt);
            writeTseRows(out, closing, receipt);
            writeReceiptVat(out, book, closing, receipt);
            writeLines(out, book, closing, receipt);
            writePayments(out, closing, receipt);
        }
        writeClosingModule(out, book, closing);
    }
    return out.take();
}

}  // namespace makedsfinvk
