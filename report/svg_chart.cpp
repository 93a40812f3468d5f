#include "svg_chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "civil_time.h"
#include "html_writer.h"
#include "text.h"

namespace report {
namespace {

constexpr double WIDTH = 760, LEFT = 78, RIGHT = 16, TOP = 34;
constexpr double PLOT_WIDTH = WIDTH - LEFT - RIGHT;
constexpr size_t MAX_MARKERS = 120;  // per series, beyond that a line only
constexpr size_t MAX_LABELS = 6;     // labelled marked points per set

// Okabe and Ito's colours, told apart also by people who see colours
// differently; dashes, markers and patterns tell them apart in grey.
constexpr std::array<const char*, 6> COLOURS{"#0072B2", "#D55E00", "#009E73", "#CC79A7", "#E69F00", "#56B4E9"};
constexpr std::array<const char*, 6> DASHES{"", "6 3", "2 2", "8 3 2 3", "1 3", "10 4"};
constexpr std::array<Marker, 5> SERIES_MARKERS{Marker::Circle, Marker::Square, Marker::Diamond, Marker::Triangle,
                                               Marker::Cross};

std::string num(double value)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.1f", value);
    std::string text = buffer;
    if (text.size() > 2 && text.compare(text.size() - 2, 2, ".0") == 0) text.resize(text.size() - 2);
    return text;
}

struct Scale {
    double low, high, from, to;
    double at(double value) const
    {
        if (high <= low) return (from + to) / 2;
        return from + (value - low) / (high - low) * (to - from);
    }
};

void svgText(std::string& out, double x, double y, std::string_view text, std::string_view attributes = {})
{
    out += "<text x=\"" + num(x) + "\" y=\"" + num(y) + "\"";
    if (!attributes.empty()) out += ' ', out += attributes;
    out += '>';
    appendEscaped(out, text);
    out += "</text>";
}

void openSvg(std::string& out, double height, std::string_view id, const std::string& title,
             const std::string& description)
{
    const std::string prefix(id);
    out += "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"chart\" viewBox=\"0 0 " + num(WIDTH) + " " + num(height) +
           "\" width=\"" + num(WIDTH) + "\" height=\"" + num(height) + "\" role=\"img\" aria-labelledby=\"" + prefix +
           "-t " + prefix + "-d\"><title id=\"" + prefix + "-t\">";
    appendEscaped(out, title);
    out += "</title><desc id=\"" + prefix + "-d\">";
    appendEscaped(out, description);
    out += "</desc>";
    // Fill patterns for bars: solid, hatched, dotted, cross-hatched.
    out += "<defs>";
    for (size_t i = 0; i < 4; ++i) {
        const std::string colour = COLOURS[i];
        out += "<pattern id=\"" + prefix + "-p" + std::to_string(i) +
               "\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\"><rect width=\"6\" height=\"6\" fill=\"" +
               colour + "\"" + (i == 0 ? "" : " fill-opacity=\"0.35\"") + "/>";
        if (i == 1) out += "<path d=\"M0,6L6,0\" stroke=\"" + colour + "\" stroke-width=\"1.6\"/>";
        if (i == 2) out += "<circle cx=\"3\" cy=\"3\" r=\"1.4\" fill=\"" + colour + "\"/>";
        if (i == 3) out += "<path d=\"M0,0L6,6M0,6L6,0\" stroke=\"" + colour + "\" stroke-width=\"1\"/>";
        out += "</pattern>";
    }
    out += "</defs>";
    svgText(out, LEFT, 20, title, "class=\"chart-title\"");
}

std::string fillOf(std::string_view id, size_t style)
{
    return "url(#" + std::string(id) + "-p" + std::to_string(style % 4) + ")";
}

void marker(std::string& out, Marker shape, double x, double y, const char* colour)
{
    const std::string fill = std::string("fill=\"") + colour + "\" stroke=\"#000\" stroke-width=\"0.6\"";
    switch (shape) {
    case Marker::Circle: out += "<circle cx=\"" + num(x) + "\" cy=\"" + num(y) + "\" r=\"3.5\" " + fill + "/>"; break;
    case Marker::Square:
        out +=
            "<rect x=\"" + num(x - 3.2) + "\" y=\"" + num(y - 3.2) + "\" width=\"6.4\" height=\"6.4\" " + fill + "/>";
        break;
    case Marker::Diamond:
        out += "<path d=\"M" + num(x) + "," + num(y - 4.5) + "L" + num(x + 4.5) + "," + num(y) + "L" + num(x) + "," +
               num(y + 4.5) + "L" + num(x - 4.5) + "," + num(y) + "Z\" " + fill + "/>";
        break;
    case Marker::Triangle:
        out += "<path d=\"M" + num(x) + "," + num(y - 5) + "L" + num(x + 5) + "," + num(y + 4) + "L" + num(x - 5) +
               "," + num(y + 4) + "Z\" " + fill + "/>";
        break;
    case Marker::Cross:
        out += "<path d=\"M" + num(x - 4) + "," + num(y - 4) + "L" + num(x + 4) + "," + num(y + 4) + "M" + num(x - 4) +
               "," + num(y + 4) + "L" + num(x + 4) + "," + num(y - 4) + "\" stroke=\"" + colour +
               "\" stroke-width=\"2.2\" fill=\"none\"/>";
        break;
    }
}

std::vector<Tick> ticksFor(Axis axis, double low, double high, int count)
{
    if (axis == Axis::Time) {
        return timeTicks(static_cast<int64_t>(std::ceil(low)), static_cast<int64_t>(std::floor(high)), count);
    }
    return numberTicks(low, high, count);
}

// Grid, tick labels and axis names of a plot area.
void axes(std::string& out, const Scale& x, const Scale& y, const std::vector<Tick>& xTicks,
          const std::vector<Tick>& yTicks, const std::string& xLabel, const std::string& yLabel)
{
    const double bottom = y.from, top = y.to;
    out += "<g class=\"axis\">";
    const auto inside = [](const Scale& scale, double value) {
        return value >= std::min(scale.low, scale.high) && value <= std::max(scale.low, scale.high);
    };
    for (const Tick& tick : yTicks) {
        if (!inside(y, tick.value)) continue;
        const double at = y.at(tick.value);
        out += "<line x1=\"" + num(LEFT) + "\" x2=\"" + num(LEFT + PLOT_WIDTH) + "\" y1=\"" + num(at) + "\" y2=\"" +
               num(at) + "\" class=\"grid\"/>";
        svgText(out, LEFT - 6, at + 4, tick.label, "text-anchor=\"end\"");
    }
    double labelled = -WIDTH;  // where the last label drawn ends
    size_t drawn = 0;
    for (const Tick& tick : xTicks) {
        if (!inside(x, tick.value)) continue;
        const double at = x.at(tick.value);
        out += "<line x1=\"" + num(at) + "\" x2=\"" + num(at) + "\" y1=\"" + num(top) + "\" y2=\"" + num(bottom) +
               "\" class=\"grid\"/>";
        // A label that would stick out of the picture keeps to its edge;
        // one that would overlap the label before it is left out.
        const double half = 3.2 * static_cast<double>(tick.label.size());
        const char* anchor = at - half < 2 ? "start" : at + half > WIDTH - 2 ? "end" : "middle";
        const double start = anchor[0] == 's' ? at : anchor[0] == 'e' ? at - 2 * half : at - half;
        if (start < labelled + 8) continue;
        labelled = start + 2 * half;
        // On a narrow screen the labels grow and every second one goes (.alt).
        svgText(out, at, bottom + 16, tick.label,
                std::string("text-anchor=\"") + anchor + "\"" + (drawn++ % 2 ? " class=\"alt\"" : ""));
    }
    out += "<path d=\"M" + num(LEFT) + "," + num(top) + "V" + num(bottom) + "H" + num(LEFT + PLOT_WIDTH) +
           "\" class=\"frame\"/>";
    svgText(out, LEFT + PLOT_WIDTH / 2, bottom + 34, xLabel, "text-anchor=\"middle\" class=\"axis-name\"");
    svgText(out, 14, (top + bottom) / 2, yLabel,
            "text-anchor=\"middle\" class=\"axis-name\" transform=\"rotate(-90 14 " + num((top + bottom) / 2) + ")\"");
    out += "</g>";
}

// A legend row below the plot: a sample of each entry and its name.
struct LegendEntry {
    std::string name;
    std::string sample;  // markup drawn around (0, 0)
};

double legend(std::string& out, const std::vector<LegendEntry>& entries, double y)
{
    double x = LEFT;
    for (const LegendEntry& entry : entries) {
        const double width = 34 + 6.5 * static_cast<double>(entry.name.size());
        if (x + width > WIDTH - RIGHT && x > LEFT) x = LEFT, y += 18;
        out += "<g transform=\"translate(" + num(x + 10) + "," + num(y) + ")\">" + entry.sample + "</g>";
        svgText(out, x + 26, y + 4, entry.name);
        x += width;
    }
    return y + 18;
}

double padded(double low, double high, bool high_end)
{
    const double span = high > low ? high - low : std::max(1.0, std::fabs(high));
    return high_end ? high + span * 0.03 : low - span * 0.03;
}

}  // namespace

