// What a register vendor who wants to hide something would try against
// `tse-check dsfinvk`, on bookkeepings derived from the two real P-256 TSE
// exports: every doctored bookkeeping must fail with exactly its finding,
// every legitimate variant must still pass. Reports are parsed back.
#include <archive.h>
#include <archive_entry.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "bytes.h"
#include "dsfinvk_tables.h"
#include "findings.h"
#include "fixtures.h"
#include "log_time.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;
using fixtures::DsfinvkTable;

const std::string REAL = fixtures::realExportsFolder();
const std::string CLOUD = REAL + "2021-09-30_63641_TSE.tar";  // Kassenbeleg-V1 with amounts, unixTime
const std::string JSON_TSE = REAL + "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015.tar";  // utcTime

void run(const std::string& program, const std::vector<std::string>& arguments)
{
    const fixtures::RunResult made = fixtures::run(fixtures::toolPath(program), arguments, {}, {120, 0});
    ASSERT_EQ(made.status, 0) << program << ": " << made.err;
}

struct Check {
    int status = -1;
    json report;
    std::string err;

    std::set<std::string> codes() const
    {
        std::set<std::string> out;
        for (const json& f : report["findings"]) out.insert(f["code"].get<std::string>());
        return out;
    }
    size_t count(const std::string& code) const
    {
        size_t n = 0;
        for (const json& f : report["findings"]) n += f["code"] == code;
        return n;
    }
};

Check dsfinvk(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {"dsfinvk", "--json", "-"});
    const fixtures::RunResult r = fixtures::run(fixtures::tseCheckPath(), arguments, {}, {180, 0});
    Check check{r.status, json::parse(r.out.empty() ? "null" : r.out, nullptr, false), r.err};
    EXPECT_FALSE(check.report.is_discarded()) << r.out << r.err;
    return check;
}

// The bookkeeping of each real export, derived once for all cases.
class Pairs {
public:
    static const std::string& books(const std::string& tse)
    {
        static Pairs pairs;
        auto found = pairs.made_.find(tse);
        if (found == pairs.made_.end()) {
            const std::string out = pairs.dir_.path("books-" + std::to_string(pairs.made_.size()));
            run("make-dsfinvk", {"--tse", tse, "--out", out});
            found = pairs.made_.emplace(tse, out).first;
        }
        return found->second;
    }

private:
    fixtures::TempDir dir_;
    std::map<std::string, std::string> made_;
};

// One case: a fresh copy of a pair's bookkeeping and of its TSE export to
// change.
struct Case {
    std::string books;  // folder
    std::string tse;    // the TSE export to check against
    const fixtures::TempDir& dir;

    DsfinvkTable table(const std::string& name) const { return DsfinvkTable(books, name); }
    // The TSE export as a folder, to change.
    std::string unpackTse()
    {
        const std::string name = fs::path(tse).stem().string();
        tse = fixtures::unpackRealExport(dir, name);
        return tse;
    }
};

using Plant = std::function<void(Case&)>;

struct Scenario {
    std::string name;
    Plant plant;
    std::set<std::string> expected;  // the findings it must add; none: it must still pass
    bool withTse = true;
    bool amounts = false;  // only where the TSE signs amounts (Kassenbeleg-V1)
    bool exact = true;     // false: further findings may follow from the planted one
};

// The codes of the untouched pair, which every case keeps (the real cloud
// export has a counter gap, the other three open transactions).
std::set<std::string> baseline(const std::string& tse, bool withTse)
{
    static std::map<std::pair<std::string, bool>, std::set<std::string>> known;
    const auto key = std::make_pair(tse, withTse);
    if (!known.count(key)) {
        std::vector<std::string> args{Pairs::books(tse)};
        if (withTse) args.insert(args.end(), {"--tse", tse});
        const Check check = dsfinvk(args);
        EXPECT_EQ(check.status, 0) << check.err << check.report.dump(1);
        known[key] = check.codes();
    }
    return known[key];
}

std::set<std::string> seenCodes;  // across the scenarios, for the catalogue test

Check runScenario(const Scenario& s, const std::string& tse)
{
    fixtures::TempDir dir;
    Case c{dir.path("books"), tse, dir};
    fixtures::copyDirectory(Pairs::books(tse), c.books);
    s.plant(c);
    std::vector<std::string> args{c.books};
    if (s.withTse) args.insert(args.end(), {"--tse", c.tse});
    Check check = dsfinvk(args);
    for (const std::string& code : check.codes()) seenCodes.insert(code);
    return check;
}

