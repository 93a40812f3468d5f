// The HTML report's escaping and chart primitives, where a fault would let
// input become markup or put a chart's ticks and points in the wrong place.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "html_writer.h"
#include "report_page.h"
#include "svg_chart.h"

namespace {

TEST(HtmlEscaping, InputNeverBecomesMarkup)
{
    const std::string bad = "\xEF\xBF\xBD";
    struct Case {
        std::string input, expected;
    } cases[] = {
        {"\"><script>alert(1)</script>", "&quot;&gt;&lt;script&gt;alert(1)&lt;/script&gt;"},
        {"a&b 'c'", "a&amp;b &#39;c&#39;"},
        {"&amp;", "&amp;amp;"},
        {"line\nbreak\ttab", "line\nbreak\ttab"},
        {std::string("nul\0end", 7), "nul" + bad + "end"},
        {"\x1B[31m\x7F", bad + "[31m" + bad},
        {"K\xC3\xA4sse \xE2\x82\xAC \xF0\x9F\x98\x80",
         "K\xC3\xA4sse \xE2\x82\xAC \xF0\x9F\x98\x80"},                    // valid UTF-8 stays
        {"\x80x", bad + "x"},                                              // a lone continuation byte
        {"\xC0\xAF", bad + bad},                                           // an overlong '/'
        {"\xE0\x80\xBC", bad + bad + bad},                                 // an overlong '<' in three octets
        {"\xF0\x80\x80\x80", bad + bad + bad + bad},                       // an overlong NUL in four
        {"\xE0\xA0\x80\xF0\x90\x80\x80", "\xE0\xA0\x80\xF0\x90\x80\x80"},  // the smallest of each length stay
        {"\xED\xA0\x80", bad + bad + bad},                                 // a surrogate
        {"\xE2\x82", bad + bad},                                           // cut short at the end
        {"\xE2\x82<", bad + bad + "&lt;"},                                 // cut short before markup
        {"\xF4\x90\x80\x80", bad + bad + bad + bad},                       // above U+10FFFF
        // What would turn an amount around or hide in it: RIGHT-TO-LEFT
        // OVERRIDE, an isolate, a zero-width space, a C1 control (CSI), a
        // line separator; each one replacement. Arabic letters stay.
        {"9.\xE2\x80\xAE"
         "00",
         "9." + bad + "00"},
        {"\xE2\x81\xA7x\xE2\x80\x8B", bad + "x" + bad},
        {"\xC2\x9B"
         "2J\xE2\x80\xA8",
         bad + "2J" + bad},
        {"\xD8\xB3\xD8\xA7", "\xD8\xB3\xD8\xA7"},
    };
    for (const Case& c : cases) EXPECT_EQ(report::escaped(c.input), c.expected) << c.input;
}

TEST(HtmlEscaping, AttributeValuesStayInsideTheirQuotes)
{
    std::string out;
    report::Html(out).open("td", {{"title", "x\" onmouseover=\"alert(1)"}}).text("<b>").close("td");
    EXPECT_EQ(out, "<td title=\"x&quot; onmouseover=&quot;alert(1)\">&lt;b&gt;</td>");
}

TEST(HtmlPage, FindingsShowFiftyItemsThenACount)
{
    std::ostringstream out;
    {
        report::PageHead head;
        head.title = "Audit <of> me";
        head.verdict = report::Verdict::Failed;
        report::ReportPage page(out, head);
        report::FindingGroup group{"error", "signature-invalid", {}, {}};
        for (int i = 0; i < 120; ++i) {
            group.messages.push_back("message " + std::to_string(i));
            group.items.push_back("log-" + std::to_string(i) + ".log");
        }
        page.findings({group});
        report::Table table{"Logs", {"file"}, 1001, [](size_t row, std::vector<std::string>& cells) {
                                cells.push_back(row == 0 ? "<i>" : "x");
                            }};
        page.table(table);
    }
    const std::string html = out.str();
    EXPECT_NE(html.find("<title>Audit &lt;of&gt; me: FAILED</title>"), std::string::npos);
    EXPECT_NE(html.find("log-49.log"), std::string::npos);
    EXPECT_EQ(html.find("log-50.log"), std::string::npos);
    EXPECT_NE(html.find(" and 70 more"), std::string::npos);
    EXPECT_NE(html.find("... and 70 more"), std::string::npos);
    EXPECT_NE(html.find("<details class=\"closed\">"), std::string::npos);  // more than 1,000 rows
    EXPECT_NE(html.find("<td>&lt;i&gt;"), std::string::npos);
    EXPECT_EQ(html.substr(html.size() - 15), "</body></html>\n");
}

TEST(ChartAxes, NumberTicksAreRoundAndCoverTheRange)
{
    struct Case {
        double low, high;
        double step;
        std::string someLabel;
    } cases[] = {
        {0, 100000, 20000, "100,000"},
        {1, 18, 5, "15"},
        {3, 4, 1, "4"},
        {999990, 1000020, 10, "1,000,000"},
    };
    for (const Case& c : cases) {
        const std::vector<report::Tick> ticks = report::numberTicks(c.low, c.high, 5);
        ASSERT_GE(ticks.size(), 1u) << c.low;
        EXPECT_LE(ticks.size(), 11u);
        bool labelled = false;
        for (size_t i = 0; i < ticks.size(); ++i) {
            EXPECT_GE(ticks[i].value, c.low - 1e-9);
            EXPECT_LE(ticks[i].value, c.high + 1e-9);
            if (i) {
                EXPECT_DOUBLE_EQ(ticks[i].value - ticks[i - 1].value, c.step) << c.low << ".." << c.high;
            }
            labelled |= ticks[i].label == c.someLabel;
        }
        EXPECT_TRUE(labelled) << c.someLabel;
    }
}

TEST(ChartAxes, TimeTicksFallOnWholeUnitsAndReadAsDates)
{
    const int64_t t = 1700000000;  // 2023-11-14 22:13:20 UTC
    struct Case {
        int64_t low, high;
        std::regex firstLabel, laterLabel;
    } cases[] = {
        {t, t + 5, std::regex(R"(2023-11-14 22:13:2\d)"), std::regex(R"(22:13:2\d)")},
        {t, t + 3 * 3600, std::regex(R"(2023-11-1[45] \d\d:\d\d)"), std::regex(R"((\d{4}-\d\d-\d\d )?\d\d:\d\d)")},
        {t, t + 20 * 86400, std::regex(R"(2023-11-\d\d)"), std::regex(R"(2023-1[12]-\d\d)")},
        {t, t + 400 * 86400, std::regex(R"(2023-12|2024-\d\d)"), std::regex(R"(2024-\d\d|2025-01)")},
        {t, t + 20 * 365 * 86400, std::regex(R"(20\d\d)"), std::regex(R"(20\d\d)")},
    };
    for (const Case& c : cases) {
        const std::vector<report::Tick> ticks = report::timeTicks(c.low, c.high, 6);
        ASSERT_GE(ticks.size(), 2u) << c.high - c.low;
        EXPECT_LE(ticks.size(), 13u);
        for (size_t i = 0; i < ticks.size(); ++i) {
            EXPECT_GE(ticks[i].value, static_cast<double>(c.low));
            EXPECT_LE(ticks[i].value, static_cast<double>(c.high));
            EXPECT_TRUE(std::regex_match(ticks[i].label, i ? c.laterLabel : c.firstLabel)) << ticks[i].label;
            if (i) {
                EXPECT_GT(ticks[i].value, ticks[i - 1].value);
            }
        }
    }
    // Month ticks fall on the first of the month at midnight.
    for (const report::Tick& tick : report::timeTicks(t, t + 400 * 86400, 6)) {
        const auto at = static_cast<int64_t>(tick.value);
        EXPECT_EQ(at % 86400, 0);
        EXPECT_EQ(report::formatTime(at).substr(8), "01");
    }
}

TEST(ChartAxes, TimesReadAsDatesOnTheAxis)
{
    EXPECT_EQ(report::formatTime(1700000000, report::TimeDetail::Second), "2023-11-14 22:13:20");
    EXPECT_EQ(report::formatTime(1700000000, report::TimeDetail::Minute), "2023-11-14 22:13");
    EXPECT_EQ(report::formatTime(-1, report::TimeDetail::Second), "1969-12-31 23:59:59");
    EXPECT_EQ(report::formatNumber(-1234567), "-1,234,567");
    EXPECT_EQ(report::formatNumber(2.5), "2.5");
}

TEST(Charts, HundredThousandPointsDrawAsAFewHundred)
{
    std::vector<report::Point> points;
    for (int i = 0; i < 100000; ++i) points.push_back({1700000000.0 + i * 3, i % 1000 == 500 ? -50.0 : double(i)});
    const std::vector<report::Point> drawn = report::downsample(points, 600);
    EXPECT_LE(drawn.size(), 1200u);
    EXPECT_EQ(drawn.front().x, points.front().x);
    EXPECT_EQ(drawn.back().x, points.back().x);
    // Every dip stays visible: the lowest point of each column is kept.
    EXPECT_EQ(std::count_if(drawn.begin(), drawn.end(), [](const report::Point& p) { return p.y == -50; }), 100);
    for (size_t i = 1; i < drawn.size(); ++i) EXPECT_GE(drawn[i].x, drawn[i - 1].x);

    report::XYChart chart;
    chart.title = "<script>x</script>";
    chart.description = "a \"quoted\" text";
    chart.series.push_back({"logs", points});
    chart.marks.push_back({"counter gap", report::Marker::Triangle, {{1700000300.0, 100.0}}, {"missing 99"}});
    const std::string svg = report::lineChart(chart, "c0");
    EXPECT_LT(svg.size(), 60000u);
    EXPECT_EQ(svg.find("<script"), std::string::npos);
    EXPECT_NE(svg.find("<title id=\"c0-t\">&lt;script&gt;x&lt;/script&gt;</title>"), std::string::npos);
    EXPECT_NE(svg.find("counter gap (1)"), std::string::npos);
    EXPECT_NE(svg.find("missing 99"), std::string::npos);
}

TEST(Charts, BarsStackOrStandSideBySide)
{
    report::BarChart chart;
    chart.categories = {"2023-11-14", "2023-11-15"};
    chart.layers = {{"booked", {10, 0}}, {"in the TSE", {5, 20}}};
    const auto heights = [](const std::string& svg) {
        std::vector<double> out;
        const std::regex rect(R"re(<rect x="[\d.]+" y="[\d.]+" width="[\d.]+" height="([\d.]+)" fill="url)re");
        for (auto it = std::sregex_iterator(svg.begin(), svg.end(), rect); it != std::sregex_iterator(); ++it) {
            out.push_back(std::stod((*it)[1]));
        }
        return out;
    };
    // Stacked: 10 + 5 is 15, three quarters of the 20 beside it; zero draws nothing.
    const std::vector<double> stacked = heights(report::barChart(chart, "s"));
    ASSERT_EQ(stacked.size(), 3u);
    EXPECT_NEAR((stacked[0] + stacked[1]) / stacked[2], 0.75, 0.01);
    EXPECT_NEAR(stacked[0] / stacked[1], 2.0, 0.02);
    chart.stacked = false;
    const std::string sideBySide = report::barChart(chart, "g");
    const std::vector<double> grouped = heights(sideBySide);
    ASSERT_EQ(grouped.size(), 3u);
    EXPECT_NEAR(grouped[0] / grouped[2], 0.5, 0.01);
    // Patterns, not colour alone, and a legend in words.
    EXPECT_NE(sideBySide.find("fill=\"url(#g-p1)\""), std::string::npos);
    EXPECT_NE(sideBySide.find(">in the TSE</text>"), std::string::npos);
}

}  // namespace