std::string formatNumber(double value)
{
    if (std::fabs(value - std::round(value)) > 1e-9) return num(value);
    return tse::groupedDigits(std::llround(value));
}

std::string formatTime(int64_t seconds, TimeDetail detail)
{
    // ISO 8601 with a blank for the T and no zone, which the axis names.
    std::string text = tse::isoSeconds(seconds);
    const size_t date = text.find('T');
    text[date] = ' ';
    return text.substr(0, date + (detail == TimeDetail::Second ? 9 : detail == TimeDetail::Minute ? 6 : 0));
}

std::vector<Tick> numberTicks(double low, double high, int count)
{
    std::vector<Tick> ticks;
    if (!(high > low) || count < 1) {
        ticks.push_back(Tick{low, formatNumber(low)});
        return ticks;
    }
    const double rough = (high - low) / count;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    double step = power;
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        step = factor * power;
        if (step >= rough) break;
    }
    if (step < 1 && high - low >= 1) step = 1;  // counters have no halves
    for (double value = std::ceil(low / step) * step; value <= high + step * 1e-9; value += step) {
        ticks.push_back(Tick{value, formatNumber(std::round(value / step) * step)});
    }
    return ticks;
}

std::vector<Tick> timeTicks(int64_t low, int64_t high, int count)
{
    std::vector<Tick> ticks;
    if (high <= low || count < 1) {
        ticks.push_back(Tick{static_cast<double>(low), formatTime(low, TimeDetail::Second)});
        return ticks;
    }
    const int64_t span = high - low;
    constexpr int64_t DAY = 86400;
    const std::array<int64_t, 20> steps{1,    2,        5,        10,        15,  30,      60,      300,      900, 1800,
                                        3600, 3 * 3600, 6 * 3600, 12 * 3600, DAY, 2 * DAY, 7 * DAY, 14 * DAY, 0,   0};
    for (const int64_t step : steps) {
        if (step == 0) break;
        if (span / step <= count) {
            const TimeDetail detail = step < 60    ? TimeDetail::Second
                                      : step < DAY ? TimeDetail::Minute
                                                   : TimeDetail::Day;
            // Whole steps from midnight; weeks start on a Monday.
            const int64_t origin = step == 7 * DAY || step == 14 * DAY ? 4 * DAY : 0;
            int64_t at = low - origin;
            at = (at >= 0 ? (at + step - 1) / step : at / step) * step + origin;
            for (; at <= high; at += step) ticks.push_back(Tick{static_cast<double>(at), formatTime(at, detail)});
            // The date once, then the time of day while the date stays.
            for (size_t i = ticks.size(); detail != TimeDetail::Day && i-- > 1;) {
                if (ticks[i].label.compare(0, 10, ticks[i - 1].label, 0, 10) == 0) ticks[i].label.erase(0, 11);
            }
            return ticks;
        }
    }
    // Longer spans: whole months, then whole years.
    const tse::CivilTime first = tse::civilFromSeconds(low);
    for (const int months : {1, 2, 3, 6, 12, 24, 60, 120, 600}) {
        if (span / (30 * DAY * months) > count) continue;
        int64_t y = first.year;
        int m = static_cast<int>(first.month) - 1 + 1;  // the first whole month after low
        m = (m + months - 1) / months * months;
        for (;;) {
            y += m / 12, m %= 12;
            const int64_t at = tse::daysFromCivil(y, static_cast<unsigned>(m + 1), 1) * DAY;
            if (at > high) break;
            if (at >= low) {
                std::string label = formatTime(at);
                ticks.push_back(Tick{static_cast<double>(at), months >= 12 ? label.substr(0, 4) : label.substr(0, 7)});
            }
            m += months;
        }
        return ticks;
    }
    return ticks;
}