void expectScenario(const Scenario& s, const std::string& tse)
{
    SCOPED_TRACE(s.name + " on " + fs::path(tse).filename().string());
    const Check check = runScenario(s, tse);
    std::set<std::string> expected = baseline(tse, s.withTse);
    expected.insert(s.expected.begin(), s.expected.end());
    const std::set<std::string> codes = check.codes();
    if (s.exact) {
        EXPECT_EQ(codes, expected) << check.err << check.report["findings"].dump(1);
    } else {
        EXPECT_TRUE(std::includes(codes.begin(), codes.end(), expected.begin(), expected.end()))
            << check.err << check.report["findings"].dump(1);
    }
    const bool error = std::any_of(s.expected.begin(), s.expected.end(), [](const std::string& code) {
        return tse::findingSeverity(*tse::findingByName(code)) == tse::Severity::Error;
    });
    const int status = error ? 1 : 0;
    EXPECT_EQ(check.status, status) << check.err;
    EXPECT_EQ(check.report["exitStatus"], status);
    if (status != 0) {
        EXPECT_EQ(check.report["verdict"], "FAILED");
    }
    for (const json& f : check.report["findings"]) {
        EXPECT_TRUE(tse::findingByName(f["code"].get<std::string>())) << "not in the catalogue: " << f["code"];
    }
}

void expectScenarios(const std::vector<Scenario>& scenarios)
{
    for (const Scenario& s : scenarios) {
        for (const std::string& tse : {CLOUD, JSON_TSE}) {
            if (s.amounts && tse != CLOUD) continue;
            expectScenario(s, tse);
        }
    }
}

// The index of the rows of transactions_tse.csv in time order.
std::vector<size_t> byTime(DsfinvkTable& rows)
{
    std::vector<size_t> order(rows.rows.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    const size_t end = rows.column("TSE_TA_ENDE");
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return rows.rows[a][end] < rows.rows[b][end]; });
    return order;
}

// Removes the sales with these BON_IDs from the tables named.
void removeBons(const Case& c, const std::set<std::string>& bons, const std::vector<std::string>& tables)
{
    for (const std::string& name : tables) {
        DsfinvkTable table = c.table(name);
        const size_t bon = table.column("BON_ID");
        table.removeIf([&](const std::vector<std::string>& row) { return bons.count(row[bon]) != 0; });
        table.save();
    }
}

// BON_IDs of the first `count` rows counted from the front or the back, in time order.
std::set<std::string> edgeBons(const Case& c, bool last, size_t count)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    std::vector<size_t> order = byTime(rows);
    if (last) std::reverse(order.begin(), order.end());
    std::set<std::string> bons;
    for (size_t i = 0; i < count; ++i) bons.insert(rows.at(order[i], "BON_ID"));
    return bons;
}

const std::vector<std::string> EVERY_SALE_TABLE = {"transactions_tse.csv", "transactions.csv", "transactions_vat.csv",
                                                   "datapayment.csv",      "lines.csv",        "lines_vat.csv"};

TEST(DsfinvkReconcile, SalesHiddenAtTheEdgesAreUnbooked)
{
    expectScenarios({
        // The receipts left without their row are receipt-without-tse when
        // they are sales (an order is not), so that is not insisted on.
        {"first row dropped",
         [](Case& c) { removeBons(c, edgeBons(c, false, 1), {"transactions_tse.csv"}); },
         {"transaction-unbooked"},
         true,
         false,
         false},
        {"last row dropped",
         [](Case& c) { removeBons(c, edgeBons(c, true, 1), {"transactions_tse.csv"}); },
         {"transaction-unbooked"},
         true,
         false,
         false},
        {"last three rows dropped",
         [](Case& c) { removeBons(c, edgeBons(c, true, 3), {"transactions_tse.csv"}); },
         {"transaction-unbooked"},
         true,
         false,
         false},
        // The closing still counts it: its totals give the sale away too.
        {"last sale erased from every table",
         [](Case& c) { removeBons(c, edgeBons(c, true, 1), EVERY_SALE_TABLE); },
         {"transaction-unbooked", "closing-sum-differs"}},
        {"first sale erased from every table",
         [](Case& c) { removeBons(c, edgeBons(c, false, 1), EVERY_SALE_TABLE); },
         {"transaction-unbooked", "closing-sum-differs"}},
    });
}

void emptyRowsTable(Case& c, bool keepHeader)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    rows.rows.clear();
    if (!keepHeader) rows.header.clear();
    rows.save();
}

