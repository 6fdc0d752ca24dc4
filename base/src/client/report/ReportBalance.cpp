#include "client/report/HtmlTable.h"
#include "client/report/ReportFigures.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

namespace {

constexpr std::size_t WORST = 10;
constexpr std::size_t POINTS = 400; ///< of a curve over the ranks
constexpr std::size_t BINS = 40;

using ReportFigures::Efficiency;
using ReportText::fixed;
using ReportText::seconds;

std::string row(const std::string& name, double value, const std::string& formula,
                const std::string& numbers) {
    return "<tr><th scope=\"row\">" + name + "</th><td class=\"n big\">" + fixed(value, 2) + "</td><td>" +
           formula + "</td><td>" + numbers + "</td></tr>\n";
}

std::string efficiencyTable(const ReportData& data, const Efficiency& all,
                            const std::vector<double>& useful) {
    std::string html =
        "<div class=\"scroll\"><table><caption>Efficiencies as the POP centre defines them: 1 is perfect, "
        "from "
        "0.80 on is accepted</caption><thead><tr><th scope=\"col\">efficiency</th><th scope=\"col\" "
        "class=\"n\">value</th><th scope=\"col\">formula</th><th "
        "scope=\"col\">numbers</th></tr></thead><tbody>\n";
    html +=
        row("Parallel efficiency", all.getParallel(), "Σ U / (N T) = load balance × communication efficiency",
            "mean U " + seconds(all.usefulMean) + ", T " + seconds(all.seconds));
    html += row("Load balance", all.getLoadBalance(), "mean U / max U",
                "mean U " + seconds(all.usefulMean) + ", max U " + seconds(all.usefulMax));
    const ReportFigures::HostBalance hosts = ReportFigures::hostBalanceOf(data, useful);
    if (hosts.valid) {
        html +=
            row("· inside hosts", hosts.inside, "S H / (N max U)", "S: the largest ΣU of a host, H hosts");
        html += row("· between hosts", hosts.between, "Σ U / (S H)", "load balance = inside × between");
    }
    html += row("Communication efficiency", all.getCommunication(), "max U / T",
                "max U " + seconds(all.usefulMax) + ", T " + seconds(all.seconds));
    return html + "</tbody></table></div>\n";
}

std::string partsText(const Efficiency& all) {
    const std::array<int, 3> parts = all.getParts();
    return "<figure class=\"wide\"><figcaption>Of 100 s on all ranks: <b class=\"k1\">" +
           std::to_string(parts[0]) + " useful</b>, <b class=\"k2\">" + std::to_string(parts[1]) +
           " imbalance</b>, <b class=\"k3\">" + std::to_string(parts[2]) + " waiting</b></figcaption>" +
           SvgPlot::parts(parts) +
           "</figure>\n<p class=\"note\">T is the time in commands, N the number of ranks. U is the useful "
           "time of "
           "a rank: T without the time in operations of the message layer that may wait. Imbalance is (max U "
           "− "
           "mean U) / T: the others wait for the rank that computes most. Waiting is (T − max U) / T: even "
           "that "
           "rank waits. A load that moves between the ranks from step to step counts as waiting. Slower "
           "computing raises the efficiency, so look at the seconds too.</p>\n";
}

} // namespace

std::string ReportSections::rankLabel(const ReportData& data, std::size_t rank) {
    const std::string host = data.hostOf(rank);
    return std::to_string(rank) +
           (host.empty() ? "" : " on " + ReportText::escape(ReportText::shorten(host, 40)));
}

std::string ReportSections::section(const std::string& id, const std::string& heading,
                                    const std::string& content) {
    return content.empty()
               ? ""
               : "<section id=\"" + id + "\"><h2>" + heading + "</h2>\n" + content + "</section>\n";
}

std::string ReportSections::ranksOf(const ReportData& data, const ReportData::PerRank& values, bool isTime,
                                    const std::string& name) {
    if (values.size() < 2)
        return {};
    const ReportFigures::Spread spread = ReportFigures::spreadOf(values);
    const ReportText::Unit unit =
        isTime ? ReportText::secondsUnit(spread.max) : ReportText::bytesUnit(spread.max);
    const std::string unitName = unit.name;
    std::string html = "<div class=\"plots\">";
    html += SvgPlot::quantiles(ReportFigures::quantileCurve(values, POINTS), values.size(),
                               {name + ", ranks in ascending order", "ranks", unitName, unit});
    if (values.size() > BINS / 2) // fewer have hardly two in a bin
        html += SvgPlot::histogram(ReportFigures::histogramOf(values, BINS),
                                   {name + ", how many ranks", unitName, "ranks", unit});
    HtmlTable table("The ranks with the most, of " + std::to_string(values.size()),
                    {{"rank", false}, {name + ", " + unitName}, {"of the mean"}});
    for (const std::size_t rank : ReportFigures::greatest(values, WORST))
        table.add({rankLabel(data, rank),
                   {ReportText::number(values[rank] / unit.size), values[rank]},
                   {fixed(spread.mean > 0.0 ? values[rank] / spread.mean : 1.0, 2),
                    spread.mean > 0.0 ? values[rank] / spread.mean : 1.0}});
    return html + table.toHtml() + "</div>\n";
}

std::string ReportSections::balance(const ReportData& data) {
    if (!(data.seconds > 0.0) || data.waiting.empty())
        return {};
    const std::vector<double> useful = ReportFigures::usefulTimes(data);
    const Efficiency all = ReportFigures::efficiencyOf(data.seconds, useful);
    std::string html = partsText(all) + efficiencyTable(data, all, useful);
    html += ranksOf(data, useful, true, "Useful time");
    html += ranksOf(data, data.processor, true, "Processor time");
    return section("balance", "Efficiency", html);
}
