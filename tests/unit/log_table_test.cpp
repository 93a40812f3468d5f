// The report's compact log table gives back what it was given, names
// included, however the numbers of a log show up in them.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace tse