TEST(DsfinvkReconcile, BookkeepingThatSharesNothingWithTheTse)
{
    expectScenarios({
        {"no TSE rows", [](Case& c) { emptyRowsTable(c, true); }, {"transaction-unbooked", "receipt-without-tse"}},
        {"TSE rows table of 0 bytes",
         [](Case& c) { emptyRowsTable(c, false); },
         {"table-unreadable", "transaction-unbooked", "receipt-without-tse"}},
    });
    // Each real pair's bookkeeping against the other pair's TSE export.
    for (const auto& [books, tse] : {std::make_pair(CLOUD, JSON_TSE), std::make_pair(JSON_TSE, CLOUD)}) {
        const Check check = dsfinvk({Pairs::books(books), "--tse", tse});
        EXPECT_EQ(check.status, 1);
        EXPECT_EQ(check.count("tse-mismatch"), 1u) << check.report["findings"].dump(1);
        EXPECT_EQ(check.report["summary"]["matched"], 0);
    }
}

TEST(DsfinvkReconcile, BookkeepingResignedWithAKeyOfItsOwn)
{
    // The same register and transaction numbers, signed by a TSE of the
    // vendor's making.
    fixtures::TempDir dir;
    DsfinvkTable real(Pairs::books(CLOUD), "cashregister.csv");
    run("make-export", {"--out", dir.path("own.tar"), "--transactions", "51", "--curve", "secp256r1", "--client",
                        real.at(0, "KASSE_SERIENNR")});
    run("make-dsfinvk", {"--tse", dir.path("own.tar"), "--out", dir.path("books")});
    const Check check = dsfinvk({dir.path("books"), "--tse", CLOUD});
    EXPECT_EQ(check.status, 1);
    EXPECT_EQ(check.count("tse-mismatch"), 1u) << check.report["findings"].dump(1);
}

void renameColumn(Case& c, const std::string& from, const std::string& to)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    rows.header[rows.column(from)] = to;
    rows.save();
}

