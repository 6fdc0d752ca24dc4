#include "client/report/AffinityMap.h"

#include "client/report/ReportText.h"
#include "client/report/SvgPlot.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <vector>

namespace {

constexpr std::size_t MAX_PICTURES = 12;
constexpr std::size_t MAX_PROCESSORS = 1024; ///< in a picture
constexpr std::size_t MAX_NAMES = 6;         ///< of hosts that share a picture
constexpr double BOX = 34.0;                 ///< a processor
constexpr double GAP = 4.0;
constexpr std::size_t IN_ROW = 16; ///< cores beside each other

using Affinity = ReportData::Affinity;

/// The places of the processors of a host, by socket, NUMA node and core.
std::vector<std::size_t> inOrder(const Affinity& affinity) {
    std::vector<std::size_t> places(affinity.processors.size());
    for (std::size_t i = 0; i < places.size(); ++i)
        places[i] = i;
    std::stable_sort(places.begin(), places.end(), [&](std::size_t a, std::size_t b) {
        return std::tie(affinity.sockets[a], affinity.numa[a], affinity.cores[a], affinity.processors[a]) <
               std::tie(affinity.sockets[b], affinity.numa[b], affinity.cores[b], affinity.processors[b]);
    });
    return places;
}

/// The ranks of a host that may run on one processor but not on all of them, by the number of the processor.
/// As indices into the host's ranks.
std::map<long, std::vector<std::size_t>> boundRanks(const Affinity& affinity) {
    std::map<long, std::vector<std::size_t>> bound;
    for (std::size_t i = 0; i < affinity.ofRank.size(); ++i)
        if (affinity.ofRank[i].size() < affinity.processors.size() || affinity.processors.size() == 1)
            for (const long processor : affinity.ofRank[i])
                bound[processor].push_back(i);
    return bound;
}

std::size_t countFree(const Affinity& affinity) {
    return static_cast<std::size_t>(
        std::count_if(affinity.ofRank.begin(), affinity.ofRank.end(), [&](const auto& mask) {
            return mask.empty() ||
                   (affinity.processors.size() > 1 && mask.size() >= affinity.processors.size());
        }));
}

class Picture {
public:
    explicit Picture(const ReportData::Host& host)
        : _host(host), _affinity(host.affinity), _bound(boundRanks(host.affinity)) {}

    std::string toSvg() {
        const std::vector<std::size_t> places = inOrder(_affinity);
        for (std::size_t i = 0; i < std::min(places.size(), MAX_PROCESSORS);) {
            std::size_t end = i;
            while (end < places.size() && sameNode(places[i], places[end]))
                ++end;
            drawNode({places.begin() + static_cast<std::ptrdiff_t>(i),
                      places.begin() + static_cast<std::ptrdiff_t>(end)});
            i = end;
        }
        const std::string size = "width=\"" + SvgPlot::coordinate(_width) + "\" height=\"" +
                                 SvgPlot::coordinate(_y) + "\" viewBox=\"0 0 " + SvgPlot::coordinate(_width) +
                                 " " + SvgPlot::coordinate(_y) + "\"";
        return "<svg class=\"map\" role=\"img\" aria-label=\"Processors of " +
               ReportText::escape(_host.name) + "\" " + size + ">" + _svg + "</svg>";
    }

private:
    bool sameNode(std::size_t a, std::size_t b) const {
        return _affinity.sockets[a] == _affinity.sockets[b] && _affinity.numa[a] == _affinity.numa[b];
    }

    void drawNode(const std::vector<std::size_t>& places) {
        const double top = _y;
        const std::size_t first = places.front();
        _svg += SvgPlot::text(8.0, top + 15.0,
                              "socket " + std::to_string(_affinity.sockets[first]) + " · NUMA node " +
                                  std::to_string(_affinity.numa[first]),
                              "label");
        std::vector<std::vector<std::size_t>> cores;
        for (const std::size_t place : places) {
            if (cores.empty() || _affinity.cores[cores.back().front()] != _affinity.cores[place])
                cores.emplace_back();
            cores.back().push_back(place);
        }
        std::size_t deepest = 1; // processors of a core, one below the other
        for (const auto& core : cores)
            deepest = std::max(deepest, core.size());
        const double pitch = static_cast<double>(deepest) * BOX + 2.0 * GAP;
        for (std::size_t i = 0; i < cores.size(); ++i) {
            const std::size_t row = i / IN_ROW;
            drawCore(cores[i], 8.0 + static_cast<double>(i % IN_ROW) * (BOX + 2.0 * GAP + 2.0),
                     top + 22.0 + static_cast<double>(row) * pitch, deepest);
        }
        const std::size_t rows = (cores.size() + IN_ROW - 1) / IN_ROW;
        const double width =
            12.0 + static_cast<double>(std::min(cores.size(), IN_ROW)) * (BOX + 2.0 * GAP + 2.0);
        const double height = 24.0 + static_cast<double>(rows) * pitch;
        _svg += "<rect class=\"node\" x=\"1\" y=\"" + SvgPlot::coordinate(top + 1.0) + "\" width=\"" +
                SvgPlot::coordinate(std::max(width, 190.0)) + "\" height=\"" + SvgPlot::coordinate(height) +
                "\" rx=\"4\"/>";
        _width = std::max({_width, width + 4.0, 194.0});
        _y = top + height + 8.0;
    }