std::vector<Point> downsample(const std::vector<Point>& points, size_t columns)
{
    if (points.size() <= 2 * columns || columns == 0) return points;
    const double low = points.front().x, high = points.back().x;
    std::vector<Point> out;
    size_t i = 0;
    while (i < points.size()) {
        const size_t column =
            high > low ? static_cast<size_t>((points[i].x - low) / (high - low) * static_cast<double>(columns - 1)) : 0;
        Point lowest = points[i], highest = points[i];
        size_t j = i;
        while (j < points.size() &&
               (high > low ? static_cast<size_t>((points[j].x - low) / (high - low) * static_cast<double>(columns - 1))
                           : 0) == column) {
            if (points[j].y < lowest.y) lowest = points[j];
            if (points[j].y > highest.y) highest = points[j];
            ++j;
        }
        // In x order, so that the line goes through both.
        if (lowest.x <= highest.x) out.push_back(lowest), out.push_back(highest);
        else out.push_back(highest), out.push_back(lowest);
        if (out[out.size() - 1].x == out[out.size() - 2].x && out[out.size() - 1].y == out[out.size() - 2].y) {
            out.pop_back();
        }
        i = j;
    }
    return out;
}

namespace {

// The smallest box that holds every point and mark of the chart.
struct Bounds {
    double xLow = 0, xHigh = 0, yLow = 0, yHigh = 0;
};

Bounds boundsOf(const XYChart& chart)
{
    Bounds b;
    bool any = false;
    const auto include = [&](const Point& p) {
        if (!any) b.xLow = b.xHigh = p.x, b.yLow = b.yHigh = p.y, any = true;
        b.xLow = std::min(b.xLow, p.x), b.xHigh = std::max(b.xHigh, p.x);
        b.yLow = std::min(b.yLow, p.y), b.yHigh = std::max(b.yHigh, p.y);
    };
    for (const Series& s : chart.series) std::for_each(s.points.begin(), s.points.end(), include);
    for (const MarkedPoints& m : chart.marks) std::for_each(m.points.begin(), m.points.end(), include);
    return b;
}

// The i-th series as a line with its markers, and its legend entry; a series
// of more points than the plot is wide is drawn from a downsampled copy.
LegendEntry drawSeries(std::string& out, const Series& s, size_t i, const Scale& x, const Scale& y)
{
    const char* colour = COLOURS[i % COLOURS.size()];
    const std::string dash = DASHES[i % DASHES.size()];
    const std::string stroke = std::string("stroke=\"") + colour + "\" stroke-width=\"1.8\" fill=\"none\"" +
                               (dash.empty() ? "" : " stroke-dasharray=\"" + dash + "\"");
    const std::vector<Point> drawn = downsample(s.points, static_cast<size_t>(PLOT_WIDTH));
    out += "<g class=\"series\">";
    if (drawn.size() > 1) {
        out += "<path " + stroke + " d=\"";
        for (size_t k = 0; k < drawn.size(); ++k) {
            out += (k ? "L" : "M") + num(x.at(drawn[k].x)) + "," + num(y.at(drawn[k].y));
        }
        out += "\"/>";
    }
    const Marker shape = SERIES_MARKERS[i % SERIES_MARKERS.size()];
    if (drawn.size() <= MAX_MARKERS) {
        for (const Point& p : drawn) marker(out, shape, x.at(p.x), y.at(p.y), colour);
    }
    out += "</g>";
    std::string sample = "<path d=\"M-10,0H10\" " + stroke + "/>";
    marker(sample, shape, 0, 0, colour);
    return LegendEntry{s.name, sample};
}

// Marked points (gaps, clocks set back) with their labels, and the legend
// entry that counts them.
LegendEntry drawMarks(std::string& out, const MarkedPoints& m, const char* colour, const Scale& x, const Scale& y,
                      double plotBottom)
{
    out += "<g class=\"marks\">";
    for (size_t k = 0; k < m.points.size(); ++k) {
        const double px = x.at(m.points[k].x), py = y.at(m.points[k].y);
        // A line down to the axis, so that a mark stays visible over the
        // series it sits on.
        out += "<line x1=\"" + num(px) + "\" x2=\"" + num(px) + "\" y1=\"" + num(py) + "\" y2=\"" + num(plotBottom) +
               "\" stroke=\"" + colour + "\" stroke-dasharray=\"3 2\"/>";
        marker(out, m.marker, px, py, colour);
        if (k < m.labels.size() && k < MAX_LABELS) {
            svgText(out, px + 7, py - 7 - 12.0 * static_cast<double>(k % 2), m.labels[k], "class=\"mark-label\"");
        }
    }
    out += "</g>";
    std::string sample;
    marker(sample, m.marker, 0, 0, colour);
    return LegendEntry{m.name + " (" + formatNumber(static_cast<double>(m.points.size())) + ")", sample};
}

}  // namespace

