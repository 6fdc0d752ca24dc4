#include "client/report/AffinityMap.h"
#include "client/report/ReportFigures.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>

namespace {

constexpr std::size_t MAX_PLOTS = 12;
constexpr std::size_t POINTS = 150; ///< of a line

/// The greatest value of each of at most POINTS spans.
std::vector<double> thinned(const std::vector<double>& values) {
    const std::size_t each = (values.size() + POINTS - 1) / POINTS;
    std::vector<double> thin;
    for (std::size_t i = 0; i < values.size(); i += each)
        thin.push_back(*std::max_element(values.begin() + static_cast<std::ptrdiff_t>(i),
                                         values.begin() +
                                             static_cast<std::ptrdiff_t>(std::min(values.size(), i + each))));
    return thin;
}

std::string historyOf(const ReportData& data) {
    if (data.memoryTimes.size() < 2 || data.memoryOfHosts.empty())
        return {};
    std::vector<double> peaks;
    for (const ReportData::MemoryOfHost& host : data.memoryOfHosts)
        peaks.push_back(*std::max_element(host.resident.begin(), host.resident.end()));
    const std::vector<std::size_t> shown = ReportFigures::greatest(peaks, MAX_PLOTS);
    const double greatest = peaks[shown.front()];
    const ReportText::Unit unit = ReportText::bytesUnit(greatest);
    const std::vector<double> times = thinned(data.memoryTimes);
    std::string html =
        "<p class=\"note\">Thick: the resident memory of all ranks of the host. Dashed: of the rank "
        "with the most. All plots have the same scale.";
    if (shown.size() < peaks.size())
        html += " The " + std::to_string(shown.size()) + " hosts with the most of " +
                std::to_string(peaks.size()) + " are shown.";
    html += "</p>\n<div class=\"plots\">";
    for (const std::size_t index : shown) {
        const ReportData::MemoryOfHost& host = data.memoryOfHosts[index];
        const ReportData::Host* const known =
            host.host < data.hosts.size() ? &data.hosts[host.host] : nullptr;
        const std::string size =
            known && known->memory > 0.0 ? " of " + ReportText::bytes(known->memory) : "";
        html +=
            SvgPlot::lines(times, {{"host", thinned(host.resident)}, {"rank", thinned(host.max)}}, greatest,
                           {(known ? ReportText::shorten(known->name, 24) : "host") + ", peak " +
                                ReportText::bytes(peaks[index]) + size,
                            "s since the monitor was switched on", unit.name, unit});
    }
    return html + "</div>\n";
}

} // namespace

std::string ReportSections::memory(const ReportData& data) {
    return section("memory", "Memory",
                   ranksOf(data, data.peakMemory, false, "Peak memory") + historyOf(data));
}

std::string ReportSections::hosts(const ReportData& data) {
    std::string html = AffinityMap::toHtml(data);
    if (!html.empty())
        html = "<p class=\"note\">A box is a processor: its number stands at the top, below it the rank that "
               "is bound "
               "there, – where none is, and ×2 where two are.</p>\n" +
               html;
    return section("hosts", "Hosts and bindings", html);
}
