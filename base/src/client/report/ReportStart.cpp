#include "client/report/HtmlTable.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>

namespace {

constexpr std::size_t MAX_ROWS = 50;
constexpr std::size_t MAX_OPTIONS = 200;
constexpr std::size_t MAX_TEXT = 400;

std::string timeline(const ReportData::Step& step, double end) {
    const double from = std::clamp(100.0 * step.at / end, 0.0, 99.0);
    const double width = std::clamp(100.0 * step.seconds / end, 0.7, 100.0 - from);
    return "<svg class=\"time\" role=\"img\" aria-label=\"from " + ReportText::seconds(step.at) +
           " on\" width=\"300\" height=\"14\"><rect class=\"track\" width=\"100%\" height=\"14\"/><rect "
           "class=\"bar\" x=\"" +
           SvgPlot::coordinate(from) + "%\" y=\"1\" width=\"" + SvgPlot::coordinate(width) +
           "%\" height=\"12\"/></svg>";
}

void addSetting(HtmlTable& table, const std::string& name, const std::string& value) {
    if (!value.empty())
        table.add({ReportText::escape(ReportText::shorten(name, MAX_TEXT)),
                   ReportText::escape(ReportText::shorten(value, MAX_TEXT))});
}

} // namespace

std::string ReportSections::start(const ReportData& data) {
    double end = 0.0;
    double greatest = 0.0;
    for (const ReportData::Step& step : data.start) {
        end = std::max(end, step.at + step.seconds);
        greatest = std::max(greatest, step.seconds);
    }
    if (!(end > 0.0))
        return {};
    const ReportText::Unit unit = ReportText::secondsUnit(greatest);
    const std::string u = std::string(", ") + unit.name;
    const bool hasMax = std::any_of(data.start.begin(), data.start.end(),
                                    [](const ReportData::Step& step) { return step.max > 0.0; });
    std::vector<HtmlTable::Head> heads{
        {"step", false}, {"begins at" + u}, {"takes" + u}, {"timeline", false}};
    if (hasMax)
        heads.insert(heads.end(), {{"longest on a rank" + u}, {"rank", false}});
    HtmlTable table("The start of rank 0, " + ReportText::seconds(end) + " in all", heads);
    for (std::size_t i = 0; i < std::min(data.start.size(), MAX_ROWS); ++i) {
        const ReportData::Step& step = data.start[i];
        std::vector<HtmlTable::Cell> cells{ReportText::escape(ReportText::shorten(step.name, 60)),
                                           {ReportText::number(step.at / unit.size), step.at},
                                           {ReportText::number(step.seconds / unit.size), step.seconds},
                                           timeline(step, end)};
        if (hasMax)
            cells.insert(cells.end(), {{ReportText::number(step.max / unit.size), step.max},
                                       rankLabel(data, step.maxRank)});
        table.add(cells);
    }
    return section("start", "Start", table.toHtml());
}

std::string ReportSections::settings(const ReportData& data) {
    HtmlTable table("Versions and options", {{"name", false}, {"value", false}});
    addSetting(table, "product", data.product);
    addSetting(table, "MPI", data.mpi);
    addSetting(table, "command line", data.commandLine);
    addSetting(table, "session", data.session);
    addSetting(table, "profile written", ReportText::time(data.written));
    for (std::size_t i = 0; i < std::min(data.options.size(), MAX_OPTIONS); ++i)
        addSetting(table, data.options[i].first, data.options[i].second);
    return section("settings", "Versions and options", table.isEmpty() ? "" : table.toHtml());
}
