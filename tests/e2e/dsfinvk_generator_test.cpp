// make-dsfinvk, the generator behind the bookkeeping tests: every table it
// writes reads back in the columns index.xml declares, its totals hold per
// receipt and per closing and agree with the signed processData (all
// computed here again, in exact decimals), and each planted defect breaks
// only what it is named for. The exports it derives from real and from
// make-export's TSE exports still pass `tse-check dsfinvk`.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "dsfinvk_csv.h"
#include "dsfinvk_index.h"
#include "fixtures.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Row = std::map<std::string, std::string>;
using Problems = std::multiset<std::string>;

const std::string HERE = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/'));
const std::string CLOUD = HERE + "/../data/real-exports/2021-09-30_63641_TSE.tar";  // Kassenbeleg-V1
const std::string JSON_TSE =
    HERE + "/../data/real-exports/TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015.tar";
const std::string INDEX = HERE + "/../data/dsfinvk/index.xml";

fixtures::RunResult make(const std::string& program, const std::vector<std::string>& arguments)
{
    fixtures::RunResult made = fixtures::run(fixtures::toolPath(program), arguments, {}, {120, 0});
    EXPECT_EQ(made.status, 0) << program << ": " << made.err;
    return made;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Every table index.xml describes, read in its declared dialect. A header
// other than the declared columns and a line that does not read are problems.
struct Books {
    std::map<std::string, std::vector<Row>> tables;
    Problems problems;
    const std::vector<Row>& operator[](const std::string& file) const { return tables.at(file); }
};

Books readBooks(const std::string& dir)
{
    Books books;
    const std::string index = slurp(INDEX);
    const tse::Result<std::vector<tse::TableDescription>> tables = tse::parseIndexXml(index);
    if (!tables) ADD_FAILURE() << tables.error().message;
    for (const tse::TableDescription& table : tables ? *tables : std::vector<tse::TableDescription>{}) {
        std::vector<Row>& rows = books.tables[table.url];
        const tse::CsvRead read =
            tse::readCsv(slurp(dir + "/" + table.url), table.dialect, table.columns,
                         [&](const std::vector<std::string>& header, const tse::CsvRecord& record) {
                             Row row;
                             for (size_t i = 0; i < header.size(); ++i) row[header[i]] = record.fields[i];
                             rows.push_back(row);
                         });
        std::vector<std::string> declared;
        for (const tse::CsvColumn& column : table.columns) declared.push_back(column.name);
        if (read.header != declared) books.problems.insert("header");
        if (!read.problems.empty()) books.problems.insert("unreadable");
    }
    return books;
}

std::string value(const Row& row, const std::string& column)
{
    const auto found = row.find(column);
    return found == row.end() ? std::string() : found->second;
}

// "-1.234,56789" in units of 10^-decimals (digits beyond them dropped); empty is zero.
int64_t units(const std::string& text, int decimals, char point = ',')
{
    int64_t number = 0;
    int after = -1;
    for (const char c : text) {
        if (c == point) after = 0;
        else if (c >= '0' && c <= '9' && after < decimals) {
            number = number * 10 + (c - '0');
            if (after >= 0) ++after;
        }
    }
    for (int i = std::max(after, 0); i < decimals; ++i) number *= 10;
    return text.find('-') == std::string::npos ? number : -number;
}

int decimalsOf(const std::string& text)
{
    const size_t comma = text.find(',');
    return comma == std::string::npos ? 0 : static_cast<int>(text.size() - comma - 1);
}

std::string closingOf(const Row& r)
{
    return value(r, "Z_KASSE_ID") + "|" + value(r, "Z_ERSTELLUNG") + "|" + value(r, "Z_NR");
}

std::string receiptOf(const Row& r)
{
    return closingOf(r) + "|" + value(r, "BON_ID");
}

// Every row names a receipt that exists; lines add up to the VAT table per
// key, the keys to UMS_BRUTTO, a sale's payments to it; net + VAT = gross
// (a line exactly, a receipt within a cent); amounts with their decimals.
void receiptProblems(const Books& books, Problems& out)
{
    std::map<std::string, const Row*> receipts;
    for (const Row& r : books["transactions.csv"]) receipts[receiptOf(r)] = &r;
    for (const char* table :
         {"lines.csv", "lines_vat.csv", "transactions_vat.csv", "datapayment.csv", "transactions_tse.csv"}) {
        for (const Row& r : books[table]) {
            if (!receipts.count(receiptOf(r))) out.insert("reference");
        }
    }
    for (const Row& r : books["references.csv"]) {
        const auto same = [&](const auto& entry) {
            const Row& head = *entry.second;
            return value(head, "Z_KASSE_ID") == value(r, "REF_Z_KASSE_ID") &&
                   value(head, "Z_NR") == value(r, "REF_Z_NR") && value(head, "BON_ID") == value(r, "REF_BON_ID");
        };
        if (std::none_of(receipts.begin(), receipts.end(), same)) out.insert("reference");
    }
    std::map<std::string, std::map<std::string, int64_t>> lines, keys;
    std::map<std::string, int64_t> paid;
    for (const Row& r : books["lines_vat.csv"]) {
        const int64_t gross = units(value(r, "POS_BRUTTO"), 5);
        lines[receiptOf(r)][value(r, "UST_SCHLUESSEL")] += gross;
        if (units(value(r, "POS_NETTO"), 5) + units(value(r, "POS_UST"), 5) != gross) out.insert("receipt-sum");
    }
    for (const Row& r : books["transactions_vat.csv"]) {
        const int64_t gross = units(value(r, "BON_BRUTTO"), 2);
        keys[receiptOf(r)][value(r, "UST_SCHLUESSEL")] += gross;
        if (std::llabs(units(value(r, "BON_NETTO"), 2) + units(value(r, "BON_UST"), 2) - gross) > 1)
            out.insert("receipt-sum");
    }
    for (const Row& r : books["datapayment.csv"]) paid[receiptOf(r)] += units(value(r, "BASISWAEH_BETRAG"), 2);
    for (const auto& [key, head] : receipts) {
        int64_t total = 0;
        for (auto& [vatKey, gross] : lines[key]) gross = (gross + (gross < 0 ? -500 : 500)) / 1000;  // to the cent
        for (const auto& entry : keys[key]) total += entry.second;
        const bool sale = value(*head, "BON_TYP") == "Beleg";
        if (lines[key] != keys[key] || total != units(value(*head, "UMS_BRUTTO"), 2) || (sale && paid[key] != total)) {
            out.insert("receipt-sum");
        }
        if (decimalsOf(value(*head, "UMS_BRUTTO")) != 2) out.insert("decimals");
    }
}

using Sums = std::map<std::string, std::vector<int64_t>>;

using ClosingSums = std::map<std::string, Sums>;  // closing -> what -> amounts

// What the sales of each closing add up to, from their lines and payments.
ClosingSums computedSums(const Books& books, const std::set<std::string>& sales)
{
    std::map<std::string, std::string> caseOf;
    for (const Row& r : books["lines.csv"]) {
        caseOf[receiptOf(r) + "|" + value(r, "POS_ZEILE")] =
            value(r, "GV_TYP") + "|" + value(r, "GV_NAME") + "|" + value(r, "AGENTUR_ID");
    }
    ClosingSums computed;
    for (const Row& r : books["lines_vat.csv"]) {
        if (!sales.count(receiptOf(r))) continue;
        std::vector<int64_t>& sum =
            computed[closingOf(r)]
                    ["case " + caseOf[receiptOf(r) + "|" + value(r, "POS_ZEILE")] + "|" + value(r, "UST_SCHLUESSEL")];
        sum.resize(3);
        sum[0] += units(value(r, "POS_BRUTTO"), 5), sum[1] += units(value(r, "POS_NETTO"), 5),
            sum[2] += units(value(r, "POS_UST"), 5);
    }
    for (const Row& r : books["datapayment.csv"]) {
        if (!sales.count(receiptOf(r))) continue;
        Sums& sums = computed[closingOf(r)];
        const int64_t base = units(value(r, "BASISWAEH_BETRAG"), 2);
        for (const std::string& what :
             {"payment " + value(r, "ZAHLART_TYP") + "|" + value(r, "ZAHLART_NAME"), std::string("Z_SE_ZAHLUNGEN")}) {
            sums[what].resize(1), sums[what][0] += base;
        }
        if (value(r, "ZAHLART_TYP") != "Bar") continue;
        const std::string currency = value(r, "ZAHLWAEH_CODE");
        std::vector<int64_t>& cash = sums["cash " + (currency.empty() ? "EUR" : currency)];
        cash.resize(1), cash[0] += currency.empty() ? base : units(value(r, "ZAHLWAEH_BETRAG"), 2);
        sums["Z_SE_BARZAHLUNGEN"].resize(1), sums["Z_SE_BARZAHLUNGEN"][0] += base;
    }
    return computed;
}

// What the closing module books for each closing; a base-currency cash row
// of nothing counts only where cash was taken, as writers differ there.
ClosingSums bookedSums(const Books& books, const ClosingSums& computed)
{
    ClosingSums booked;
    for (const Row& r : books["businesscases.csv"]) {
        booked[closingOf(r)]["case " + value(r, "GV_TYP") + "|" + value(r, "GV_NAME") + "|" + value(r, "AGENTUR_ID") +
                             "|" + value(r, "UST_SCHLUESSEL")] = {
            units(value(r, "Z_UMS_BRUTTO"), 5), units(value(r, "Z_UMS_NETTO"), 5), units(value(r, "Z_UST"), 5)};
    }
    for (const Row& r : books["payment.csv"]) {
        booked[closingOf(r)]["payment " + value(r, "ZAHLART_TYP") + "|" + value(r, "ZAHLART_NAME")] = {
            units(value(r, "Z_ZAHLART_BETRAG"), 2)};
    }
    for (const Row& r : books["cash_per_currency.csv"]) {
        const int64_t amount = units(value(r, "ZAHLART_BETRAG_WAEH"), 2);
        const std::string what = "cash " + value(r, "ZAHLART_WAEH");
        const auto closing = computed.find(closingOf(r));
        const bool taken = closing != computed.end() && closing->second.count(what);
        if (amount != 0 || taken) booked[closingOf(r)][what] = {amount};
    }
    return booked;
}

// The closing module and cashpointclosing.csv against the closing's sales.
void closingProblems(const Books& books, Problems& out)
{
    std::set<std::string> sales;
    std::map<std::string, std::vector<uint64_t>> bons;
    for (const Row& r : books["transactions.csv"]) {
        if (value(r, "BON_TYP") == "Beleg") sales.insert(receiptOf(r));
        bons[closingOf(r)].push_back(std::stoull(value(r, "BON_ID")));
    }
    ClosingSums computed = computedSums(books, sales);
    ClosingSums booked = bookedSums(books, computed);
    for (const Row& r : books["cashpointclosing.csv"]) {
        const std::string c = closingOf(r);
        for (const char* total : {"Z_SE_ZAHLUNGEN", "Z_SE_BARZAHLUNGEN"}) {
            computed[c].emplace(total, std::vector<int64_t>{0});
            booked[c][total] = {units(value(r, total), 2)};
        }
        const std::vector<uint64_t>& ids = bons[c];
        const bool ends = !ids.empty() &&
                          std::to_string(*std::min_element(ids.begin(), ids.end())) == value(r, "Z_START_ID") &&
                          std::to_string(*std::max_element(ids.begin(), ids.end())) == value(r, "Z_ENDE_ID");
        if (computed[c] != booked[c] || !ends) out.insert("closing-sum");
    }
}

// Per register: closing numbers without gap, receipts ending inside their
// closing's period, BON_ID once, BON_NR without gap.
void sequenceProblems(const Books& books, Problems& out)
{
    std::map<std::string, std::vector<const Row*>> closings, receipts;
    for (const Row& r : books["cashpointclosing.csv"]) closings[value(r, "Z_KASSE_ID")].push_back(&r);
    for (const Row& r : books["transactions.csv"]) receipts[closingOf(r)].push_back(&r);
    for (auto& [kasse, list] : closings) {
        std::sort(list.begin(), list.end(),
                  [](const Row* a, const Row* b) { return value(*a, "Z_ERSTELLUNG") < value(*b, "Z_ERSTELLUNG"); });
        std::map<std::string, int> ids;
        std::set<uint64_t> numbers;
        std::string previous;
        for (size_t i = 0; i < list.size(); ++i) {
            if (i && std::stoull(value(*list[i], "Z_NR")) != std::stoull(value(*list[i - 1], "Z_NR")) + 1)
                out.insert("closing-gap");
            const std::string created = value(*list[i], "Z_ERSTELLUNG").substr(0, 19);
            for (const Row* r : receipts[closingOf(*list[i])]) {
                const std::string end = value(*r, "BON_ENDE").substr(0, 19);
                if (end > created || end <= previous) out.insert("outside");
                if (++ids[value(*r, "BON_ID")] == 2) out.insert("bon-duplicate");
                numbers.insert(std::stoull(value(*r, "BON_NR")));
            }
            previous = created;
        }
        if (!numbers.empty() && *numbers.rbegin() - *numbers.begin() + 1 != numbers.size()) out.insert("bon-gap");
    }
}

// vat.csv: keys 1 and 2 at 16 % and 5 % from 2020-07-01 to 2020-12-31 and
// at 19 % and 7 % before and after; key 3 at 10.7 % until 2021; key 4 at 5.5 %.
void vatProblems(const Books& books, Problems& out)
{
    std::map<std::string, std::string> day;
    for (const Row& r : books["cashpointclosing.csv"]) day[closingOf(r)] = value(r, "Z_BUCHUNGSTAG");
    for (const Row& r : books["vat.csv"]) {
        const std::string& date = day[closingOf(r)];
        const bool lowered = date >= "2020-07-01" && date <= "2020-12-31";
        std::map<std::string, int64_t> legal = {
            {"1", lowered ? 1600 : 1900}, {"2", lowered ? 500 : 700}, {"4", 550}, {"5", 0}, {"6", 0}, {"7", 0}};
        if (date < "2022-01-01") legal["3"] = 1070;
        const auto rate = legal.find(value(r, "UST_SCHLUESSEL"));
        if (date.empty() || (rate != legal.end() && units(value(r, "UST_SATZ"), 2) != rate->second))
            out.insert("vat-rate");
    }
}

// Each signed Kassenbeleg-V1 row against its receipt: the gross of the five
// rates (keys 5 to 7 in the fifth) and the payments as processData has
// them; ZAHLWAEH_* are for a foreign currency only.
void signedProblems(const Books& books, Problems& out)
{
    std::map<std::string, std::array<int64_t, 5>> booked;
    std::map<std::string, std::map<std::string, int64_t>> paid;
    for (const Row& r : books["transactions_vat.csv"]) {
        const int key = std::stoi(value(r, "UST_SCHLUESSEL"));
        if (key >= 1 && key <= 7)
            booked[receiptOf(r)][static_cast<size_t>(std::min(key, 5) - 1)] += units(value(r, "BON_BRUTTO"), 2);
    }
    for (const Row& r : books["datapayment.csv"]) {
        const std::string currency = value(r, "ZAHLWAEH_CODE");
        if (currency.empty() && !value(r, "ZAHLWAEH_BETRAG").empty()) out.insert("payment-form");
        if (value(r, "ZAHLART_TYP") == "Keine") continue;
        paid[receiptOf(r)]
            [(value(r, "ZAHLART_TYP") == "Bar" ? "Bar" : "Unbar") + (currency.empty() ? "" : ":" + currency)] +=
            currency.empty() ? units(value(r, "BASISWAEH_BETRAG"), 2) : units(value(r, "ZAHLWAEH_BETRAG"), 2);
    }
    for (const Row& r : books["transactions_tse.csv"]) {
        const std::string data = value(r, "TSE_VORGANGSDATEN") + value(r, "TSE_TA_VORGANGSDATEN");
        if (value(r, "TSE_TA_VORGANGSART") != "Kassenbeleg-V1" || data.empty()) continue;
        std::array<int64_t, 5> gross{};
        std::map<std::string, int64_t> payments;
        std::istringstream parts(data.substr(data.find('^') + 1));
        std::string vat, payment, item;
        std::getline(parts, vat, '^'), std::getline(parts, payment);
        std::istringstream fields(vat);
        for (size_t i = 0; i < 5 && std::getline(fields, item, '_');) gross[i++] = units(item, 2, '.');
        std::istringstream each(payment);
        while (std::getline(each, item, '_'))
            payments[item.substr(item.find(':') + 1)] += units(item.substr(0, item.find(':')), 2, '.');
        if (booked[receiptOf(r)] != gross || paid[receiptOf(r)] != payments) out.insert("signed-amounts");
    }
}

Problems problems(const Books& books)
{
    Problems out = books.problems;
    receiptProblems(books, out);
    closingProblems(books, out);
    sequenceProblems(books, out);
    vatProblems(books, out);
    signedProblems(books, out);
    return out;
}

size_t rowsWhere(const std::vector<Row>& rows, const std::function<bool(const Row&)>& fits)
{
    return static_cast<size_t>(std::count_if(rows.begin(), rows.end(), fits));
}

std::multiset<std::string> findings(const std::string& books, const std::vector<std::string>& tse, int& status)
{
    std::vector<std::string> arguments = {"dsfinvk", "--no-progress", "--json", "-", books, "--tse"};
    arguments.insert(arguments.end(), tse.begin(), tse.end());
    const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), arguments, {}, {120, 0});
    status = run.status;
    const json report = json::parse(run.out.empty() ? "null" : run.out, nullptr, false);
    std::multiset<std::string> codes;
    if (report.is_object()) {
        for (const json& finding : report["findings"]) codes.insert(finding["code"].get<std::string>());
    }
    return codes;
}

