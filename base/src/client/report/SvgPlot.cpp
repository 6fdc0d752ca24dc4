#include "client/report/SvgPlot.h"

#include <algorithm>
#include <cmath>

namespace {

using SvgPlot::coordinate;
using SvgPlot::Labels;

// A plot of 360 x 210 with room for the axes.
constexpr double WIDTH = 360.0;
constexpr double HEIGHT = 210.0;
constexpr double LEFT = 52.0;
constexpr double RIGHT = 12.0;
constexpr double TOP = 28.0;
constexpr double BOTTOM = 40.0;
constexpr int LEVELS = 9; ///< colours of a heat map

struct Scale {
    double greatest;
    double from; ///< coordinate of 0
    double to;   ///< coordinate of `greatest`

    double operator()(double value) const {
        return greatest > 0.0 ? from + (to - from) * std::clamp(value / greatest, 0.0, 1.0) : from;
    }
};

Scale across(double greatest) {
    return {greatest, LEFT, WIDTH - RIGHT};
}
Scale upward(double greatest) {
    return {greatest, HEIGHT - BOTTOM, TOP};
}

std::string line(double x1, double y1, double x2, double y2, const char* classes) {
    return "<path class=\"" + std::string(classes) + "\" d=\"M" + coordinate(x1) + " " + coordinate(y1) +
           "L" + coordinate(x2) + " " + coordinate(y2) + "\"/>";
}

std::string rectangle(double x, double y, double width, double height, const std::string& classes) {
    return "<rect class=\"" + classes + "\" x=\"" + coordinate(x) + "\" y=\"" + coordinate(y) +
           "\" width=\"" + coordinate(width) + "\" height=\"" + coordinate(height) + "\"/>";
}

std::string open(double width, double height, const std::string& title, const char* classes) {
    return "<svg class=\"" + std::string(classes) + "\" role=\"img\" viewBox=\"0 0 " + coordinate(width) +
           " " + coordinate(height) + "\" width=\"" + coordinate(width) + "\" height=\"" +
           coordinate(height) + "\" aria-label=\"" + ReportText::escape(title) + "\">";
}

std::string tickText(double value, double unit) {
    return value == 0.0 ? "0" : ReportText::number(value / unit).substr(0, 8);
}

/// Frame, title and axes. The units of the two axes turn values into numbers.
std::string frame(const Labels& labels, const Scale& x, double xUnit, const Scale& y, double yUnit) {
    std::string svg = open(WIDTH, HEIGHT, labels.title, "plot");
    svg += SvgPlot::text(LEFT, 14.0, labels.title, "title");
    for (const double value : SvgPlot::ticks(y.greatest / yUnit)) {
        svg += line(LEFT, y(value * yUnit), WIDTH - RIGHT, y(value * yUnit), "grid");
        svg += SvgPlot::text(LEFT - 5.0, y(value * yUnit) + 4.0, tickText(value, 1.0), "tick end");
    }
    for (const double value : SvgPlot::ticks(x.greatest / xUnit))
        svg += line(x(value * xUnit), HEIGHT - BOTTOM, x(value * xUnit), HEIGHT - BOTTOM + 4.0, "axis") +
               SvgPlot::text(x(value * xUnit), HEIGHT - BOTTOM + 16.0, tickText(value, 1.0), "tick middle");
    svg += line(LEFT, HEIGHT - BOTTOM, WIDTH - RIGHT, HEIGHT - BOTTOM, "axis");
    svg += SvgPlot::text((LEFT + WIDTH - RIGHT) / 2.0, HEIGHT - 6.0, labels.across, "label middle");
    return svg + SvgPlot::text(4.0, TOP - 4.0, labels.up, "label");
}

std::string polyline(const std::vector<double>& places, const std::vector<double>& values, const Scale& x,
                     const Scale& y, const std::string& classes) {
    std::string path = "<path class=\"" + classes + "\" d=\"";
    for (std::size_t i = 0; i < values.size(); ++i)
        path += (i == 0 ? "M" : "L") + coordinate(x(places[i])) + " " + coordinate(y(values[i]));
    return path + "\"/>";
}

double greatestOf(const std::vector<double>& values) {
    return values.empty() ? 0.0 : *std::max_element(values.begin(), values.end());
}

/// 0: nothing to show, else 1 to LEVELS.
int levelOf(double value, double greatest) {
    if (!(value > 0.0) || !(greatest > 0.0))
        return 0;
    return std::clamp(static_cast<int>(std::ceil(value / greatest * LEVELS)), 1, LEVELS);
}

std::vector<double> scalesOf(const SvgPlot::HeatMap& map) {
    return map.rowScale.empty() ? std::vector<double>(map.cells.rows, greatestOf(map.cells.max))
                                : map.rowScale;
}

/// One path for each colour; neighbours in a row are one rectangle.
std::string cellPaths(const SvgPlot::HeatMap& map) {
    const ReportFigures::CellTable& cells = map.cells;
    const std::vector<double> scales = scalesOf(map);
    std::vector<std::string> paths(LEVELS + 1);
    for (std::size_t row = 0; row < cells.rows; ++row)
        for (std::size_t column = 0, next = 0; column < cells.columns; column = next) {
            const int level = levelOf(cells.max[row * cells.columns + column], scales[row]);
            next = column + 1;
            while (next < cells.columns &&
                   levelOf(cells.max[row * cells.columns + next], scales[row]) == level)
                ++next;
            const std::string width = std::to_string(next - column);
            paths[static_cast<std::size_t>(level)] +=
                "M" + std::to_string(column) + " " + std::to_string(row) + "h" + width + "v1h-" + width + "z";
        }
    std::string svg;
    for (std::size_t level = 1; level < paths.size(); ++level)
        if (!paths[level].empty())
            svg += "<path class=\"q" + std::to_string(level) + "\" d=\"" + paths[level] + "\"/>";
    return svg;
}

/// The values as parts of 1000 of the greatest, for the script.
std::string thousandths(const std::vector<double>& values, double greatest) {
    std::string json = "[";
    for (const double value : values)
        json += (json.size() > 1 ? "," : "") +
                std::to_string(greatest > 0.0 ? std::lround(1000.0 * value / greatest) : 0);
    return json + "]";
}

std::string namesAsJson(const std::vector<std::string>& names) {
    std::string json = "[";
    for (const std::string& name : names)
        json += (json.size() > 1 ? "," : "") + ReportText::quote(name);
    return json + "]";
}

std::string heatData(const SvgPlot::HeatMap& map) {
    const ReportFigures::CellTable& cells = map.cells;
    const double greatest = greatestOf(cells.max);
    return "<script type=\"application/json\" id=\"" + map.id + "\">{\"rows\":" + std::to_string(cells.rows) +
           ",\"columns\":" + std::to_string(cells.columns) +
           ",\"rowsEach\":" + std::to_string(cells.rowsEach) +
           ",\"columnsEach\":" + std::to_string(cells.columnsEach) +
           ",\"down\":" + ReportText::quote(map.down) + ",\"across\":" + ReportText::quote(map.across) +
           ",\"unit\":" + ReportText::quote(map.unit.name) +
           ",\"scale\":" + ReportText::fixed(greatest / map.unit.size / 1000.0, 9) +
           ",\"rowNames\":" + namesAsJson(map.rowNames) + ",\"columnNames\":" + namesAsJson(map.columnNames) +
           ",\"max\":" + thousandths(cells.max, greatest) + ",\"mean\":" + thousandths(cells.mean, greatest) +
           "}</script>\n";
}

std::string legend(double x, double y, const std::string& low, const std::string& high) {
    std::string svg = SvgPlot::text(x - 6.0, y + 10.0, low, "tick end");
    for (int level = 1; level <= LEVELS; ++level)
        svg += rectangle(x + 14.0 * (level - 1), y, 14.0, 12.0, "q" + std::to_string(level));
    return svg + SvgPlot::text(x + 14.0 * LEVELS + 6.0, y + 10.0, high, "tick");
}

} // namespace