void declareDelimiter(Case& c, const std::string& table, char delimiter)
{
    const std::string path = c.books + "/index.xml";
    std::ifstream in(path);
    std::string xml((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t at = xml.find("<ColumnDelimiter>", xml.find("<URL>" + table + "</URL>"));
    ASSERT_NE(at, std::string::npos);
    xml[at + std::string("<ColumnDelimiter>").size()] = delimiter;
    std::ofstream(path, std::ios::trunc) << xml;
}

TEST(DsfinvkReconcile, TablesThatCannotBeReadAreErrors)
{
    const std::set<std::string> unread = {"table-unreadable", "transaction-unbooked", "receipt-without-tse"};
    expectScenarios({
        {"header lowercased",
         [](Case& c) {
             DsfinvkTable rows = c.table("transactions_tse.csv");
             for (std::string& name : rows.header) {
                 for (char& ch : name) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
             }
             rows.save();
         },
         unread},
        {"TSE_TANR renamed", [](Case& c) { renameColumn(c, "TSE_TANR", "TSE_TA_NR"); }, unread},
        // Split at its commas, processData holding JSON also has lines that cannot be read.
        {"no transactions.csv", [](Case& c) { fs::remove(c.books + "/transactions.csv"); }, {"required-table-missing"}},
        {"no cashpointclosing.csv",
         [](Case& c) { fs::remove(c.books + "/cashpointclosing.csv"); },
         {"required-table-missing"}},
        {"index.xml declares a comma", [](Case& c) { declareDelimiter(c, "transactions_tse.csv", ','); }, unread, true,
         false, false},
    });
}

TEST(DsfinvkReconcile, HeaderProblemsAreNamed)
{
    fixtures::TempDir dir;
    Case c{dir.path("books"), CLOUD, dir};
    fixtures::copyDirectory(Pairs::books(CLOUD), c.books);
    renameColumn(c, "TSE_TANR", "tse_tanr");
    const Check check = dsfinvk({c.books});
    bool named = false;
    for (const json& f : check.report["findings"]) {
        const std::string message = f["message"];
        named |= f["code"] == "table-unreadable" && message.find("TSE_TANR") != std::string::npos &&
                 message.find("other letter case") != std::string::npos;
    }
    EXPECT_TRUE(named) << check.report["findings"].dump(1);
}

void setAll(Case& c, const std::string& table, const std::string& column, const std::string& value)
{
    DsfinvkTable t = c.table(table);
    for (size_t i = 0; i < t.rows.size(); ++i) t.at(i, column) = value;
    t.save();
}

// The first row of a sale (BON_TYP Beleg) whose processData signs an amount.
size_t firstWithAmount(DsfinvkTable& rows)
{
    DsfinvkTable receipts(fs::path(rows.path()).parent_path().string(), "transactions.csv");
    for (size_t i = 0; i < rows.rows.size(); ++i) {
        if (rows.at(i, "TSE_VORGANGSDATEN").rfind("Beleg^0.00_0.00_0.00_0.00_0.00^", 0) == 0) continue;
        if (receipts.at(receipts.find("BON_ID", rows.at(i, "BON_ID")), "BON_TYP") == "Beleg") return i;
    }
    return 0;
}

// Changes the booked gross of one receipt in transactions_vat.csv.
void editVat(Case& c, const std::string& bon, const std::string& gross)
{
    DsfinvkTable vat = c.table("transactions_vat.csv");
    vat.at(vat.find("BON_ID", bon), "BON_BRUTTO") = gross;
    vat.save();
}

TEST(DsfinvkReconcile, SignaturesCannotBeSwitchedOff)
{
    const auto unknownAlgorithm = [](Case& c) { setAll(c, "tse.csv", "TSE_SIG_ALGO", "ecdsa-plain-SHA999"); };
    expectScenarios({
        {"unknown TSE_SIG_ALGO, bookkeeping alone",
         unknownAlgorithm,
         {"signature-unverifiable", "field-invalid"},
         false},
        {"unknown TSE_SIG_ALGO and an amount edited, bookkeeping alone",
         [&](Case& c) {
             unknownAlgorithm(c);
             DsfinvkTable rows = c.table("transactions_tse.csv");
             const std::string bon = rows.at(firstWithAmount(rows), "BON_ID");
             editVat(c, bon, "1,00");
         },
         // The receipt's own sums show the edit the signature cannot.
         {"signature-unverifiable", "field-invalid", "receipt-sum-differs"},
         false,
         true},
    });
}

// Rewrites the real TAR up to (not including) the first member whose name
// holds `marker`, without the end-of-archive marker: an export cut there.
void cutTarBefore(Case& c, const std::string& marker)
{
    std::ifstream in(c.tse, std::ios::binary);
    std::string tar((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t at = 0;
    while (at + 512 <= tar.size() && tar[at] != '\0') {
        const std::string name(tar.c_str() + at);
        if (name.find(marker) != std::string::npos) break;
        const size_t size = std::stoul(tar.substr(at + 124, 12), nullptr, 8);
        at += 512 + (size + 511) / 512 * 512;
    }
    c.tse = c.dir.path("cut.tar");
    std::ofstream(c.tse, std::ios::binary) << tar.substr(0, at);
}

// The member of the unpacked TSE export whose name holds every marker.
fs::path memberWith(const std::string& folder, const std::vector<std::string>& markers)
{
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(folder)) {
        const std::string name = e.path().filename().string();
        if (std::all_of(markers.begin(), markers.end(),
                        [&](const std::string& m) { return name.find(m) != std::string::npos; })) {
            return e.path();
        }
    }
    ADD_FAILURE() << "no member with " << markers.front();
    return {};
}

TEST(DsfinvkReconcile, TheTseExportsOwnStateCounts)
{
    expectScenarios({
        // The rows of what was cut are unknown or outside, depending on
        // which logs came before the cut.
        {"export cut before transaction 31",
         [](Case& c) { cutTarBefore(c, "_No-31_"); },
         {"export-truncated"},
         true,
         false,
         false},
        {"a system log altered",
         [](Case& c) {
             // The other real export holds no system log: one of its Start logs then.
             const std::string folder = c.unpackTse();
             const bool system = c.tse.find("63641") != std::string::npos;
             const fs::path log = memberWith(folder, system ? std::vector<std::string>{"_Log-Sys_"}
                                                            : std::vector<std::string>{"_No-13_", "_Start_"});
             std::fstream f(log, std::ios::in | std::ios::out | std::ios::binary);
             f.seekg(-1, std::ios::end);
             const char last = static_cast<char>(f.get());
             f.seekp(-1, std::ios::end);
             f.put(static_cast<char>(last ^ 1));
         },
         {"signature-invalid"}},
        {"a Start log removed",
         [](Case& c) {
             fs::remove(memberWith(c.unpackTse(), {"_No-13_", "_Start_"}));
         },
         {"transaction-differs", "counter-gap", "transaction-incomplete"}},
    });
}

// The two halves of a pair's sales as consecutive exports.
struct SplitBooks {
    fixtures::TempDir dir;
    std::string part1 = dir.path("part1"), part2 = dir.path("part2");
    explicit SplitBooks(const std::string& tse)
    {
        run("make-dsfinvk", {"--tse", tse, "--out", part1, "--part", "1/2"});
        run("make-dsfinvk", {"--tse", tse, "--out", part2, "--part", "2/2"});
    }
};

// A table written with its columns in another order, as another version of
// the register's software might.
void reorderColumns(const std::string& folder, const std::string& name)
{
    DsfinvkTable table(folder, name);
    std::vector<size_t> order(table.header.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = order.size() - 1 - i;
    std::vector<std::string> header;
    for (const size_t i : order) header.push_back(table.header[i]);
    for (std::vector<std::string>& row : table.rows) {
        std::vector<std::string> moved;
        for (const size_t i : order) moved.push_back(row[i]);
        row = std::move(moved);
    }
    table.header = std::move(header);
    table.save();
}

TEST(DsfinvkReconcile, SeveralExportsEachWithTheirOwnColumns)
{
    for (const std::string& tse : {CLOUD, JSON_TSE}) {
        SCOPED_TRACE(tse);
        SplitBooks split(tse);
        reorderColumns(split.part2, "transactions_tse.csv");
        const Check together = dsfinvk({split.part1, split.part2, "--tse", tse});
        EXPECT_EQ(together.status, 0) << together.report["findings"].dump(1);
        EXPECT_EQ(together.report["summary"]["invalid"], 0);
        EXPECT_EQ(together.report["summary"]["matched"], together.report["summary"]["rows"]);
        // A forged row in part 2 is found however its columns stand.
        DsfinvkTable rows(split.part2, "transactions_tse.csv");
        rows.at(0, "TSE_TA_SIGZ") = "999999";
        rows.save();
        const Check forged = dsfinvk({split.part1, split.part2, "--tse", tse});
        EXPECT_EQ(forged.status, 1);
        EXPECT_EQ(forged.count("signature-invalid"), 1u);
    }
}

void lowerReceipt(Case& c, bool blankProcessData)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    const size_t row = firstWithAmount(rows);
    const std::string bon = rows.at(row, "BON_ID");
    if (blankProcessData) {
        rows.at(row, "TSE_VORGANGSDATEN") = "";
        rows.save();
    }
    DsfinvkTable vat = c.table("transactions_vat.csv");
    const size_t bonColumn = vat.column("BON_ID");
    vat.removeIf([&](const std::vector<std::string>& r) { return r[bonColumn] == bon; });
    vat.rows.push_back(vat.rows.front());
    vat.at(vat.rows.size() - 1, "BON_ID") = bon;
    vat.at(vat.rows.size() - 1, "Z_NR") =
        c.table("transactions.csv").at(c.table("transactions.csv").find("BON_ID", bon), "Z_NR");
    vat.at(vat.rows.size() - 1, "Z_ERSTELLUNG") =
        c.table("transactions.csv").at(c.table("transactions.csv").find("BON_ID", bon), "Z_ERSTELLUNG");
    vat.at(vat.rows.size() - 1, "UST_SCHLUESSEL") = "1";
    vat.at(vat.rows.size() - 1, "BON_BRUTTO") = "1,00";
    vat.save();
    DsfinvkTable pay = c.table("datapayment.csv");
    for (size_t i = 0; i < pay.rows.size(); ++i) {
        if (pay.at(i, "BON_ID") == bon) pay.at(i, "BASISWAEH_BETRAG") = "1,00";
    }
    pay.save();
    DsfinvkTable receipts = c.table("transactions.csv");
    receipts.at(receipts.find("BON_ID", bon), "UMS_BRUTTO") = "1,00";
    receipts.save();
}

TEST(DsfinvkReconcile, BookedAmountsAgainstTheSignedOnes)
{
    expectScenarios({
        {"VAT table edited",
         [](Case& c) {
             DsfinvkTable rows = c.table("transactions_tse.csv");
             editVat(c, rows.at(firstWithAmount(rows), "BON_ID"), "1,00");
         },
         {"amounts-differ", "receipt-sum-differs"},
         true,
         true},
        {"payment edited",
         [](Case& c) {
             DsfinvkTable rows = c.table("transactions_tse.csv");
             const std::string bon = rows.at(firstWithAmount(rows), "BON_ID");
             DsfinvkTable pay = c.table("datapayment.csv");
             pay.at(pay.find("BON_ID", bon), "BASISWAEH_BETRAG") = "0,50";
             pay.save();
         },
         {"amounts-differ", "receipt-sum-differs", "closing-sum-differs"},
         true,
         true},
        {"processData blanked and the receipt lowered to 1.00 in every table",
         [](Case& c) { lowerReceipt(c, true); },
         {"amounts-differ", "signature-invalid", "receipt-sum-differs", "closing-sum-differs"},
         true,
         true},
        // processData rebuilt from the lowered amounts does not carry the signature.
        {"the same, bookkeeping alone",
         [](Case& c) { lowerReceipt(c, true); },
         {"signature-invalid", "receipt-sum-differs", "closing-sum-differs"},
         false,
         true},
    });
}

// The first and the last row of the closing with the most rows swap their
// BON_IDs.
void swapInLargestClosing(Case& c)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    std::map<std::string, std::vector<size_t>> byClosing;
    for (const size_t i : byTime(rows)) byClosing[rows.at(i, "Z_NR") + "/" + rows.at(i, "Z_KASSE_ID")].push_back(i);
    const auto largest = std::max_element(byClosing.begin(), byClosing.end(), [](const auto& a, const auto& b) {
        return a.second.size() < b.second.size();
    });
    std::swap(rows.at(largest->second.front(), "BON_ID"), rows.at(largest->second.back(), "BON_ID"));
    rows.save();
}

TEST(DsfinvkReconcile, RowsAndReceiptsLinkBothWays)
{
    expectScenarios({
        {"a TSE row names no receipt",
         [](Case& c) {
             DsfinvkTable rows = c.table("transactions_tse.csv");
             rows.at(firstWithAmount(rows), "BON_ID") = "no-such-receipt";
             rows.save();
         },
         {"reference-missing", "receipt-without-tse"}},
        // Each signature then vouches for another receipt of the closing:
        // its time (and, where signed, its amounts) give it away.
        {"two rows' BON_IDs swapped", swapInLargestClosing, {"receipt-time-differs"}, true, false, false},
        {"a receipt without TSE row",
         [](Case& c) {
             DsfinvkTable receipts = c.table("transactions.csv");
             receipts.rows.push_back(receipts.rows.back());
             receipts.at(receipts.rows.size() - 1, "BON_ID") = "extra-sale";
             receipts.at(receipts.rows.size() - 1, "BON_TYP") = "Beleg";
             receipts.at(receipts.rows.size() - 1, "UMS_BRUTTO") = "5,00";
             receipts.save();
         },
         // A sale of nothing, never closed: its own rules and sums fail too.
         {"receipt-without-tse", "field-invalid", "receipt-sum-differs", "closing-sum-differs"}},
    });
}

TEST(DsfinvkReconcile, TimesAndColumnsOfSignedRows)
{
    const auto start = [](const std::string& value) {
        return [value](Case& c) {
            DsfinvkTable rows = c.table("transactions_tse.csv");
            rows.at(0, "TSE_TA_START") = value;
            rows.save();
        };
    };
    expectScenarios({
        {"TSE_TA_START yesterday", start("yesterday"), {"field-invalid"}},
        {"TSE_TA_START empty", start(""), {"field-invalid"}},
        {"both processData columns, differing",
         [](Case& c) {
             DsfinvkTable rows = c.table("transactions_tse.csv");
             rows.header.push_back("TSE_TA_VORGANGSDATEN");
             for (std::vector<std::string>& row : rows.rows) row.push_back(row[rows.column("TSE_VORGANGSDATEN")]);
             rows.rows[0].back() += "0";
             rows.save();
         },
         {"column-conflict"}},
    });
}

// The same instant in another zone: "2021-07-28T12:38:59.000Z" as
// "2021-07-28T14:38:59+02:00".
std::string plusTwoHours(const std::string& iso)
{
    const std::optional<tse::IsoTime> time = tse::parseIsoTime(iso);
    if (!time) return iso;
    std::string text = tse::isoSeconds(time->seconds + 7200);
    return text.substr(0, text.size() - 1) + "+02:00";
}

// r || s as the DER ECDSA-Sig-Value that some registers write.
std::string derSignature(const std::string& base64)
{
    const fixtures::Bytes plain = *tse::fromBase64(base64);
    const auto integer = [](fixtures::Bytes value) {
        while (value.size() > 1 && value.front() == 0 && !(value[1] & 0x80)) value.erase(value.begin());
        if (value.front() & 0x80) value.insert(value.begin(), 0);
        return fixtures::derElement(0x02, value);
    };
    const size_t half = plain.size() / 2;
    fixtures::Bytes both = integer(fixtures::Bytes(plain.begin(), plain.begin() + static_cast<long>(half)));
    const fixtures::Bytes s = integer(fixtures::Bytes(plain.begin() + static_cast<long>(half), plain.end()));
    both.insert(both.end(), s.begin(), s.end());
    return fixtures::base64(fixtures::derElement(0x30, both));
}

void everyRow(Case& c, const std::function<void(DsfinvkTable&, size_t)>& change)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    for (size_t i = 0; i < rows.rows.size(); ++i) change(rows, i);
    rows.save();
}

// The folder's files as a ZIP archive whose members all stand in one folder.
void zipInFolder(const std::string& from, const std::string& zip, const std::string& folder)
{
    std::unique_ptr<archive, int (*)(archive*)> a(archive_write_new(), archive_write_free);
    archive_write_set_format_zip(a.get());
    ASSERT_EQ(archive_write_open_filename(a.get(), zip.c_str()), ARCHIVE_OK);
    for (const fs::directory_entry& e : fs::directory_iterator(from)) {
        std::ifstream in(e.path(), std::ios::binary);
        const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname_utf8(entry.get(), (folder + "/" + e.path().filename().string()).c_str());
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(data.size()));
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        ASSERT_EQ(archive_write_header(a.get(), entry.get()), ARCHIVE_OK) << archive_error_string(a.get());
        archive_write_data(a.get(), data.data(), data.size());
    }
    archive_write_close(a.get());
}

