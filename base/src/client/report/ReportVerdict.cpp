#include "client/report/ReportVerdict.h"

#include "client/report/ReportFigures.h"
#include "client/report/ReportText.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <numeric>
#include <optional>

namespace {

constexpr const char* EVENTS_ON =
    "orvexctl ChangeEventLoggerManager type=timer, then orvexctl EnableEventLogging enableFlag=true";
constexpr const char* MESSAGES_ON = "orvexctl EnableMpiStatistics enableFlag=true";
constexpr const char* MEMORY_ON = "orvexctl EnableSystemMonitor enable=true";
constexpr std::size_t MAX_NAME = 80; ///< of an event or host in a sentence
constexpr std::size_t MAX_LISTED = 5;

std::string times(double factor) {
    return ReportText::fixed(factor, 1) + " times";
}

/// The event in which a rank spends more time than the others.
struct Place {
    std::string event;
    double factor = 1.0; ///< against the mean over the ranks
};

/// The event in which `rank` spends the most more than the mean. None when no event explains the excess.
std::optional<Place> placeOf(const ReportData& data, std::size_t rank, double excess) {
    std::optional<Place> found;
    double most = 0.1 * excess;
    for (const ReportFigures::EventTotal& event : ReportFigures::eventTotals(data)) {
        const double mean =
            std::accumulate(event.own.begin(), event.own.end(), 0.0) / static_cast<double>(event.own.size());
        if (mean > 0.0 && event.own[rank] - mean > most) {
            most = event.own[rank] - mean;
            found = Place{event.name, event.own[rank] / mean};
        }
    }
    return found;
}

/// The ranks that compute more than half the way from the mean to the maximum.
std::vector<std::size_t> busyRanks(const std::vector<double>& useful, const ReportFigures::Efficiency& all) {
    std::vector<std::size_t> busy;
    for (std::size_t rank = 0; rank < useful.size(); ++rank)
        if (useful[rank] > 0.5 * (all.usefulMean + all.usefulMax))
            busy.push_back(rank);
    return busy;
}

/// Whether `busy` are the ranks of one host, which has others beside it.
bool isOneHost(const ReportData& data, const std::vector<std::size_t>& busy) {
    if (busy.size() < 2 || data.rankHost.empty() || data.hosts.size() < 2)
        return false;
    const std::size_t host = data.rankHost[busy.front()];
    const auto onHost = [&](std::size_t rank) { return data.rankHost[rank] == host; };
    return std::all_of(busy.begin(), busy.end(), onHost) &&
           static_cast<std::size_t>(std::count(data.rankHost.begin(), data.rankHost.end(), host)) ==
               busy.size();
}

std::string subjectOf(const ReportData& data, const std::vector<std::size_t>& busy, std::size_t busiest) {
    if (busy.size() <= 1)
        return ReportVerdict::rankName(data, busiest) + " computes ";
    if (isOneHost(data, busy))
        return "The " + std::to_string(busy.size()) + " ranks of " +
               ReportText::shorten(data.hostOf(busiest), MAX_NAME) + " compute up to ";
    return std::to_string(busy.size()) + " ranks compute more than the others, " + "rank " +
           std::to_string(busiest) + (data.rankHost.empty() ? "" : " on " + data.hostOf(busiest)) + " ";
}

std::string imbalanceSentence(const ReportData& data, const std::vector<double>& useful,
                              const ReportFigures::Efficiency& all) {
    const std::size_t busiest = ReportFigures::greatest(useful, 1).front();
    const std::vector<std::size_t> busy = busyRanks(useful, all);
    const auto place = placeOf(data, busiest, all.usefulMax - all.usefulMean);
    double waiting = 0.0;
    std::size_t others = 0;
    for (std::size_t rank = 0, next = 0; rank < useful.size(); ++rank) {
        if (next < busy.size() && busy[next] == rank) {
            ++next;
            continue;
        }
        waiting += data.seconds - useful[rank];
        ++others;
    }
    std::string text = subjectOf(data, busy, busiest) +
                       times(place ? place->factor : all.usefulMax / all.usefulMean) + " the mean";
    if (place)
        text += " in " + ReportText::shorten(place->event, MAX_NAME);
    text += "; the others wait " + ReportText::percent(waiting / static_cast<double>(others) / data.seconds) +
            " of the time.";
    if (!data.hasEvents)
        text += std::string(" To see in which event, turn the time profile on: ") + EVENTS_ON;
    return text;
}

std::string waitingSentence(const ReportData& data, const ReportFigures::Efficiency& all) {
    std::string text = "All ranks wait: on average " + ReportText::percent(1.0 - all.getParallel()) +
                       " of the time, and the rank that computes most still " +
                       ReportText::percent(1.0 - all.getCommunication()) +
                       ". The messages cost this time, or a load that moves between the ranks.";
    std::string name;
    double most = 0.0;
    for (const ReportData::Operation& operation : data.operations) {
        const double seconds = std::accumulate(operation.seconds.begin(), operation.seconds.end(), 0.0);
        if (seconds > most) {
            most = seconds;
            name = operation.name;
        }
    }
    if (!name.empty())
        return text + " Most of it passes in " + ReportText::shorten(name, MAX_NAME) + ".";
    return data.hasMessages ? text
                            : text + " To see in which operation, turn the statistics on: " + MESSAGES_ON;
}

std::string quietSentence(const ReportData& data, const ReportFigures::Efficiency& all) {
    std::string text = data.ranks == 1
                           ? "One process runs alone: there is no balance between ranks to look at."
                           : "Nothing stands out: the " + std::to_string(data.ranks) + " ranks compute " +
                                 ReportText::percent(all.getParallel()) +
                                 " of the time, and the load balance is " +
                                 ReportText::fixed(all.getLoadBalance(), 2) + ".";
    const std::vector<ReportFigures::EventTotal> events = ReportFigures::eventTotals(data);
    if (!events.empty())
        text += " The event with the most time of its own is " +
                ReportText::shorten(events.front().name, MAX_NAME) + ".";
    return text;
}

bool containsWord(std::string text, const char* word) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text.find(word) != std::string::npos;
}