std::string SvgPlot::coordinate(double value) {
    std::string text = ReportText::fixed(value, 1);
    if (text.ends_with(".0"))
        text.resize(text.size() - 2);
    return text;
}

std::string SvgPlot::text(double x, double y, const std::string& words, const char* classes) {
    return "<text class=\"" + std::string(classes) + "\" x=\"" + coordinate(x) + "\" y=\"" + coordinate(y) +
           "\">" + ReportText::escape(words) + "</text>";
}

std::vector<double> SvgPlot::ticks(double greatest) {
    if (!(greatest > 0.0))
        return {0.0};
    constexpr double COUNT = 4.0;
    const double rough = greatest / COUNT;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    const double step = power * (rough / power <= 1.0   ? 1.0
                                 : rough / power <= 2.0 ? 2.0
                                 : rough / power <= 5.0 ? 5.0
                                                        : 10.0);
    std::vector<double> places;
    for (int i = 0; i * step <= greatest * (1.0 + 1e-9); ++i)
        places.push_back(i * step);
    return places;
}

std::string SvgPlot::quantiles(const std::vector<double>& ascending, std::size_t ranks,
                               const Labels& labels) {
    if (ascending.empty())
        return {};
    const Scale x = across(static_cast<double>(ranks));
    const Scale y = upward(ascending.back());
    std::string svg = frame(labels, x, 1.0, y, labels.unit.size);
    // Steps: each rank has a width, so that one rank among few is as wide as its part.
    const double width = static_cast<double>(ranks) / static_cast<double>(ascending.size());
    std::string path = "M" + coordinate(x(0.0)) + " " + coordinate(y(0.0));
    for (std::size_t i = 0; i < ascending.size(); ++i)
        path += "L" + coordinate(x(width * static_cast<double>(i))) + " " + coordinate(y(ascending[i])) +
                "H" + coordinate(x(width * static_cast<double>(i + 1)));
    return svg + "<path class=\"area\" d=\"" + path + "V" + coordinate(y(0.0)) + "z\"/></svg>\n";
}

