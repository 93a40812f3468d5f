// The pieces of the bookkeeping checks that decide on one value or one
// group: decimal places as written, the fixed vocabularies, a rule broken
// by many rows told once with three examples, and rows grouped under their
// receipt.
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "dsfinvk_field_rules.h"
#include "dsfinvk_findings.h"
#include "dsfinvk_rebuild.h"
#include "dsfinvk_receipt_rows.h"
#include "dsfinvk_tally.h"

namespace {

TEST(DsfinvkFieldRules, DecimalPlacesAsWritten)
{
    struct Case {
        std::string text;
        char decimal, grouping;
        std::optional<unsigned> decimals;
    };
    const Case cases[] = {
        {"12,50", ',', '.', 2u},
        {"12", ',', '.', 0u},
        {"-0,001", ',', '.', 3u},
        {"1.234,5", ',', '.', 1u},
        {" 7,00 ", ',', '.', 2u},
        {"12.50", '.', ',', 2u},
        {"12.50", ',', '.', std::nullopt},  // a grouping symbol inside the fraction
        {"12,5,0", ',', '.', std::nullopt},
        {",5", ',', '.', 1u},
        {"", ',', '.', std::nullopt},
        {"-", ',', '.', std::nullopt},
        {"1e5", ',', '.', std::nullopt},
        {".5", ',', '.', std::nullopt},
        {"1.000", ',', '\0', std::nullopt},
        {"1.234.567,5", ',', '.', 1u},
        {"1234.567", ',', '.', std::nullopt},
        {"1.23", ',', '.', std::nullopt},
        {"12.5000", ',', '.', std::nullopt},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tse::writtenDecimals(c.text, c.decimal, c.grouping), c.decimals) << "\"" << c.text << "\"";
    }
}

TEST(DsfinvkFieldRules, FixedVocabularies)
{
    struct Case {
        std::string column, value;
        bool valid;
    };
    const Case cases[] = {
        {"BON_TYP", "Beleg", true},
        {"BON_TYP", "beleg", false},
        {"BON_TYP", "AVRechnung", true},
        {"GV_TYP", "MehrzweckgutscheinKauf", true},
        {"GV_TYP", "Verkauf", false},
        {"ZAHLART_TYP", "Keine", true},
        {"ZAHLART_TYP", "EC", false},
        {"REF_TYP", "Transaktion", true},
        {"REF_TYP", "", false},
        {"TSE_ZEITFORMAT", "unixTime", true},
        {"TSE_ZEITFORMAT", "UNIXTIME", true},
        {"TSE_ZEITFORMAT", "epoch", false},
        {"TSE_SIG_ALGO", "ecdsa-plain-SHA256", true},
        {"TSE_SIG_ALGO", "ecdsa-plain-SHA999", false},
        {"ARTIKELTEXT", "anything", true},
    };
    for (const Case& c : cases) EXPECT_EQ(tse::inVocabulary(c.column, c.value), c.valid) << c.column << " " << c.value;
}

TEST(DsfinvkFieldRules, ARuleBrokenByManyRowsIsOneFindingWithThreeExamples)
{
    tse::FindingTally tally;
    for (int i = 1; i <= 5; ++i) {
        tally.add(tse::FindingCode::FieldInvalid, "lines.csv: rows without their full key", "row",
                  [&] { return "line " + std::to_string(i); });
    }
    tally.add(tse::FindingCode::FieldFormat, "lines.csv: MENGE with more decimals", "row", [] { return "line 9"; });
    // The same place twice is one case.
    tally.addOnce(tse::FindingCode::FieldFormat, "lines.csv: MENGE with more decimals", "row", 9,
                  [] { return "again"; });
    tally.addOnce(tse::FindingCode::FieldFormat, "lines.csv: MENGE with more decimals", "row", 9,
                  [] { return "again"; });
    tse::RaisedFindings findings;
    tally.raiseAll(findings);
    EXPECT_EQ(findings.count(tse::FindingCode::FieldInvalid), 1u);
    EXPECT_EQ(findings.count(tse::FindingCode::FieldFormat), 1u);
    const std::vector<tse::RaisedFinding> sorted = findings.sorted();
    ASSERT_EQ(sorted.size(), 2u);
    EXPECT_EQ(findings.words(sorted[0]),
              "lines.csv: rows without their full key: 5 rows: line 1; line 2; line 3; and 2 more");
    EXPECT_EQ(findings.words(sorted[1]), "lines.csv: MENGE with more decimals: 2 rows: line 9; again");
}

TEST(DsfinvkReceiptRows, RowsStandUnderTheirReceiptAndOrphansApart)
{
    const uint32_t NONE = UINT32_MAX;
    const tse::RowGroups groups({2, NONE, 0, 2, 2, NONE}, 4);
    const auto rows = [&](size_t receipt) {
        const tse::RowGroup g = groups.of(receipt);
        return std::vector<uint32_t>(g.begin(), g.end());
    };
    EXPECT_EQ(rows(0), (std::vector<uint32_t>{2}));
    EXPECT_TRUE(groups.of(1).empty());
    EXPECT_EQ(rows(2), (std::vector<uint32_t>{0, 3, 4}));
    EXPECT_TRUE(groups.of(3).empty());
    EXPECT_TRUE(groups.of(4).empty()) << "beyond the last receipt";
    EXPECT_EQ(groups.orphans(), (std::vector<uint32_t>{1, 5}));
}

TEST(DsfinvkRebuild, KassenbelegTextOfTheBookedAmounts)
{
    tse::ReceiptAmounts amounts;
    amounts.vat[0] = 1250, amounts.vat[4] = -300;
    amounts.payments = {{true, "", 950}, {false, "", 100}, {true, "CHF", 5}};
    EXPECT_EQ(tse::kassenbelegText("Beleg", amounts),
              "Beleg^12.50_0.00_0.00_0.00_-3.00^9.50:Bar_1.00:Unbar_0.05:Bar:CHF");
    EXPECT_EQ(tse::kassenbelegText("AVTraining", tse::ReceiptAmounts{}), "AVTraining^0.00_0.00_0.00_0.00_0.00^");
}

}  // namespace
