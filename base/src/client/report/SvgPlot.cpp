#include "client/report/SvgPlot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace {

using SvgPlot::coordinate;
using SvgPlot::Labels;

// A plot of 360 x 210 with room for the axes.
constexpr double WIDTH = 360.0;
constexpr double HEIGHT = 210.0;
constexpr double LEFT = 52.0;
constexpr double RIGHT = 22.0;
constexpr double TOP = 28.0;
constexpr double BOTTOM = 40.0;
constexpr int LEVELS = 9; ///< colours of a heat map

struct Scale {
    double least;
    double greatest;
    double from; ///< coordinate of `least`
    double to;   ///< coordinate of `greatest`

    double operator()(double value) const {
        return greatest > least
                   ? from + (to - from) * std::clamp((value - least) / (greatest - least), 0.0, 1.0)
                   : from;
    }
    /// The texts of an axis in a unit, each with its coordinate.
    std::vector<std::pair<double, std::string>> ticksIn(double unit) const {
        std::vector<std::pair<double, std::string>> texts;
        for (const double value : SvgPlot::ticks(least / unit, greatest / unit))
            texts.emplace_back((*this)(value * unit), tickText(value));
        return texts;
    }
    /// As few digits as the value needs.
    static std::string tickText(double value) {
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", value);
        return text;
    }
};