std::string lineChart(const XYChart& chart, std::string_view id)
{
    const Bounds bounds = boundsOf(chart);
    const double plotBottom = 250,
                 height = 330 + 18.0 * static_cast<double>((chart.series.size() + chart.marks.size()) / 4);
    std::string out;
    openSvg(out, height, id, chart.title, chart.description);
    const Scale x{padded(bounds.xLow, bounds.xHigh, false), padded(bounds.xLow, bounds.xHigh, true), LEFT,
                  LEFT + PLOT_WIDTH};
    const Scale y{padded(bounds.yLow, bounds.yHigh, false), padded(bounds.yLow, bounds.yHigh, true), plotBottom, TOP};
    axes(out, x, y, ticksFor(chart.xAxis, x.low, x.high, 6), ticksFor(chart.yAxis, y.low, y.high, 6), chart.xLabel,
         chart.yLabel);
    std::vector<LegendEntry> entries;
    for (size_t i = 0; i < chart.series.size(); ++i) entries.push_back(drawSeries(out, chart.series[i], i, x, y));
    for (size_t i = 0; i < chart.marks.size(); ++i) {
        entries.push_back(drawMarks(out, chart.marks[i], i % 2 ? "#E69F00" : "#D55E00", x, y, plotBottom));
    }
    legend(out, entries, plotBottom + 56);
    out += "</svg>";
    return out;
}