TEST(DsfinvkReconcile, LegitimateVariantsStillPass)
{
    expectScenarios({
        {"old processData column name",
         [](Case& c) { renameColumn(c, "TSE_VORGANGSDATEN", "TSE_TA_VORGANGSDATEN"); },
         {}},
        {"times written with +02:00",
         [](Case& c) {
             everyRow(c, [](DsfinvkTable& rows, size_t i) {
                 for (const char* column : {"TSE_TA_START", "TSE_TA_ENDE"})
                     rows.at(i, column) = plusTwoHours(rows.at(i, column));
             });
         },
         {}},
        {"signatures as DER",
         [](Case& c) {
             everyRow(c, [](DsfinvkTable& rows, size_t i) {
                 rows.at(i, "TSE_TA_SIG") = derSignature(rows.at(i, "TSE_TA_SIG"));
             });
         },
         {}},
    });
    fixtures::TempDir dir;
    zipInFolder(Pairs::books(CLOUD), dir.path("export.zip"), "Kassenabschlüsse März");
    const Check zipped = dsfinvk({dir.path("export.zip"), "--tse", CLOUD});
    EXPECT_EQ(zipped.status, 0) << zipped.err << zipped.report["findings"].dump(1);
    EXPECT_EQ(zipped.report["summary"]["matched"], 51);
}

