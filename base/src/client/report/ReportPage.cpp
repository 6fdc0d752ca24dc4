#include "client/report/ReportPage.h"

#include "client/report/ReportAssets.h"
#include "client/report/ReportFigures.h"
#include "client/report/ReportSections.h"
#include "client/report/ReportText.h"
#include "client/report/ReportVerdict.h"

#include "platform/Base64Encoder.h"

#include <charconv>
#include <initializer_list>
#include <numeric>
#include <utility>

namespace {

using ReportText::escape;
using ReportText::fixed;

/// A source of a Content-Security-Policy that allows the text with this SHA-256 alone.
std::string hashSource(std::string_view hexadecimal) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hexadecimal.size(); i += 2) {
        unsigned byte = 0;
        std::from_chars(hexadecimal.data() + i, hexadecimal.data() + i + 2, byte, 16);
        bytes += static_cast<char>(byte);
    }
    return "'sha256-" + Base64Encoder::encode(std::string_view(bytes)) + "'";
}

std::string head(const std::string& title) {
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src " +
           hashSource(ReportAssets::STYLE_HASH) + "; script-src " + hashSource(ReportAssets::SCRIPT_HASH) +
           "; base-uri 'none'; form-action 'none'\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta name=\"color-scheme\" content=\"light dark\">\n<title>" +
           escape(title) + "</title>\n<style>" + std::string(ReportAssets::STYLE) +
           "</style></head>\n<body>\n";
}

/// Patterns beside the colours, for those who can't tell them apart and for print without colour.
constexpr const char* PATTERNS =
    "<svg width=\"0\" height=\"0\" class=\"hidden\" aria-hidden=\"true\"><defs>"
    "<pattern id=\"hatch\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\"><rect width=\"6\" "
    "height=\"6\" "
    "class=\"p2\"/><path d=\"M0 6L6 0\" class=\"p\"/></pattern>"
    "<pattern id=\"dots\" width=\"5\" height=\"5\" patternUnits=\"userSpaceOnUse\"><rect width=\"5\" "
    "height=\"5\" "
    "class=\"p3\"/><circle cx=\"2.5\" cy=\"2.5\" r=\"1\" class=\"d\"/></pattern></defs></svg>\n";

std::string titleOf(const ReportData& data) {
    std::string name = data.session.substr(data.session.rfind('/') + 1);
    if (name.empty())
        name = data.product.empty() ? "a job" : data.product;
    return "Profile of " + ReportText::shorten(name, 80);
}

void addFigure(std::string& html, const std::string& name, const std::string& value) {
    html += "<div><dt>" + name + "</dt><dd>" + value + "</dd></div>";
}

std::string figures(const ReportData& data) {
    std::string html;
    addFigure(html, "ranks", std::to_string(data.ranks));
    if (!data.hosts.empty())
        addFigure(html, "hosts", std::to_string(data.hosts.size()));
    if (data.seconds > 0.0)
        addFigure(html, "time in commands", ReportText::seconds(data.seconds));
    const std::vector<double> useful = ReportFigures::usefulTimes(data);
    if (data.ranks > 1 && data.seconds > 0.0 && !useful.empty()) {
        const ReportFigures::Efficiency all = ReportFigures::efficiencyOf(data.seconds, useful);
        addFigure(html, "parallel efficiency", fixed(all.getParallel(), 2));
        addFigure(html, "load balance", fixed(all.getLoadBalance(), 2));
        addFigure(html, "communication efficiency", fixed(all.getCommunication(), 2));
    }
    if (!data.peakMemory.empty()) {
        const ReportFigures::Spread memory = ReportFigures::spreadOf(data.peakMemory);
        addFigure(html, "peak memory, sum of the ranks", ReportText::bytes(memory.total));
        if (data.ranks > 1)
            addFigure(html, "peak memory of rank " + std::to_string(memory.maxRank),
                      ReportText::bytes(memory.max));
    }
    if (!data.bytes.empty())
        addFigure(html, "bytes in messages",
                  ReportText::bytes(std::accumulate(data.bytes.begin(), data.bytes.end(), 0.0)));
    return "<dl class=\"figures\">" + html + "</dl>\n";
}

std::string missing(const ReportData& data) {
    std::string html;
    for (const ReportVerdict::Missing& each : ReportVerdict::missing(data))
        html += "<li>" + escape(each.what) + ": <code>" + escape(each.command) + "</code></li>";
    return html.empty()
               ? ""
               : "<section id=\"missing\"><h2>Not measured</h2><p>Turn these on before the next command "
                 "to see more:</p><ul>" +
                     html + "</ul></section>\n";
}

/// Links to the sections that `content` has.
std::string links(const std::string& content) {
    std::string html;
    for (const auto& [id, name] :
         std::initializer_list<std::pair<const char*, const char*>>{{"balance", "Efficiency"},
                                                                    {"commands", "Commands"},
                                                                    {"events", "Events"},
                                                                    {"flame", "Flame graph"},
                                                                    {"messages", "Messages"},
                                                                    {"memory", "Memory"},
                                                                    {"hosts", "Hosts"},
                                                                    {"missing", "Not measured"},
                                                                    {"start", "Start"},
                                                                    {"settings", "Versions"}})
        if (content.find("<section id=\"" + std::string(id) + "\">") != std::string::npos)
            html += std::string("<a href=\"#") + id + "\">" + name + "</a> ";
    return "<nav>" + html + "</nav>\n";
}

std::string top(const ReportData& data) {
    std::string html = "<header><h1>" + escape(titleOf(data)) + "</h1>\n<p class=\"sub\">" +
                       escape(ReportText::shorten(data.product, 80)) +
                       (data.written > 0.0 ? " · " + ReportText::time(data.written) : "") +
                       "</p>\n<p class=\"verdict\">" + escape(ReportVerdict::sentence(data)) + "</p>\n";
    for (const std::string& warning : ReportVerdict::warnings(data))
        html +=
            "<p class=\"warning\"><b>⚠ Warning:</b> " + escape(ReportText::shorten(warning, 400)) + "</p>\n";
    return html + figures(data) + "</header>\n";
}

} // namespace

std::string ReportPage::make(const ReportData& data) {
    std::string content;
    for (const auto section : {ReportSections::balance, ReportSections::commands, ReportSections::events,
                               ReportSections::messages, ReportSections::memory, ReportSections::hosts})
        content += section(data);
    content += missing(data) + ReportSections::start(data) + ReportSections::settings(data);
    return head(titleOf(data)) + PATTERNS + "<main>\n" + top(data) + links(content) + content +
           "</main>\n<script>" + std::string(ReportAssets::SCRIPT) + "</script>\n</body></html>\n";
}