namespace {

TEST(HtmlPage, DayBucketsKeepChartsToAboutOneHundredTwentyBars)
{
    const int64_t t = 1700000000, day = 86400;  // 2023-11-14 22:13:20 UTC
    struct Case {
        int64_t last;
        size_t bars;
        std::string unit, lastLabel;
    } cases[] = {
        {t, 1, "day", "2023-11-14"},
        {t + 2 * 3600, 2, "day", "2023-11-15"},  // past midnight UTC
        {t + 119 * day, 120, "day", "2024-03-12"},
        {t + 120 * day, 18, "week", "2024-03-12"},
        {t + 3 * 365 * day, 37, "30 days", "2026-10-29"},
    };
    for (const Case& c : cases) {
        const report::DayBuckets buckets(t, c.last);
        EXPECT_EQ(buckets.size(), c.bars) << c.last - t;
        EXPECT_EQ(buckets.unit(), c.unit);
        EXPECT_EQ(buckets.of(t), 0u);
        EXPECT_EQ(buckets.of(c.last), c.bars - 1);
        EXPECT_EQ(buckets.label(buckets.of(c.last)), c.lastLabel) << c.last - t;
    }
    // Before 1970, days still begin at midnight.
    const report::DayBuckets early(-1, 1);
    EXPECT_EQ(early.size(), 2u);
    EXPECT_EQ(early.label(0), "1969-12-31");
}

TEST(HtmlPage, FindingsGroupErrorsFirstAndNameEachItemOnce)
{
    const std::vector<std::string> a{"1.log", "2.log"}, b{"2.log", "3.log"};
    const std::vector<report::FindingGroup> groups = report::groupFindings({
        {false, "counter-gap", "gap", nullptr},
        {true, "signature-invalid", "one", &a},
        {true, "signature-invalid", "two", &b},
        {true, "certificate-missing", "none", nullptr},
    });
    ASSERT_EQ(groups.size(), 3u);
    EXPECT_EQ(groups[0].code, "certificate-missing");
    EXPECT_EQ(groups[1].code, "signature-invalid");
    EXPECT_EQ(groups[1].messages, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(groups[1].items, (std::vector<std::string>{"1.log", "2.log", "3.log"}));
    EXPECT_EQ(groups[2].severity, "warning");
}

}  // namespace
