// The report's compact log table gives back what it was given, names
// included, however the numbers of a log show up in them.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "audit_report.h"

namespace tse {
namespace {

TEST(LogTable, GivesBackNamesAndFieldsAsGiven)
{
    struct Case {
        std::string file;
        std::optional<uint64_t> counter, transaction;
        std::optional<int64_t> seconds;
    };
    const std::vector<Case> cases = {
        {"Unixt_1700000010_Sig-11_Log-Tra_No-3_Finish_Client-C1.log", 11, 3, 1700000010},
        {"Unixt_1700000011_Sig-12_Log-Tra_No-4_Finish_Client-C1.log", 12, 4, 1700000011},
        {"dir/Unixt_1700000011_Sig-11_Log-Tra_No-11_Start_Client-11.log", 11, 11, 1700000011},
        {"Gent_20231114T221255Z_Sig-5_Log-Sys_updateTime.log", 5, std::nullopt, 1700000000},
        {"Unixt_99_Sig-99_Log-Aud.log", 99, std::nullopt, 99},
        {"no numbers at all.log", std::nullopt, std::nullopt, std::nullopt},
        {std::string("marks \x01\x02\x03 in it 7.log"), 7, 7, 7},
        {"", std::nullopt, std::nullopt, -5},
        {"negative -5 time.log", 1, std::nullopt, -5},
    };
    LogTable table;
    for (size_t i = 0; i < cases.size(); ++i) {
        LogRecord record;
        record.file = cases[i].file;
        record.ordinal = 100 - i;
        record.counter = cases[i].counter;
        record.transactionNumber = cases[i].transaction;
        record.seconds = cases[i].seconds;
        record.reason = i % 2 ? "the signature does not match" : "";
        record.serialNumber = "ABCD";
        record.verdict = i % 2 ? LogVerdict::Invalid : LogVerdict::Valid;
        if (i == 3) record.type = LogType::System, record.operation = "updateTime";
        table.push_back(record);
    }
    ASSERT_EQ(table.size(), cases.size());
    // The two standard names share one pattern, so a million logs keep few.
    EXPECT_EQ(table.row(0).file, table.row(1).file);
    for (size_t i = 0; i < cases.size(); ++i) {
        const LogRecord record = table[i];
        EXPECT_EQ(record.file, cases[i].file);
        EXPECT_EQ(record.counter, cases[i].counter);
        EXPECT_EQ(record.transactionNumber, cases[i].transaction);
        EXPECT_EQ(record.seconds, cases[i].seconds);
        EXPECT_EQ(record.serialNumber, "ABCD");
        EXPECT_EQ(record.reason, i % 2 ? "the signature does not match" : "");
        EXPECT_EQ(record.verdict, i % 2 ? LogVerdict::Invalid : LogVerdict::Valid);
        EXPECT_EQ(record.type.has_value(), i == 3);
    }
    table.sortByOrdinal();
    EXPECT_EQ(table[0].file, cases.back().file);
    table.removeOrdinals({100, 99});
    EXPECT_EQ(table.size(), cases.size() - 2);
    size_t seen = 0;
    for (const LogRecord& record : table) seen += record.ordinal > 0;
    EXPECT_EQ(seen, cases.size() - 2);
}

// Rows come from several threads and are merged and put in order of their
// ordinals at the end; texts pooled in one table keep their words in the
// other, and a record read into again leaves nothing of the last one behind.
TEST(LogTable, MergedTablesSortByOrdinalAndKeepTheirTexts)
{
    struct Case {
        std::string what;
        std::vector<uint64_t> first, second;  // the ordinals each table takes
    };
    const std::vector<Case> cases = {
        {"in order", {1, 2, 3}, {4, 5, 6}},
        {"interleaved batches", {1, 2, 7, 8}, {3, 4, 5, 6, 9}},
        {"reversed, with the gaps of other members", {40, 30, 20}, {35, 25, 15, 5}},
        {"far apart", {1, 1000000000}, {500, 2}},
        {"a repeated ordinal", {3, 1}, {3, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogTable merged, other;
        std::map<uint64_t, std::vector<std::string>> expected;
        const auto add = [&](LogTable& table, uint64_t ordinal, const std::string& client) {
            LogRecord record;
            record.file = "Unixt_" + std::to_string(ordinal) + "_Sig-" + std::to_string(ordinal) + "_Log-Aud.log";
            record.ordinal = ordinal;
            record.counter = ordinal;
            record.seconds = static_cast<int64_t>(ordinal);
            record.clientId = client;
            record.reason = ordinal % 2 ? "odd" : "";
            table.push_back(record);
            expected[ordinal].push_back(record.file + " " + client + " " + record.reason);
        };
        for (const uint64_t ordinal : c.first) add(merged, ordinal, "KASSE-" + std::to_string(ordinal % 3));
        for (const uint64_t ordinal : c.second) add(other, ordinal, "KASSE-" + std::to_string(ordinal % 4));
        merged.append(std::move(other));
        EXPECT_TRUE(other.empty());  // NOLINT(bugprone-use-after-move): append leaves the other table empty
        merged.sortByOrdinal();
        std::vector<std::string> want, got;
        for (const auto& [ordinal, lines] : expected) want.insert(want.end(), lines.begin(), lines.end());
        LogRecord record;
        for (size_t i = 0; i < merged.size(); ++i) {
            merged.read(i, record);
            got.push_back(record.file + " " + std::string(record.clientId) + " " + record.reason);
            if (i > 0) {
                EXPECT_LE(merged.row(i - 1).ordinal, merged.row(i).ordinal);
            }
        }
        // Rows of one ordinal keep no order among themselves.
        if (c.what == "a repeated ordinal") {
            std::sort(want.begin(), want.end());
            std::sort(got.begin(), got.end());
        }
        EXPECT_EQ(got, want);
    }
}

}  // namespace
}  // namespace tse