std::string barChart(const BarChart& chart, std::string_view id)
{
    const size_t n = chart.categories.size();
    double highest = 0;
    for (size_t c = 0; c < n; ++c) {
        double sum = 0;
        for (const BarLayer& layer : chart.layers) {
            const double value = c < layer.values.size() ? layer.values[c] : 0;
            sum = chart.stacked ? sum + value : std::max(sum, value);
        }
        highest = std::max(highest, sum);
    }
    const double plotBottom = 250, height = 330 + 18.0 * static_cast<double>(chart.layers.size() / 4);
    std::string out;
    openSvg(out, height, id, chart.title, chart.description);
    const Scale y{0, highest > 0 ? highest * 1.05 : 1, plotBottom, TOP};
    const double slot = n ? PLOT_WIDTH / static_cast<double>(n) : PLOT_WIDTH;
    // Category labels at about eight places, always at the first bar.
    const size_t every = std::max<size_t>(1, (n + 7) / 8);
    std::vector<Tick> xTicks;
    for (size_t c = 0; c < n; c += every) {
        xTicks.push_back(Tick{static_cast<double>(c) + 0.5, chart.categories[c]});
    }
    const Scale x{0, static_cast<double>(std::max<size_t>(n, 1)), LEFT, LEFT + PLOT_WIDTH};
    axes(out, x, y, xTicks, numberTicks(0, y.high, 5), "", chart.yLabel);
    const size_t layers = std::max<size_t>(1, chart.layers.size());
    const double gap = slot > 4 ? slot * 0.15 : 0;
    for (size_t c = 0; c < n; ++c) {
        double base = 0;
        for (size_t l = 0; l < chart.layers.size(); ++l) {
            const double value = c < chart.layers[l].values.size() ? chart.layers[l].values[c] : 0;
            if (value <= 0) continue;
            double left = LEFT + slot * static_cast<double>(c) + gap / 2, width = slot - gap;
            if (!chart.stacked) width /= static_cast<double>(layers), left += width * static_cast<double>(l);
            const double from = chart.stacked ? base : 0;
            const double top = y.at(from + value), bottom = y.at(from);
            out += "<rect x=\"" + num(left) + "\" y=\"" + num(top) + "\" width=\"" + num(std::max(width, 0.6)) +
                   "\" height=\"" + num(std::max(bottom - top, 0.6)) + "\" fill=\"" + fillOf(id, l) +
                   "\" stroke=\"#333\" stroke-width=\"" + (width > 3 ? "0.5" : "0") + "\"><title>";
            appendEscaped(out, chart.categories[c] + ": " + formatNumber(value) + " " + chart.layers[l].name);
            out += "</title></rect>";
            base += value;
        }
    }
    std::vector<LegendEntry> entries;
    for (size_t l = 0; l < chart.layers.size(); ++l) {
        entries.push_back(
            LegendEntry{chart.layers[l].name, "<rect x=\"-9\" y=\"-6\" width=\"18\" height=\"12\" fill=\"" +
                                                  fillOf(id, l) + "\" stroke=\"#333\"/>"});
    }
    legend(out, entries, plotBottom + 40);
    out += "</svg>";
    return out;
}