Scale across(double least, double greatest) {
    return {least, greatest, LEFT, WIDTH - RIGHT};
}
Scale upward(double greatest) {
    return {0.0, greatest, HEIGHT - BOTTOM, TOP};
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

/// Frame, title and axes. The units of the two axes turn values into numbers.
std::string frame(const Labels& labels, const Scale& x, double xUnit, const Scale& y, double yUnit) {
    std::string svg = open(WIDTH, HEIGHT, labels.title, "plot");
    svg += SvgPlot::text(LEFT, 14.0, labels.title, "title");
    for (const auto& [place, words] : y.ticksIn(yUnit))
        svg += line(LEFT, place, WIDTH - RIGHT, place, "grid") +
               SvgPlot::text(LEFT - 5.0, place + 4.0, words, "tick end");
    for (const auto& [place, words] : x.ticksIn(xUnit))
        svg += line(place, HEIGHT - BOTTOM, place, HEIGHT - BOTTOM + 4.0, "axis") +
               SvgPlot::text(place, HEIGHT - BOTTOM + 16.0, words, "tick middle");
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

/// The colour of each cell: 0 has nothing to show, else 1 to LEVELS.
std::vector<int> levelsOf(const SvgPlot::HeatMap& map) {
    const ReportFigures::CellTable& cells = map.cells;
    const double greatest = greatestOf(cells.max);
    std::vector<int> levels;
    levels.reserve(cells.max.size());
    for (std::size_t cell = 0; cell < cells.max.size(); ++cell) {
        const double value = cells.max[cell];
        const double part = map.rowMeans.empty() ? std::log1p(value) / std::log1p(greatest)
                                                 : 0.5 * value / map.rowMeans[cell / cells.columns];
        levels.push_back(
            value > 0.0 ? static_cast<int>(std::clamp(std::ceil(part * LEVELS), 1.0, 1.0 * LEVELS)) : 0);
    }
    return levels;
}

/// One path for each colour; neighbours in a row are one rectangle.
std::string cellPaths(const SvgPlot::HeatMap& map) {
    const ReportFigures::CellTable& cells = map.cells;
    const std::vector<int> levels = levelsOf(map);
    std::vector<std::string> paths(LEVELS + 1);
    for (std::size_t row = 0; row < cells.rows; ++row)
        for (std::size_t column = 0, next = 0; column < cells.columns; column = next) {
            const int level = levels[row * cells.columns + column];
            next = column + 1;
            while (next < cells.columns && levels[row * cells.columns + next] == level)
                ++next;
            const std::string width = std::to_string(next - column);
            paths[static_cast<std::size_t>(level)]
                .append("M" + std::to_string(column) + " " + std::to_string(row))
                .append("h" + width + "v1h-" + width + "z");
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

std::vector<double> SvgPlot::ticks(double least, double greatest) {
    if (!(greatest > least))
        return {least};
    constexpr double COUNT = 4.0;
    const double rough = (greatest - least) / COUNT;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    const double step = power * (rough / power <= 1.0   ? 1.0
                                 : rough / power <= 2.0 ? 2.0
                                 : rough / power <= 5.0 ? 5.0
                                                        : 10.0);
    std::vector<double> places;
    const double first = std::ceil(least / step - 1e-9);
    for (int i = 0; (first + i) * step <= greatest + 1e-9 * (greatest - least); ++i)
        places.push_back((first + i) * step);
    return places;
}

std::vector<std::size_t> SvgPlot::wholeTicks(std::size_t greatest) {
    std::vector<std::size_t> places;
    for (const double value : ticks(0.0, static_cast<double>(greatest)))
        if (value == std::floor(value))
            places.push_back(static_cast<std::size_t>(value));
    return places;
}

std::string SvgPlot::quantiles(const std::vector<double>& ascending, std::size_t ranks,
                               const Labels& labels) {
    if (ascending.empty())
        return {};
    const Scale x = across(0.0, static_cast<double>(ranks));
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
    const Scale x = across(histogram.first, last);
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
    const Scale x = across(0.0, greatestOf(places));
    const Scale y = upward(top);
    std::string svg = frame(labels, x, 1.0, y, labels.unit.size);
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].values.size() == places.size())
            svg += polyline(places, lines[i].values, x, y, i == 0 ? "line" : "line second");
    return svg + "</svg>\n";
}

std::string SvgPlot::parts(const std::array<int, 3>& parts) {
    std::string svg = "<svg class=\"parts\" role=\"img\" width=\"200\" height=\"14\" aria-label=\"" +
                      std::to_string(parts[0]) + " useful, " + std::to_string(parts[1]) + " imbalance, " +
                      std::to_string(parts[2]) + " waiting\">";
    constexpr std::array CLASSES{"useful", "imbalance", "waiting"};
    int from = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (parts[i] > 0)
            svg += std::string("<rect class=\"") + CLASSES[i] + "\" x=\"" + std::to_string(from) +
                   "%\" width=\"" + std::to_string(parts[i]) + "%\" height=\"100%\"/>";
        from += parts[i];
    }
    return svg + "</svg>";
}

std::string SvgPlot::strip(const ReportFigures::Spread& spread, double greatest) {
    constexpr double LENGTH = 160.0;
    const Scale x{0.0, greatest, 2.0, LENGTH - 2.0};
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
    const double cell = named ? 16.0 : std::clamp(400.0 / static_cast<double>(cells.rows), 3.0, 24.0);
    const double top = 48.0;
    const double breadth = cell * static_cast<double>(cells.rows);
    const double length = map.isSquare ? std::max(breadth, 120.0) : LENGTH - left - 20.0;
    std::string svg = open(LENGTH, top + breadth + 24.0, map.title, "heat");
    svg += text(0.0, 14.0, map.title, "title");
    svg += legend(LENGTH - 230.0, 4.0, map.rowMeans.empty() ? "1" : "0",
                  map.rowMeans.empty() ? "most, logarithmic" : "2 × mean of row");
    svg += text(left, top - 6.0, map.across, "label") + text(0.0, top - 6.0, map.down, "label");
    for (std::size_t row = 0; named && row < cells.rows; ++row)
        svg += text(left - 6.0, top + cell * (static_cast<double>(row) + 0.78),
                    ReportText::shorten(map.rowNames[row], 36), "tick end");
    if (!named)
        for (const std::size_t value : wholeTicks(cells.rows))
            svg += text(left - 6.0, top + cell * static_cast<double>(value) + 4.0,
                        std::to_string(value * cells.rowsEach), "tick end");
    svg += "<svg class=\"cells\" data-heat=\"" + map.id + "\" x=\"" + coordinate(left) + "\" y=\"" +
           coordinate(top) + "\" width=\"" + coordinate(length) + "\" height=\"" + coordinate(breadth) +
           "\" viewBox=\"0 0 " + std::to_string(cells.columns) + " " + std::to_string(cells.rows) +
           "\" preserveAspectRatio=\"none\"><rect class=\"none\" width=\"" + std::to_string(cells.columns) +
           "\" height=\"" + std::to_string(cells.rows) + "\"/>" + cellPaths(map) + "</svg>";
    for (const std::size_t value : wholeTicks(cells.columns))
        svg += text(left + length * static_cast<double>(value) / static_cast<double>(cells.columns),
                    top + breadth + 16.0, std::to_string(value * cells.columnsEach), "tick middle");
    return "<div class=\"scroll\">" + svg + "</svg></div>\n" + heatData(map);
}