void warnOfHosts(const ReportData& data, std::vector<std::string>& warnings) {
    std::size_t full = 0;
    std::string first;
    for (const ReportData::Host& host : data.hosts)
        if (host.cores > 0.0 && static_cast<double>(host.ranks.size()) > host.cores && ++full == 1)
            first = ReportText::shorten(host.name, MAX_NAME) + " has " + std::to_string(host.ranks.size()) +
                    " ranks on " + ReportText::fixed(host.cores, 0) + " cores";
    if (full > 0)
        warnings.push_back("Too many ranks: " + first +
                           (full > 1 ? ", and " + std::to_string(full - 1) + " more hosts are as full" : "") +
                           ". The ranks take the cores from each other, so times tell little.");
}

/// Two ranks that may run on one and the same processor only.
void warnOfBindings(const ReportData& data, std::vector<std::string>& warnings) {
    std::size_t count = 0;
    for (const ReportData::Host& host : data.hosts) {
        std::map<long, std::size_t> owners;
        for (std::size_t i = 0; i < host.affinity.ofRank.size(); ++i) {
            if (host.affinity.ofRank[i].size() != 1)
                continue;
            const long processor = host.affinity.ofRank[i].front();
            const auto [owner, isNew] = owners.emplace(processor, host.ranks[i]);
            if (!isNew && ++count <= MAX_LISTED)
                warnings.push_back("Ranks " + std::to_string(owner->second) + " and " +
                                   std::to_string(host.ranks[i]) + " on " +
                                   ReportText::shorten(host.name, MAX_NAME) +
                                   " are bound to the same processor, " + std::to_string(processor) + ".");
        }
    }
    if (count > MAX_LISTED)
        warnings.push_back(std::to_string(count - MAX_LISTED) +
                           " more ranks share the only processor that they are bound to.");
}

} // namespace

std::string ReportVerdict::rankName(const ReportData& data, std::size_t rank) {
    const std::string host = ReportText::shorten(data.hostOf(rank), MAX_NAME);
    return "Rank " + std::to_string(rank) + (host.empty() ? "" : " on " + host);
}

std::string ReportVerdict::sentence(const ReportData& data) {
    const std::vector<double> useful = ReportFigures::usefulTimes(data);
    const ReportFigures::Efficiency all = ReportFigures::efficiencyOf(data.seconds, useful);
    if (!(data.seconds > 0.0))
        return "The profile covers no time: no command has run yet.";
    if (data.ranks > 1 && useful.empty())
        return "The profile doesn't tell how long the ranks waited, so it can't tell how well they work "
               "together.";
    if (data.ranks == 1 || all.getParallel() >= GOOD || !(all.usefulMean > 0.0))
        return all.usefulMean > 0.0 ? quietSentence(data, all) : waitingSentence(data, all);
    return all.getLoadBalance() <= all.getCommunication() ? imbalanceSentence(data, useful, all)
                                                          : waitingSentence(data, all);
}

std::vector<std::string> ReportVerdict::warnings(const ReportData& data) {
    std::vector<std::string> warnings = data.warnings;
    if (warnings.empty() && (containsWord(data.build, "sanitizer") || containsWord(data.build, "debug")))
        warnings.push_back("The build makes these times longer, and not evenly: " +
                           ReportText::shorten(data.build, MAX_NAME));
    if (data.warnings.empty())
        warnOfHosts(data, warnings);
    warnOfBindings(data, warnings);
    const auto failed = std::count_if(data.bills.begin(), data.bills.end(),
                                      [](const ReportData::Bill& bill) { return bill.failed; });
    if (failed > 0)
        warnings.push_back(std::to_string(failed) + (failed == 1 ? " command" : " commands") +
                           " failed: the table of commands marks them.");
    return warnings;
}

std::vector<ReportVerdict::Missing> ReportVerdict::missing(const ReportData& data) {
    std::vector<Missing> list;
    if (!data.hasEvents && data.events.empty())
        list.push_back({"The time of each event by rank, and the flame graph", EVENTS_ON});
    if (!data.hasMessages && data.operations.empty() && data.ranks > 1)
        list.push_back({"The messages by operation, size and partner", MESSAGES_ON});
    if (!data.hasMemory && data.memoryOfHosts.empty())
        list.push_back({"The memory of each host over time", MEMORY_ON});
    return list;
}