// The row of the transaction with the lowest number.
size_t lowestTransaction(DsfinvkTable& rows)
{
    size_t lowest = 0;
    for (size_t i = 1; i < rows.rows.size(); ++i) {
        if (std::stoull(rows.at(i, "TSE_TANR")) < std::stoull(rows.at(lowest, "TSE_TANR"))) lowest = i;
    }
    return lowest;
}

void changeFirst(Case& c, const std::string& column, const std::function<std::string(const std::string&)>& change)
{
    DsfinvkTable rows = c.table("transactions_tse.csv");
    rows.at(0, column) = change(rows.at(0, column));
    rows.save();
}

std::string shifted(const std::string& iso, int64_t seconds)
{
    const std::optional<tse::IsoTime> time = tse::parseIsoTime(iso);
    return time ? tse::isoSeconds(time->seconds + seconds) : iso;
}

TEST(DsfinvkReconcile, EachAlteredFieldIsNamed)
{
    struct FieldCase {
        std::string column;
        std::function<std::string(const std::string&)> change;
        std::string difference;
        bool signatureHolds;
    };
    const std::vector<FieldCase> cases = {
        {"TSE_TA_ENDE", [](const std::string& v) { return shifted(v, 3600); }, "logTime", false},
        {"TSE_TA_SIGZ", [](const std::string& v) { return std::to_string(std::stoull(v) + 1); }, "signatureCounter",
         false},
        {"TSE_TA_START", [](const std::string& v) { return shifted(v, -5); }, "startTime", true},
    };
    for (const std::string& tse : {CLOUD, JSON_TSE}) {
        for (const FieldCase& f : cases) {
            SCOPED_TRACE(f.column + " on " + tse);
            const Check check = runScenario({f.column, [&](Case& c) { changeFirst(c, f.column, f.change); }, {}}, tse);
            EXPECT_EQ(check.status, 1);
            EXPECT_EQ(check.count("transaction-differs"), 1u) << check.report["findings"].dump(1);
            EXPECT_EQ(check.count("signature-invalid"), f.signatureHolds ? 0u : 1u);
            const json& row = check.report["transactions"][0];
            EXPECT_EQ(row["match"], "differs");
            EXPECT_NE(std::find(row["differences"].begin(), row["differences"].end(), f.difference),
                      row["differences"].end())
                << row.dump();
        }
    }
}

