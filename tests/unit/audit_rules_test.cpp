// The audit's integrity rules as the pure function they are: records in,
// findings out, without an export, keys or threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "audit_rules.h"

namespace {

const char* const TSE_A = "AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11AA11";
const char* const TSE_B = "BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22BB22";

struct Log {
    Log(uint64_t c, int64_t s = 1600000000, tse::LogType t = tse::LogType::Transaction, const char* op = "",
        std::optional<uint64_t> number = std::nullopt, const char* serialHex = TSE_A)
        : counter(c), seconds(s), type(t), operation(op), transaction(number), serial(serialHex)
    {}

    uint64_t counter;
    int64_t seconds;
    tse::LogType type;
    const char* operation;
    std::optional<uint64_t> transaction;
    const char* serial;  // nullptr: unreadable, its counter known from the name only
};

tse::AuditReport reportOf(const std::vector<Log>& logs)
{
    tse::AuditReport report;
    for (const Log& l : logs) {
        tse::LogRecord r;
        r.file = "log-" + std::to_string(l.counter) + ".log";
        r.ordinal = report.logs.size() + 1;
        r.type = l.type;
        r.counter = l.counter;
        if (l.serial != nullptr) {
            r.verdict = tse::LogVerdict::Valid;
            r.serialNumber = l.serial;
            r.seconds = l.seconds;
            r.timeFormat = tse::TimeFormat::UnixTime;
            r.transactionNumber = l.transaction;
            r.operation = l.operation;
        } else {
            r.reason = "cut off";
        }
        report.logs.push_back(std::move(r));
    }
    return report;
}

// The messages of the findings with the code, in the order they came.
std::vector<std::string> findings(const std::vector<Log>& logs, const std::string& code)
{
    tse::AuditReport report = reportOf(logs);
    tse::applyIntegrityRules(report, false);
    std::vector<std::string> out;
    for (const tse::Finding& f : report.findings) {
        if (tse::findingName(f.code) == code) out.push_back(f.message);
    }
    return out;
}

Log tx(uint64_t counter, uint64_t number, const char* operation)
{
    return Log{counter, 1600000000 + static_cast<int64_t>(counter), tse::LogType::Transaction, operation, number};
}

TEST(AuditRules, TransactionsOpenAtTheExportsEdgesAreNoFinding)
{
    // 4 began before the export, 9 is still open at its end; 6 lost its
    // Start and 7 its Finish in the middle.
    const std::vector<Log> logs = {tx(1, 4, "Update"), tx(2, 4, "Finish"), tx(3, 5, "Start"),  tx(4, 5, "Finish"),
                                   tx(5, 6, "Update"), tx(6, 6, "Finish"), tx(7, 7, "Start"),  tx(8, 8, "Start"),
                                   tx(9, 8, "Finish"), tx(10, 9, "Start"), tx(11, 9, "Update")};
    const std::vector<std::string> found = findings(logs, "transaction-incomplete");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_NE(found[0].find("transaction 6 has no Start"), std::string::npos) << found[0];
    EXPECT_NE(found[1].find("transaction 7 has a Start but no Finish"), std::string::npos) << found[1];
    // An export that begins in the middle of a transaction is complete.
    EXPECT_TRUE(findings({tx(1, 3, "Update"), tx(2, 3, "Finish"), tx(3, 4, "Start"), tx(4, 4, "Finish")},
                         "transaction-incomplete")
                    .empty());
    // Transactions run side by side: their logs interleave by counter.
    const std::vector<std::string> interleaved =
        findings({tx(1, 5, "Start"), tx(2, 6, "Start"), tx(3, 7, "Start"), tx(4, 7, "Finish"), tx(5, 5, "Finish"),
                  tx(6, 8, "Start"), tx(7, 8, "Finish")},
                 "transaction-incomplete");
    ASSERT_EQ(interleaved.size(), 1u);
    EXPECT_NE(interleaved[0].find("transaction 6 has a Start but no Finish"), std::string::npos) << interleaved[0];
}

TEST(AuditRules, CountersOfUnreadableLogsCloseGapsOnlyWithOneTse)
{
    const Log unreadable{3, 0, tse::LogType::Transaction, "", std::nullopt, nullptr};
    struct Case {
        const char* name;
        std::vector<Log> logs;
        size_t gaps;
        const char* text;
    } cases[] = {
        {"one TSE, the unreadable log fills the gap", {{1}, {2}, unreadable, {4}}, 0, ""},
        {"one TSE, a real gap", {{1}, {2}, {4}}, 1, "1 signature counter missing between 1 and 4: 3"},
        {"one TSE, an unreadable log beyond the last widens the range",
         {{1}, {2}, {Log{7, 0, tse::LogType::Transaction, "", std::nullopt, nullptr}}, {4}},
         1,
         "3 signature counters missing between 1 and 7: 3, 5-6"},
        {"one TSE, a counter twice and a gap",
         {{1}, {2}, {2}, {5}},
         1,
         "2 signature counters missing between 1 and 5: 3-4"},
        {"two TSEs, the unreadable log is neither's",
         {{1}, {2}, unreadable, {4}, {Log{1, 0, tse::LogType::Transaction, "", std::nullopt, TSE_B}}},
         1,
         "missing between 1 and 4: 3"},
    };
    for (const Case& c : cases) {
        const std::vector<std::string> found = findings(c.logs, "counter-gap");
        ASSERT_EQ(found.size(), c.gaps) << c.name;
        if (c.gaps) {
            EXPECT_NE(found[0].find(c.text), std::string::npos) << c.name << ": " << found[0];
        }
    }
}

TEST(AuditRules, AClockSetBackIsReportedUnlessTheTseLoggedIt)
{
    const Log system{2, 1599999000, tse::LogType::System, "updateTime"};
    struct Case {
        const char* name;
        std::vector<Log> logs;
        size_t regressions;
    } cases[] = {
        {"one second back", {{1, 1600000000}, {2, 1599999999}}, 1},
        {"the same second", {{1, 1600000000}, {2, 1600000000}}, 0},
        {"back, logged by updateTime", {{1, 1600000000}, system, {3, 1599999001}}, 0},
        {"updateTime in another case", {{1, 1600000000}, {2, 1599999000, tse::LogType::System, "UPDATETIME"}}, 0},
        {"a transaction log named updateTime is no excuse",
         {{1, 1600000000}, {2, 1599999000, tse::LogType::Transaction, "updateTime"}},
         1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(findings(c.logs, "time-regression").size(), c.regressions) << c.name;
    }
}

// A log lies inside a certificate's validity from notBefore to notAfter,
// both seconds included, and inside that of every CA above it.
TEST(AuditRules, LogsAtTheEdgesOfTheValidityLieInsideIt)
{
    tse::AuditReport report = reportOf({{1, 999}, {2, 1000}, {3, 1500}, {4, 2000}, {5, 2001}, {6, 2500}});
    tse::CertificateRecord certificate;
    certificate.file = "tse.pem";
    certificate.serialNumber = TSE_A;
    certificate.notBefore = 1000;
    certificate.notAfter = 2000;
    certificate.chain.issuers.push_back(tse::ChainIssuer{"CA", 500, 2500});
    report.certificates.push_back(certificate);
    tse::applyIntegrityRules(report, false);
    std::map<std::string, std::vector<std::string>> outside;  // by the certificate the message names
    for (const tse::Finding& f : report.findings) {
        if (f.code != tse::FindingCode::CertificateChain) continue;
        outside[f.message.find("the CA CA above") != std::string::npos ? "CA" : "tse.pem"] = f.files;
    }
    EXPECT_EQ(outside.count("CA"), 0u) << "every log lies within the CA's validity";
    EXPECT_EQ(outside["tse.pem"], (std::vector<std::string>{"log-1.log", "log-5.log", "log-6.log"}));
}

TEST(AuditRules, LongCounterRangesAreCutWithACount)
{
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    for (uint64_t i = 0; i < 35; ++i) ranges.emplace_back(10 * i + 1, 10 * i + (i % 2 ? 5 : 1));
    EXPECT_EQ(tse::counterRanges({{2, 2}, {5, 9}, {12, 12}}, 30), "2, 5-9, 12");
    EXPECT_EQ(tse::counterRanges(ranges, 2), "1, 11-15 and 33 more ranges");
    EXPECT_EQ(tse::counterRanges(ranges, 35).find("more"), std::string::npos);

    // Through the rules: 35 gaps show 30 of them.
    std::vector<Log> logs;
    for (uint64_t i = 0; i <= 35; ++i) logs.push_back({3 * i + 1});
    const std::vector<std::string> found = findings(logs, "counter-gap");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_NE(found[0].find("70 signature counters missing"), std::string::npos) << found[0];
    EXPECT_NE(found[0].find("and 5 more ranges"), std::string::npos) << found[0];
}

}  // namespace
