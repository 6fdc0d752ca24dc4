#include "client/report/FlameGraph.h"
#include "client/report/HtmlTable.h"
#include "client/report/ReportFigures.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::size_t MAX_ROWS = 50;
constexpr std::size_t MAX_NAME = 90;
constexpr double STANDS_OUT = 1.5; ///< imbalance that is marked

using ReportFigures::EventTotal;
using ReportFigures::Spread;
using ReportText::fixed;
using ReportText::number;

/// The number of ranks that entered an event; all when the profile doesn't tell.
std::size_t enteredOf(const EventTotal& event) {
    const std::vector<double>& values = event.count.empty() ? event.seconds : event.count;
    return static_cast<std::size_t>(
        std::count_if(values.begin(), values.end(), [](double each) { return each > 0.0; }));
}

/// Over the ranks that entered the event: one that never did has no time to compare.
double loadBalanceOf(const Spread& spread, std::size_t entered) {
    return entered > 0 && spread.max > 0.0 ? spread.total / static_cast<double>(entered) / spread.max : 1.0;
}

void addEvent(const ReportData& data, const EventTotal& event, const ReportText::Unit& unit, double greatest,
              HtmlTable& table) {
    const Spread own = ReportFigures::spreadOf(event.own);
    const Spread whole = ReportFigures::spreadOf(event.seconds);
    const std::size_t entered = enteredOf(event);
    const double balance = loadBalanceOf(own, entered);
    const double calls = std::accumulate(event.count.begin(), event.count.end(), 0.0);
    std::string name = ReportText::breakable(ReportText::shorten(event.name, MAX_NAME));
    if (event.open)
        name += " <span class=\"mark\">open</span>";
    if (data.ranks == 1) {
        table.add({name,
                   {fixed(calls, 0), calls},
                   {number(own.mean / unit.size), own.mean},
                   {number(whole.mean / unit.size), whole.mean}});
        return;
    }
    const bool standsOut = own.getImbalance() > STANDS_OUT;
    table.add({name,
               {fixed(calls, 0), calls},
               {std::to_string(entered), static_cast<double>(entered)},
               {number(own.mean / unit.size), own.mean},
               {number(own.max / unit.size), own.max},
               {ReportSections::rankLabel(data, own.maxRank), static_cast<double>(own.maxRank)},
               {number(own.min / unit.size), own.min},
               {(standsOut ? "<b>▲ " : "") + fixed(own.getImbalance(), 2) + (standsOut ? "</b>" : ""),
                own.getImbalance()},
               {fixed(balance, 2), balance},
               SvgPlot::strip(own, greatest),
               {number(whole.mean / unit.size), whole.mean}});
}

std::string tableOf(const ReportData& data, const std::vector<EventTotal>& events) {
    double greatest = 0.0;
    for (std::size_t i = 0; i < std::min(events.size(), MAX_ROWS); ++i)
        greatest = std::max(greatest, *std::max_element(events[i].own.begin(), events[i].own.end()));
    const ReportText::Unit unit = ReportText::secondsUnit(greatest);
    const std::string u = std::string(", ") + unit.name;
    std::vector<HtmlTable::Head> heads{{"event", false}, {"calls", true, "of all ranks"}};
    if (data.ranks == 1)
        heads.insert(heads.end(), {{"own time" + u}, {"with events inside" + u}});
    else
        heads.insert(heads.end(), {{"ranks", true, "that entered it"},
                                   {"mean" + u},
                                   {"max" + u},
                                   {"rank with max", false},
                                   {"min" + u},
                                   {"imbalance", true, "max / mean: 1 is perfect"},
                                   {"load balance", true, "mean / max over the ranks that entered it"},
                                   {"min – quarter – median – quarter – max", false},
                                   {"mean with events inside" + u}});
    HtmlTable table("Own time of each event: without the events inside it", heads);
    for (std::size_t i = 0; i < std::min(events.size(), MAX_ROWS); ++i)
        addEvent(data, events[i], unit, greatest, table);
    std::string html = table.toHtml();
    if (events.size() > MAX_ROWS) {
        double rest = 0.0;
        for (std::size_t i = MAX_ROWS; i < events.size(); ++i)
            rest += std::accumulate(events[i].own.begin(), events[i].own.end(), 0.0);
        html += "<p class=\"note\">" + std::to_string(events.size() - MAX_ROWS) +
                " more events with less time are not shown, " + ReportText::seconds(rest) +
                " on all ranks.</p>\n";
    }
    if (data.ranks > 1)
        html += "<p class=\"note\">Imbalance = max / mean, load balance = mean / max over the ranks that "
                "entered the "
                "event. ▲ marks an imbalance above " +
                fixed(STANDS_OUT, 1) + ". The time of an event holds its waiting for other ranks.</p>\n";
    return html;
}

std::string heatOf(const ReportData& data, const std::vector<EventTotal>& events) {
    if (data.ranks < 2)
        return {};
    SvgPlot::HeatMap map{
        "heatEvents", "Own time of events by rank", "rank →", "event", {"s", 1.0}, {}, {}, {}};
    std::vector<std::vector<double>> rows;
    double greatest = 0.0;
    for (std::size_t i = 0; i < std::min(events.size(), MAX_ROWS); ++i) {
        rows.push_back(events[i].own);
        map.rowNames.push_back(ReportText::shorten(events[i].name, MAX_NAME));
        const Spread spread = ReportFigures::spreadOf(events[i].own);
        map.rowMeans.push_back(spread.mean);
        greatest = std::max(greatest, spread.max);
    }
    map.cells = ReportFigures::cellsOf(rows);
    map.unit = ReportText::secondsUnit(greatest);
    return SvgPlot::heatMap(map) +
           "<p class=\"note\">The middle colour is the mean of the row. One cell at the upper end of the "
           "scale is one "
           "slow rank. A cell shows the greatest value of " +
           (map.cells.columnsEach > 1 ? std::to_string(map.cells.columnsEach) + " ranks." : "one rank.") +
           "</p>\n";
}

} // namespace

std::string ReportSections::events(const ReportData& data) {
    if (data.events.empty())
        return {};
    const std::vector<EventTotal> events = ReportFigures::eventTotals(data);
    return section("events", "Events", tableOf(data, events) + heatOf(data, events)) +
           section("flame", "Flame graph", FlameGraph::toHtml(data));
}