std::string intervalChart(const IntervalChart& chart, std::string_view id)
{
    int64_t low = 0, high = 0;
    bool any = false;
    const auto include = [&](int64_t t) {
        if (!any) low = high = t, any = true;
        low = std::min(low, t), high = std::max(high, t);
    };
    for (const Interval& row : chart.rows) {
        if (row.from) include(*row.from);
        if (row.to) include(*row.to);
    }
    if (chart.band) include(chart.band->first), include(chart.band->second);
    const double rowHeight = 26, plotTop = TOP + 6;
    const double plotBottom = plotTop + rowHeight * static_cast<double>(std::max<size_t>(chart.rows.size(), 1));
    const double height = plotBottom + 64;
    std::string out;
    openSvg(out, height, id, chart.title, chart.description);
    const double lowD = padded(static_cast<double>(low), static_cast<double>(high), false);
    const double highD = padded(static_cast<double>(low), static_cast<double>(high), true);
    const Scale x{lowD, highD, LEFT + 150, LEFT + PLOT_WIDTH};
    if (chart.band) {
        const double from = x.at(static_cast<double>(chart.band->first)),
                     to = x.at(static_cast<double>(chart.band->second));
        out += "<rect x=\"" + num(from) + "\" y=\"" + num(plotTop - 4) + "\" width=\"" + num(std::max(to - from, 1.5)) +
               "\" height=\"" + num(plotBottom - plotTop + 4) + "\" fill=\"" + fillOf(id, 2) +
               "\" stroke=\"#009E73\" stroke-dasharray=\"4 2\"/>";
    }
    for (const Tick& tick : timeTicks(static_cast<int64_t>(std::ceil(lowD)), static_cast<int64_t>(highD), 5)) {
        const double at = x.at(tick.value);
        out += "<line x1=\"" + num(at) + "\" x2=\"" + num(at) + "\" y1=\"" + num(plotTop - 4) + "\" y2=\"" +
               num(plotBottom) + "\" class=\"grid\"/>";
        svgText(out, at, plotBottom + 16, tick.label, "text-anchor=\"middle\"");
    }
    for (size_t r = 0; r < chart.rows.size(); ++r) {
        const Interval& row = chart.rows[r];
        const double top = plotTop + rowHeight * static_cast<double>(r) + 4;
        svgText(out, 8, top + 13, row.label.size() > 34 ? row.label.substr(0, 33) + "\xE2\x80\xA6" : row.label);
        const double from = row.from ? x.at(static_cast<double>(*row.from)) : x.from;
        const double to = row.to ? x.at(static_cast<double>(*row.to)) : x.to;
        out += "<rect x=\"" + num(from) + "\" y=\"" + num(top) + "\" width=\"" + num(std::max(to - from, 1.5)) +
               "\" height=\"" + num(rowHeight - 10) + "\" fill=\"" + fillOf(id, static_cast<size_t>(row.style)) +
               "\" stroke=\"#333\"><title>";
        appendEscaped(out, row.label + ": " + (row.from ? formatTime(*row.from, TimeDetail::Minute) : "open") + " to " +
                               (row.to ? formatTime(*row.to, TimeDetail::Minute) : "open"));
        out += "</title></rect>";
        if (!row.from) svgText(out, from + 2, top + 12, "\xE2\x97\x80 no start", "class=\"mark-label\"");
        if (!row.to) svgText(out, to - 2, top + 12, "no end \xE2\x96\xB6", "class=\"mark-label\" text-anchor=\"end\"");
    }
    out += "<path d=\"M" + num(x.from) + "," + num(plotBottom) + "H" + num(x.to) + "\" class=\"frame\"/>";
    if (chart.band) {
        legend(out,
               {LegendEntry{chart.bandName, "<rect x=\"-9\" y=\"-6\" width=\"18\" height=\"12\" fill=\"" +
                                                fillOf(id, 2) + "\" stroke=\"#009E73\" stroke-dasharray=\"4 2\"/>"}},
               plotBottom + 40);
    }
    out += "</svg>";
    return out;
}

}  // namespace report