TEST(DsfinvkGenerator, EveryTableReadsBackAndAddsUp)
{
    fixtures::TempDir dir;
    // Sales across both changes of rate in 2020, of two TSEs and registers,
    // with every kind of receipt make-export writes.
    make("make-export", {"--out", dir.path("h2.tar"), "-n", "120", "--varied", "--curve", "secp256r1", "--start",
                         "2020-06-30T12:00:00Z", "--interval", "5000"});
    make("make-export", {"--out", dir.path("new-year.tar"), "-n", "60", "--varied", "--curve", "brainpoolP256r1",
                         "--client", "KASSE-B", "--start", "2020-12-30T20:00:00Z", "--interval", "3000"});
    struct Source {
        std::string name;
        std::vector<std::string> tse;
        size_t receipts;
        std::multiset<std::string> findings;  // the real exports' own: a counter gap, three transactions left open
    };
    const std::vector<Source> sources = {
        {"cloud", {CLOUD}, 51, {"counter-gap"}},
        {"json", {JSON_TSE}, 70, {"transaction-incomplete", "transaction-incomplete", "transaction-incomplete"}},
        {"2020", {dir.path("h2.tar"), dir.path("new-year.tar")}, 180, {}},
    };
    const std::vector<std::string> variants = {
        "--variant", "empty-zero-amounts", "--variant", "no-cashless-currency-row", "--variant", "vat-from-lines"};
    for (const Source& source : sources) {
        for (const bool varied : {false, true}) {
            SCOPED_TRACE(source.name + (varied ? " as other writers write" : ""));
            const std::string out = dir.path(source.name + (varied ? "-variants" : ""));
            std::vector<std::string> arguments = {"--out", out, "--tse"};
            arguments.insert(arguments.end(), source.tse.begin(), source.tse.end());
            if (varied) arguments.insert(arguments.end(), variants.begin(), variants.end());
            make("make-dsfinvk", arguments);
            const Books books = readBooks(out);
            EXPECT_EQ(problems(books), Problems{});
            EXPECT_EQ(books["transactions.csv"].size(), source.receipts);
            int status = -1;
            EXPECT_EQ(findings(out, source.tse, status), source.findings);
            EXPECT_EQ(status, 0);
        }
    }
    // What the sources hold shows in the tables: the real register's payments
    // above its VAT part under key 1000 (9 receipts), the rates of both
    // halves of 2020, orders and other processes, a foreign currency.
    const auto column = [](const std::string& name, const std::string& wanted) {
        return [=](const Row& r) { return value(r, name) == wanted; };
    };
    EXPECT_EQ(rowsWhere(readBooks(dir.path("cloud"))["transactions_vat.csv"], column("UST_SCHLUESSEL", "1000")), 9u);
    const Books year = readBooks(dir.path("2020"));
    std::set<std::string> generalRates;
    for (const Row& r : year["vat.csv"]) {
        if (value(r, "UST_SCHLUESSEL") == "1") generalRates.insert(value(r, "UST_SATZ"));
    }
    EXPECT_EQ(generalRates, (std::set<std::string>{"16,00", "19,00"}));
    EXPECT_EQ(rowsWhere(year["transactions.csv"], column("BON_TYP", "AVBestellung")), 18u);
    EXPECT_EQ(rowsWhere(year["transactions.csv"], column("BON_TYP", "AVSonstige")), 18u);
    EXPECT_GT(rowsWhere(year["datapayment.csv"], column("ZAHLWAEH_CODE", "CHF")), 0u);
    // The variants write what they are named for.
    const Books variant = readBooks(dir.path("2020-variants"));
    EXPECT_GT(rowsWhere(variant["lines_vat.csv"], column("POS_UST", "")), 0u);
    EXPECT_GT(rowsWhere(variant["transactions_vat.csv"],
                        [](const Row& r) {
                            return units(value(r, "BON_NETTO"), 2) + units(value(r, "BON_UST"), 2) !=
                                   units(value(r, "BON_BRUTTO"), 2);
                        }),
              0u);
    EXPECT_EQ(readBooks(dir.path("json"))["cash_per_currency.csv"].size(), 5u);  // every closing: EUR 0,00
    EXPECT_EQ(readBooks(dir.path("json-variants"))["cash_per_currency.csv"].size(), 0u);
}

