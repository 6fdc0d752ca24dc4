#include "client/report/HtmlTable.h"
#include "client/report/ReportFigures.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>

namespace {

constexpr std::size_t MAX_ROWS = 50;

using ReportText::fixed;

void addBill(const ReportData& data, const ReportData::Bill& bill, HtmlTable& table) {
    const ReportFigures::Efficiency all = ReportFigures::efficiencyOf(bill);
    const std::string name = ReportText::breakable(ReportText::shorten(bill.command, 60));
    table.add({bill.failed ? name + " <span class=\"bad\">✗ failed</span>" : name,
               {ReportText::escape(ReportText::time(bill.began)), bill.began},
               ReportText::escape(ReportText::shorten(bill.client, 40)),
               {ReportText::number(bill.wall), bill.wall},
               {fixed(all.getParallel(), 2), all.getParallel()},
               {fixed(all.getLoadBalance(), 2), all.getLoadBalance()},
               {fixed(all.getCommunication(), 2), all.getCommunication()},
               SvgPlot::parts(all.getParts()),
               {ReportText::number(bill.processor.total), bill.processor.total},
               {ReportText::number(bill.waiting.max) + " (" + std::to_string(bill.waiting.maxRank) + ")",
                bill.waiting.max},
               {ReportText::number(bill.waiting.min) + " (" + std::to_string(bill.waiting.minRank) + ")",
                bill.waiting.min},
               {ReportText::number(bill.peakMemory.max / 0x1p20) + " (" +
                    ReportSections::rankLabel(data, bill.peakMemory.maxRank) + ")",
                bill.peakMemory.max},
               {ReportText::number(bill.messages.total), bill.messages.total},
               {ReportText::number(bill.bytes.total / 0x1p20), bill.bytes.total}});
}

} // namespace

std::string ReportSections::commands(const ReportData& data) {
    if (data.bills.empty())
        return {};
    std::vector<double> walls;
    walls.reserve(data.bills.size());
    for (const ReportData::Bill& bill : data.bills)
        walls.push_back(bill.wall);
    std::vector<std::size_t> shown = ReportFigures::greatest(walls, MAX_ROWS);
    std::sort(shown.begin(), shown.end());
    HtmlTable table("Efficiencies from the waiting times: U = wall − waiting, T = wall. Ranks in brackets",
                    {{"command", false},
                     {"began", false},
                     {"client", false},
                     {"wall, s"},
                     {"parallel efficiency"},
                     {"load balance"},
                     {"communication efficiency"},
                     {"useful, imbalance, waiting", false},
                     {"processor, s", true, "all threads of all ranks"},
                     {"most waiting, s"},
                     {"least waiting, s", true, "the rank that the others waited for"},
                     {"peak memory, MiB"},
                     {"operations", true, "of the message layer, all ranks"},
                     {"bytes, MiB", true, "all ranks"}});
    for (const std::size_t bill : shown)
        addBill(data, data.bills[bill], table);
    std::string html = table.toHtml();
    if (shown.size() < walls.size())
        html += "<p class=\"note\">The " + std::to_string(shown.size()) + " longest of the last " +
                std::to_string(walls.size()) + " commands.</p>\n";
    return section("commands", "Commands", html);
}