TEST(DsfinvkReconcile, UnsignedRows)
{
    // Neither signature nor failure text: unsigned, and an error of its own.
    const Check bare =
        runScenario({"",
                     [](Case& c) { changeFirst(c, "TSE_TA_SIG", [](const std::string&) { return std::string(); }); },
                     {},
                     false},
                    CLOUD);
    EXPECT_EQ(bare.report["transactions"][0]["verdict"], "unsigned");
    EXPECT_EQ(bare.count("signature-missing"), 1u);
    EXPECT_EQ(bare.count("signature-invalid"), 0u);
    // A failure the export has no log for is a warning, not an unknown
    // transaction; one of a TSE the export lacks is not outside either.
    // A second row for the first receipt, booked as a TSE failure.
    const auto failure = [](const std::string& number) {
        return [number](Case& c) {
            DsfinvkTable rows = c.table("transactions_tse.csv");
            rows.rows.insert(rows.rows.begin(), rows.rows.front());
            for (const char* column :
                 {"TSE_TA_SIG", "TSE_TA_SIGZ", "TSE_TA_START", "TSE_TA_ENDE", "TSE_VORGANGSDATEN"}) {
                rows.at(0, column) = "";
            }
            rows.at(0, "TSE_TANR") = number;
            rows.at(0, "TSE_TA_FEHLER") = "TSE ausgefallen";
            rows.save();
        };
    };
    expectScenarios({{"failure row the export has no log for", failure("999999"), {"unsigned-transaction"}}});
    const Check foreign = runScenario({"",
                                       [&](Case& c) {
                                           failure("999999")(c);
                                           DsfinvkTable tses = c.table("tse.csv");
                                           tses.rows.push_back(tses.rows.front());
                                           tses.at(tses.rows.size() - 1, "TSE_ID") = "2";
                                           tses.at(tses.rows.size() - 1, "TSE_SERIAL") = std::string(64, 'A');
                                           tses.save();
                                           DsfinvkTable rows = c.table("transactions_tse.csv");
                                           rows.at(0, "TSE_ID") = "2";
                                           rows.save();
                                       },
                                       {}},
                                      CLOUD);
    EXPECT_EQ(foreign.report["transactions"][0]["match"], nullptr);
    EXPECT_EQ(foreign.report["summary"]["outside"], 0);
}