TEST(DsfinvkGenerator, EachPlantChangesOnlyWhatItIsNamedFor)
{
    const std::set<std::string> receiptTables = {"transactions.csv", "transactions_tse.csv", "transactions_vat.csv",
                                                 "lines.csv",        "lines_vat.csv",        "datapayment.csv"};
    const auto plus = [](std::set<std::string> files, std::initializer_list<std::string> more) {
        files.insert(more);
        return files;
    };
    const std::set<std::string> renumbered = plus(receiptTables, {"cashpointclosing.csv"});
    const std::set<std::string> tseRows = {"transactions_tse.csv"};
    // A cash sale's amounts: everything but its TSE row and the master data.
    std::set<std::string> closingModule =
        plus(renumbered, {"businesscases.csv", "payment.csv", "cash_per_currency.csv"});
    closingModule.erase("transactions_tse.csv");
    struct Plant {
        std::string defect;
        std::set<std::string> changed;
        Problems problems;  // what the checks above find in the planted bookkeeping
    };
    const std::vector<Plant> plants = {
        {"row-dropped", tseRows, {}},
        {"amount-edited", tseRows, {"signed-amounts"}},
        {"local-time", tseRows, {}},
        {"tse-failure", tseRows, {}},
        {"extra-row", renumbered, {}},  // the copy is of a receipt of nothing
        {"old-column", tseRows, {"header"}},
        {"wrong-serial", {"tse.csv"}, {}},
        {"malformed-line", {}, {"unreadable"}},  // the rows that read are those of the clean bookkeeping
        {"amounts-differ", closingModule, {"signed-amounts"}},
        {"reference-missing", {"references.csv"}, {"reference"}},
        {"receipt-sum-differs", {"lines.csv", "lines_vat.csv", "businesscases.csv"}, {"receipt-sum"}},
        {"closing-sum-differs", {"cashpointclosing.csv"}, {"closing-sum"}},
        {"closing-gap", {}, {"closing-gap"}},  // every table with a row in the later closings
        {"bon-duplicate", renumbered, {"bon-duplicate"}},
        {"bon-gap", renumbered, {"bon-gap"}},
        {"receipt-outside-closing", {"transactions.csv"}, {"outside"}},
        {"vat-rate-wrong", {"vat.csv", "transactions_vat.csv", "lines_vat.csv", "businesscases.csv"}, {"vat-rate"}},
        {"unsigned-but-signed", tseRows, {}},
        {"failure-while-signing", plus(renumbered, {"businesscases.csv", "payment.csv", "cash_per_currency.csv"}), {}},
        {"field-format", {"transactions.csv"}, {"decimals"}},
        {"first-row-dropped", tseRows, {}},
        {"last-row-dropped", tseRows, {}},
        {"last-rows-dropped", tseRows, {}},
        {"last-sale-erased",
         plus(receiptTables, {"businesscases.csv", "payment.csv"}),
         {"closing-sum"}},  // paid by card
    };
    // Every defect make-dsfinvk lists has its row here, with its findings.
    std::istringstream listed(make("make-dsfinvk", {"--list-defects"}).out);
    std::vector<std::string> names;
    for (std::string line; std::getline(listed, line);) {
        std::istringstream fields(line);
        std::string name, codes;
        fields >> name >> codes;
        EXPECT_FALSE(codes.empty()) << line;
        names.push_back(name);
    }
    std::vector<std::string> tabled;
    for (const Plant& plant : plants) tabled.push_back(plant.defect);
    EXPECT_EQ(names, tabled);

    fixtures::TempDir dir;
    make("make-dsfinvk", {"--tse", CLOUD, "--out", dir.path("clean")});
    const Books clean = readBooks(dir.path("clean"));
    for (const Plant& plant : plants) {
        SCOPED_TRACE(plant.defect);
        const std::string out = dir.path(plant.defect);
        make("make-dsfinvk", {"--tse", CLOUD, "--out", out, "--defect", plant.defect});
        const Books planted = readBooks(out);
        std::set<std::string> changed;
        for (const auto& [file, rows] : planted.tables) {
            if (rows != clean[file]) changed.insert(file);
        }
        if (plant.defect == "closing-gap") {
            EXPECT_GT(changed.size(), renumbered.size());
        } else {
            EXPECT_EQ(changed, plant.changed);
        }
        EXPECT_EQ(problems(planted), plant.problems);
    }
}

}  // namespace