std::string SvgPlot::histogram(const ReportFigures::Histogram& histogram, const Labels& labels) {
    if (histogram.counts.empty())
        return {};
    const double most =
        static_cast<double>(*std::max_element(histogram.counts.begin(), histogram.counts.end()));
    const double last = histogram.first + histogram.width * static_cast<double>(histogram.counts.size());
    const Scale x = across(last);
    const Scale y = upward(most);
    std::string svg = frame(labels, x, labels.unit.size, y, 1.0);
    for (std::size_t i = 0; i < histogram.counts.size(); ++i) {
        if (histogram.counts[i] == 0)
            continue;
        const double from = x(histogram.first + histogram.width * static_cast<double>(i));
        const double width =
            std::max(1.5, x(histogram.first + histogram.width * static_cast<double>(i + 1)) - from - 0.5);
        const double top =
            std::min(y(static_cast<double>(histogram.counts[i])), y(0.0) - 2.0); // one rank shows
        svg += rectangle(std::min(from, WIDTH - RIGHT - width), top, width, y(0.0) - top, "bar");
    }
    return svg + "</svg>\n";
}

std::string SvgPlot::lines(const std::vector<double>& places, const std::vector<Line>& lines, double greatest,
                           const Labels& labels) {
    double top = greatest;
    for (const Line& each : lines)
        top = greatest > 0.0 ? top : std::max(top, greatestOf(each.values));
    const Scale x = across(greatestOf(places));
    const Scale y = upward(top);
    std::string svg = frame(labels, x, 1.0, y, labels.unit.size);
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].values.size() == places.size())
            svg += polyline(places, lines[i].values, x, y, i == 0 ? "line" : "line second");
    return svg + "</svg>\n";
}

