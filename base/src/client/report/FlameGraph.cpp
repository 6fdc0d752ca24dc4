#include "client/report/FlameGraph.h"

#include "client/report/ReportFigures.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

constexpr double WIDTH = 1160.0;
constexpr double ROW = 19.0;
constexpr double LETTER = 7.3;     ///< width of one at 12 px, with room
constexpr double LEAST = 0.001;    ///< part of the whole below which an event is left out
constexpr double STANDS_OUT = 1.5; ///< imbalance that is marked
constexpr std::size_t MAX_DEPTH = 60;
constexpr unsigned HUES = 6;

/// The same colour for the same name in each report.
unsigned hueOf(const std::string& name) {
    unsigned hash = 2166136261u;
    for (const char c : name)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    return hash % HUES + 1;
}

class Drawing {
public:
    explicit Drawing(const ReportData& data) : _data(data), _children(data.events.size()) {
        for (std::size_t event = 0; event < data.events.size(); ++event) {
            const long parent = data.events[event].parent;
            (parent < 0 ? _roots : _children[static_cast<std::size_t>(parent)]).push_back(event);
        }
        _times.assign(data.events.size(), -1.0);
        for (const std::size_t root : _roots)
            _whole += timeOf(root, 0);
    }

    std::string toHtml() {
        if (!(_whole > 0.0))
            return {};
        drawAll(_roots, 0.0, 0);
        const double height = ROW * static_cast<double>(_depth + 1);
        std::string html =
            "<div class=\"scroll\"><svg class=\"flame\" role=\"img\" aria-label=\"Flame graph of the "
            "nested events\" viewBox=\"0 0 " +
            SvgPlot::coordinate(WIDTH) + " " + SvgPlot::coordinate(height) + "\" width=\"" +
            SvgPlot::coordinate(WIDTH) + "\" height=\"" + SvgPlot::coordinate(height) + "\">" + _svg +
            "</svg></div>\n";
        html += "<p class=\"note\">All ranks together: " + ReportText::seconds(_whole) +
                " in the outermost events. An event lies below the one that holds it. ▲ marks an event whose "
                "slowest rank takes more than " +
                ReportText::fixed(STANDS_OUT, 1) + " times the mean.";
        if (_leftOut > 0.0)
            html += " Events below 0.1 % are left out, " + ReportText::seconds(_leftOut) + " in all.";
        return html + "</p>\n";
    }

private:
    /// At least the time of the events inside: an event that was entered from several places has one parent
    /// here.
    double timeOf(std::size_t event, std::size_t depth) {
        const std::vector<double>& seconds = _data.events[event].seconds;
        double inside = 0.0;
        for (const std::size_t child : _children[event])
            inside += depth < MAX_DEPTH ? timeOf(child, depth + 1) : 0.0;
        return _times[event] = std::max(inside, std::accumulate(seconds.begin(), seconds.end(), 0.0));
    }

    /// Siblings by name, so that two reports compare.
    void drawAll(std::vector<std::size_t> events, double from, std::size_t depth) {
        std::sort(events.begin(), events.end(),
                  [&](std::size_t a, std::size_t b) { return _data.events[a].name < _data.events[b].name; });
        for (const std::size_t event : events) {
            const double time = std::max(0.0, _times[event]);
            if (time < LEAST * _whole || depth >= MAX_DEPTH)
                _leftOut += time;
            else
                draw(event, from, depth);
            from += time;
        }
    }

    void draw(std::size_t event, double from, std::size_t depth) {
        _depth = std::max(_depth, depth);
        const ReportFigures::Spread spread = ReportFigures::spreadOf(_data.events[event].seconds);
        const std::string& name = _data.events[event].name;
        const double x = WIDTH * from / _whole;
        const double width = WIDTH * _times[event] / _whole;
        const double y = ROW * static_cast<double>(depth);
        const bool standsOut = _data.ranks > 1 && spread.getImbalance() > STANDS_OUT;
        std::string facts = name + "\n" + ReportText::seconds(_times[event]) + " on all ranks, " +
                            ReportText::fixed(100.0 * _times[event] / _whole, 1) + " %";
        if (_data.ranks > 1)
            facts += "\nmean " + ReportText::seconds(spread.mean) + ", max " +
                     ReportText::seconds(spread.max) + " on rank " + std::to_string(spread.maxRank) +
                     ", imbalance " + ReportText::fixed(spread.getImbalance(), 2);
        _svg += "<g class=\"frame h" + std::to_string(hueOf(name)) + (standsOut ? " out" : "") +
                "\" data-tip=\"" + ReportText::escape(facts) + "\"><rect x=\"" + SvgPlot::coordinate(x) +
                "\" y=\"" + SvgPlot::coordinate(y) + "\" width=\"" +
                SvgPlot::coordinate(std::max(0.5, width - 0.5)) + "\" height=\"18\" rx=\"2\"/>";
        const auto letters = static_cast<std::size_t>(std::max(0.0, (width - 8.0) / LETTER));
        const std::string label = (standsOut ? "▲ " : "") + name;
        _svg += SvgPlot::text(x + 4.0, y + 13.0, letters < 3 ? "" : ReportText::shorten(label, letters), "") +
                "</g>\n";
        drawAll(_children[event], from, depth + 1);
    }

    const ReportData& _data;
    std::vector<std::vector<std::size_t>> _children;
    std::vector<std::size_t> _roots;
    std::vector<double> _times; ///< of all ranks; -1: too deep
    double _whole = 0.0;
    double _leftOut = 0.0;
    std::size_t _depth = 0;
    std::string _svg;
};

} // namespace

std::string FlameGraph::toHtml(const ReportData& data) {
    return Drawing(data).toHtml();
}