TEST(DsfinvkReconcile, RowAtTheExportsLowestNumberWithAnUnreadableTime)
{
    for (const std::string& tse : {CLOUD, JSON_TSE}) {
        SCOPED_TRACE(tse);
        const Check check = runScenario({"",
                                         [](Case& c) {
                                             DsfinvkTable rows = c.table("transactions_tse.csv");
                                             const size_t row = lowestTransaction(rows);
                                             const std::string number = rows.at(row, "TSE_TANR");
                                             rows.at(row, "TSE_TA_ENDE") = "soon";
                                             rows.save();
                                             fs::remove(memberWith(c.unpackTse(), {"_No-" + number + "_", "_Finish_"}));
                                         },
                                         {}},
                                        tse);
        EXPECT_EQ(check.count("transaction-unknown"), 1u) << check.report["findings"].dump(1);
        EXPECT_EQ(check.count("field-invalid"), 1u);
    }
}

TEST(DsfinvkReconcile, ClientIdFromTheRegisterWhenTheTerminalIsAnother)
{
    const Check terminal = runScenario({"",
                                        [](Case& c) {
                                            DsfinvkTable slaves = c.table("slaves.csv");
                                            DsfinvkTable registers = c.table("cashregister.csv");
                                            for (size_t i = 0; i < registers.rows.size(); ++i) {
                                                std::vector<std::string> row(slaves.header.size());
                                                for (const char* key : {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR"}) {
                                                    row[slaves.column(key)] = registers.at(i, key);
                                                }
                                                row[slaves.column("TERMINAL_ID")] = "T9";
                                                row[slaves.column("TERMINAL_SERIENNR")] = "ANOTHER-TERMINAL";
                                                slaves.rows.push_back(row);
                                            }
                                            slaves.save();
                                            setAll(c, "transactions.csv", "TERMINAL_ID", "T9");
                                        },
                                        {}},
                                       CLOUD);
    EXPECT_EQ(terminal.status, 0) << terminal.report["findings"].dump(1);
    EXPECT_EQ(terminal.report["transactions"][0]["clientIdSource"], "KASSE_SERIENNR");
    // Only Z_KASSE_ID names the client the TSE signed.
    const Check kasse = runScenario({"",
                                     [](Case& c) {
                                         const std::string client = c.table("cashregister.csv").at(0, "KASSE_SERIENNR");
                                         setAll(c, "cashregister.csv", "KASSE_SERIENNR", "REGISTER-SERIAL");
                                         fixtures::replaceInColumn(c.books, "Z_KASSE_ID", "Kasse 1", client);
                                     },
                                     {}},
                                    CLOUD);
    EXPECT_EQ(kasse.status, 0) << kasse.report["findings"].dump(1);
    EXPECT_EQ(kasse.report["summary"]["valid"], 51);
    EXPECT_EQ(kasse.report["transactions"][0]["clientIdSource"], "Z_KASSE_ID");
}

}  // namespace