std::string SvgPlot::parts(const std::array<int, 3>& parts) {
    constexpr double LENGTH = 200.0;
    constexpr double THICKNESS = 14.0;
    const std::string words = std::to_string(parts[0]) + " useful, " + std::to_string(parts[1]) +
                              " imbalance, " + std::to_string(parts[2]) + " waiting";
    std::string svg = open(LENGTH, THICKNESS, words, "parts");
    constexpr std::array CLASSES{"useful", "imbalance", "waiting"};
    double from = 0.0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const double width = LENGTH * parts[i] / 100.0;
        if (parts[i] > 0)
            svg += rectangle(from, 0.0, width, THICKNESS, CLASSES[i]);
        from += width;
    }
    return svg + "</svg>";
}

std::string SvgPlot::strip(const ReportFigures::Spread& spread, double greatest) {
    constexpr double LENGTH = 160.0;
    const Scale x{greatest, 2.0, LENGTH - 2.0};
    std::string svg =
        open(LENGTH, 14.0,
             "from " + ReportText::seconds(spread.min) + " to " + ReportText::seconds(spread.max), "strip");
    svg += line(x(spread.min), 7.0, x(spread.max), 7.0, "axis");
    svg += line(x(spread.max), 3.0, x(spread.max), 11.0, "axis");
    svg += line(x(spread.min), 3.0, x(spread.min), 11.0, "axis");
    svg += rectangle(x(spread.quantiles[1]), 2.5,
                     std::max(1.5, x(spread.quantiles[3]) - x(spread.quantiles[1])), 9.0, "bar");
    return svg + line(x(spread.quantiles[2]), 1.0, x(spread.quantiles[2]), 13.0, "median") + "</svg>";
}

std::string SvgPlot::heatMap(const HeatMap& map) {
    const ReportFigures::CellTable& cells = map.cells;
    if (cells.rows == 0)
        return {};
    constexpr std::size_t MAX_NAMED = 60; // rows that can be named at the side
    constexpr double LENGTH = 900.0;
    const bool named = !map.rowNames.empty() && cells.rows <= MAX_NAMED;
    const double left = named ? 250.0 : 60.0;
    const double cell = named ? 16.0 : std::clamp(400.0 / static_cast<double>(cells.rows), 3.0, 16.0);
    const double top = 48.0;
    const double length = LENGTH - left - 20.0;
    const double breadth = cell * static_cast<double>(cells.rows);
    std::string svg = open(LENGTH, top + breadth + 24.0, map.title, "heat");
    svg += text(0.0, 14.0, map.title, "title");
    svg += legend(LENGTH - 210.0, 4.0, "low", map.rowScale.empty() ? "high" : "row's max");
    svg += text(left, top - 6.0, map.across, "label") + text(0.0, top - 6.0, map.down, "label");
    for (std::size_t row = 0; named && row < cells.rows; ++row)
        svg += text(left - 6.0, top + cell * (static_cast<double>(row) + 0.78),
                    ReportText::shorten(map.rowNames[row], 36), "tick end");
    if (!named)
        for (const double value : ticks(static_cast<double>(cells.rows)))
            svg += text(left - 6.0, top + cell * value + 4.0,
                        ReportText::fixed(value * static_cast<double>(cells.rowsEach), 0), "tick end");
    svg += "<svg class=\"cells\" data-heat=\"" + map.id + "\" x=\"" + coordinate(left) + "\" y=\"" +
           coordinate(top) + "\" width=\"" + coordinate(length) + "\" height=\"" + coordinate(breadth) +
           "\" viewBox=\"0 0 " + std::to_string(cells.columns) + " " + std::to_string(cells.rows) +
           "\" preserveAspectRatio=\"none\"><rect class=\"none\" width=\"" + std::to_string(cells.columns) +
           "\" height=\"" + std::to_string(cells.rows) + "\"/>" + cellPaths(map) + "</svg>";
    for (const double value : ticks(static_cast<double>(cells.columns)))
        svg += text(left + length * value / static_cast<double>(cells.columns), top + breadth + 16.0,
                    ReportText::fixed(value * static_cast<double>(cells.columnsEach), 0), "tick middle");
    return "<div class=\"scroll\">" + svg + "</svg></div>\n" + heatData(map);
}