    void drawCore(const std::vector<std::size_t>& places, double x, double y, std::size_t deepest) {
        _svg += "<rect class=\"core\" x=\"" + SvgPlot::coordinate(x) + "\" y=\"" + SvgPlot::coordinate(y) +
                "\" width=\"" + SvgPlot::coordinate(BOX + 2.0 * GAP - 2.0) + "\" height=\"" +
                SvgPlot::coordinate(static_cast<double>(deepest) * BOX + GAP) + "\" rx=\"3\"/>";
        for (std::size_t i = 0; i < places.size(); ++i)
            drawProcessor(_affinity.processors[places[i]], x + GAP - 1.0,
                          y + 2.0 + static_cast<double>(i) * BOX);
    }

    void drawProcessor(long processor, double x, double y) {
        const auto found = _bound.find(processor);
        std::string kind = "idle";
        std::string words = "–";
        if (found != _bound.end()) {
            const std::size_t rank = _host.ranks[found->second.front()];
            const std::size_t count = found->second.size();
            kind = count > 1 ? "shared" : "h" + std::to_string(found->second.front() % 6 + 1);
            words = count > 1 ? "×" + std::to_string(count) : std::to_string(rank);
        }
        _svg += "<g class=\"cpu " + kind + "\"";
        if (found != _bound.end())
            _svg += " data-tip=\"" + ReportText::escape(factsOf(processor, found->second)) + "\"";
        _svg += "><rect x=\"" + SvgPlot::coordinate(x) + "\" y=\"" + SvgPlot::coordinate(y) +
                "\" width=\"32\" height=\"30\" rx=\"2\"/>" +
                SvgPlot::text(x + 16.0, y + 20.0, words, "rank middle") +
                SvgPlot::text(x + 2.0, y + 9.0, std::to_string(processor), "small") + "</g>";
    }

    std::string factsOf(long processor, const std::vector<std::size_t>& bound) const {
        constexpr std::size_t MAX_LISTED = 12;
        std::string facts = "processor " + std::to_string(processor) + ": rank";
        for (std::size_t i = 0; i < std::min(bound.size(), MAX_LISTED); ++i)
            facts += (i == 0 ? " " : ", ") + std::to_string(_host.ranks[bound[i]]);
        return facts + (bound.size() > MAX_LISTED ? ", ..." : "");
    }

    const ReportData::Host& _host;
    const Affinity& _affinity;
    std::map<long, std::vector<std::size_t>> _bound;
    double _width = 0.0;
    double _y = 0.0;
    std::string _svg;
};

using Key = std::tuple<std::vector<long>, std::vector<long>, std::vector<long>, std::vector<long>,
                       std::vector<std::vector<long>>>;

/// Hosts that are built and bound alike, in the order of the first of each group.
std::vector<std::vector<const ReportData::Host*>> groupsOf(const ReportData& data) {
    std::map<Key, std::size_t> known;
    std::vector<std::vector<const ReportData::Host*>> groups;
    for (const ReportData::Host& host : data.hosts) {
        const Affinity& a = host.affinity;
        if (a.processors.empty())
            continue;
        const auto [group, isNew] =
            known.emplace(Key{a.processors, a.cores, a.numa, a.sockets, a.ofRank}, groups.size());
        if (isNew)
            groups.emplace_back();
        groups[group->second].push_back(&host);
    }
    return groups;
}

std::string captionOf(const std::vector<const ReportData::Host*>& group) {
    const ReportData::Host& first = *group.front();
    std::string caption = "<b>" + ReportText::escape(ReportText::shorten(first.name, 60)) + "</b>, " +
                          std::to_string(first.affinity.processors.size()) + " processors, " +
                          std::to_string(first.ranks.size()) + " ranks";
    if (const std::size_t free = countFree(first.affinity))
        caption += "; " + std::to_string(free) + " of them may run on all processors";
    if (first.affinity.processors.size() > MAX_PROCESSORS)
        caption += "; the first nodes are shown";
    if (group.size() == 1)
        return caption;
    caption += ". " + std::to_string(group.size() - 1) + " more hosts are bound alike (the ranks of " +
               ReportText::escape(ReportText::shorten(first.name, 60)) + " are shown): ";
    for (std::size_t i = 1; i < std::min(group.size(), MAX_NAMES + 1); ++i)
        caption += (i > 1 ? ", " : "") + ReportText::escape(ReportText::shorten(group[i]->name, 60));
    return caption + (group.size() > MAX_NAMES + 1 ? ", …" : "");
}

} // namespace

std::string AffinityMap::toHtml(const ReportData& data) {
    const auto groups = groupsOf(data);
    std::string html;
    for (std::size_t i = 0; i < std::min(groups.size(), MAX_PICTURES); ++i)
        html += "<figure><figcaption>" + captionOf(groups[i]) + "</figcaption><div class=\"scroll\">" +
                Picture(*groups[i].front()).toSvg() + "</div></figure>\n";
    if (groups.size() > MAX_PICTURES)
        html += "<p class=\"note\">" + std::to_string(groups.size() - MAX_PICTURES) +
                " more kinds of hosts or bindings are not shown.</p>\n";
    return html;
}
