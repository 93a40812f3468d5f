#ifndef TSE_REPORT_SVG_CHART_H
#define TSE_REPORT_SVG_CHART_H

// Charts as inline SVG, drawn from a few aggregated values: a chart of a
// hundred thousand logs holds some hundred elements, not one per log.
// Colour is never the only signal: series differ in dash and marker,
// layers in fill pattern, and every chart carries a text alternative.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace report {

struct Tick {
    double value = 0;
    std::string label;
};

// About `count` ticks between low and high at 1, 2 or 5 times a power of
// ten, labelled with thousands separators.
std::vector<Tick> numberTicks(double low, double high, int count);
// About `count` ticks at whole minutes, hours, days, months or years (UTC),
// labelled as dates, with the time of day when the span is short.
std::vector<Tick> timeTicks(int64_t low, int64_t high, int count);
std::string formatNumber(double value);  // "12,345", "2.5"
enum class TimeDetail { Day, Minute, Second };
// "2023-11-14", "2023-11-14 22:13", "2023-11-14 22:13:20" (UTC)
std::string formatTime(int64_t seconds, TimeDetail detail = TimeDetail::Day);

enum class Axis { Number, Time };
enum class Marker { Circle, Square, Triangle, Cross, Diamond };

struct Point {
    double x = 0, y = 0;
};

// A line through points in x order; drawn with markers while they are few.
struct Series {
    std::string name;
    std::vector<Point> points;
};

// Single points that matter, such as gaps: a marker each, a legend entry,
// and a label beside the first few.
struct MarkedPoints {
    std::string name;
    Marker marker = Marker::Triangle;
    std::vector<Point> points;
    std::vector<std::string> labels;  // for the first points; may be shorter
};

struct XYChart {
    std::string title;
    std::string description;  // the text alternative
    Axis xAxis = Axis::Time, yAxis = Axis::Number;
    std::string xLabel, yLabel;
    std::vector<Series> series;
    std::vector<MarkedPoints> marks;
};

// One value per category and layer; layers stack, or stand side by side.
struct BarLayer {
    std::string name;
    std::vector<double> values;
};

struct BarChart {
    std::string title;
    std::string description;
    std::string yLabel;
    std::vector<std::string> categories;  // the bars' labels, e.g. days
    std::vector<BarLayer> layers;
    bool stacked = true;
};

// A stretch of time per row; a missing end is drawn open to the edge.
struct Interval {
    std::string label;
    std::optional<int64_t> from, to;
    int style = 0;  // 0, 1, 2: fill pattern and colour
};

struct IntervalChart {
    std::string title;
    std::string description;
    std::vector<Interval> rows;
    // A shaded band across every row, e.g. the time the logs span.
    std::optional<std::pair<int64_t, int64_t>> band;
    std::string bandName;
};

// Each returns a complete <svg> element; `id` is unique in the document and
// prefixes the chart's own pattern names.
std::string lineChart(const XYChart& chart, std::string_view id);
std::string barChart(const BarChart& chart, std::string_view id);
std::string intervalChart(const IntervalChart& chart, std::string_view id);

// The points of a line reduced to the lowest and highest per column of
// `columns` between the series' first and last x: what a line of that
// width shows anyway.
std::vector<Point> downsample(const std::vector<Point>& points, size_t columns);

}  // namespace report

#endif
