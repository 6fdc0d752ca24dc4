#include "client/report/HtmlTable.h"
#include "client/report/ReportFigures.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::size_t MAX_ROWS = 50;
constexpr std::size_t WORST = 10;

using ReportText::fixed;
using ReportText::number;

/// "up to 64 B", "65 B – 256 B", "from 65537 B".
std::string classLabel(const std::vector<double>& bounds, std::size_t index) {
    const auto bytes = [](double count) { return fixed(count, 0) + " B"; };
    if (index >= bounds.size())
        return "class " + std::to_string(index + 1);
    if (index + 1 == bounds.size())
        return "from " + bytes(bounds[index]);
    return index == 0 ? "up to " + bytes(bounds[1] - 1.0)
                      : bytes(bounds[index]) + " – " + bytes(bounds[index + 1] - 1.0);
}

double sumOf(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0);
}

std::string operationTable(const ReportData& data) {
    std::vector<double> times;
    std::size_t classes = 0;
    for (const ReportData::Operation& operation : data.operations) {
        times.push_back(sumOf(operation.seconds));
        classes = std::max(classes, operation.count.size());
    }
    std::vector<HtmlTable::Head> heads{{"operation", false}, {"kind", false}, {"count"}, {"time, s"}};
    for (std::size_t i = 0; i < classes; ++i)
        heads.push_back({classLabel(data.sizeClasses, i) + ", count", true, "with the mean time below"});
    HtmlTable table("Operations by size, all ranks together; below each count the mean time of one", heads);
    for (const std::size_t index : ReportFigures::greatest(times, MAX_ROWS)) {
        const ReportData::Operation& each = data.operations[index];
        const double count = sumOf(each.count);
        std::vector<HtmlTable::Cell> cells{ReportText::breakable(ReportText::shorten(each.name, 60)),
                                           ReportText::escape(ReportText::shorten(each.kind, 20)),
                                           {fixed(count, 0), count},
                                           {number(times[index]), times[index]}};
        for (std::size_t i = 0; i < each.count.size(); ++i)
            cells.emplace_back(each.count[i] > 0.0
                                   ? fixed(each.count[i], 0) + "<br><small>" +
                                         ReportText::seconds(each.seconds[i] / each.count[i]) + "</small>"
                                   : std::string("–"),
                               each.count[i]);
        table.add(cells);
    }
    return table.isEmpty() ? "" : table.toHtml();
}

std::string partnerName(const ReportData& data, std::size_t index) {
    return data.partners.byHost ? ReportText::escape(ReportText::shorten(data.hosts[index].name, 40))
                                : ReportSections::rankLabel(data, index);
}

std::string pairTable(const ReportData& data) {
    const std::vector<std::vector<double>>& counts = data.partners.counts;
    std::vector<double> all;
    for (const std::vector<double>& row : counts)
        all.insert(all.end(), row.begin(), row.end());
    const std::string unit = data.partners.byHost ? "host" : "rank";
    HtmlTable table("The pairs with the most messages",
                    {{"from " + unit, false}, {"to " + unit, false}, {"messages"}});
    for (const std::size_t index : ReportFigures::greatest(all, WORST))
        if (all[index] > 0.0)
            table.add({partnerName(data, index / counts.size()),
                       partnerName(data, index % counts.size()),
                       {fixed(all[index], 0), all[index]}});
    return table.isEmpty() ? "" : table.toHtml();
}

std::string partnerMap(const ReportData& data) {
    if (data.partners.counts.empty())
        return {};
    const std::string unit = data.partners.byHost ? "host" : "rank";
    SvgPlot::HeatMap map{"heatPartners",
                         "Messages between two ranks, by sender and receiver",
                         "to " + unit + " →",
                         "from " + unit,
                         {"messages", 1.0},
                         ReportFigures::cellsOf(data.partners.counts),
                         {},
                         {},
                         true};
    if (data.partners.byHost && map.cells.rowsEach == 1)
        for (const ReportData::Host& host : data.hosts)
            map.rowNames.push_back(ReportText::shorten(host.name, 40));
    map.columnNames = map.rowNames;
    return SvgPlot::heatMap(map) + pairTable(data);
}

} // namespace

std::string ReportSections::messages(const ReportData& data) {
    return section("messages", "Messages", operationTable(data) + partnerMap(data));
}
