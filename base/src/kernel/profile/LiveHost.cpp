#include "kernel/profile/LiveHost.h"

#include "kernel/profile/LiveKeys.h"

#include <algorithm>
#include <cmath>

namespace {

/// The median; 0 of nothing.
double medianOf(std::vector<double> values) {
    if (values.empty())
        return 0.0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

template <class Get>
double medianOf(const std::vector<LiveRank>& ranks, Get get) {
    std::vector<double> values;
    for (const LiveRank& rank : ranks)
        if (rank.isAlive())
            values.push_back(get(rank));
    return medianOf(std::move(values));
}

/// The figures by their keys, so that all ways treat the same ones.
constexpr std::array<std::pair<const char*, LiveFigure LiveHost::*>, 8> FIGURES{{
    {"processorShare", &LiveHost::processorShare},
    {"waitShare", &LiveHost::waitShare},
    {"memory", &LiveHost::memory},
    {"processor", &LiveHost::processor},
    {"waiting", &LiveHost::waiting},
    {"messages", &LiveHost::messages},
    {"bytes", &LiveHost::bytes},
    {"addedMemory", &LiveHost::addedMemory},
}};

std::vector<Properties> toList(const std::vector<LiveRank>& ranks) {
    std::vector<Properties> list;
    list.reserve(ranks.size());
    for (const LiveRank& rank : ranks)
        list.push_back(rank.toProperties());
    return list;
}

void readList(const Properties& properties, const char* key, std::vector<LiveRank>& ranks) {
    std::vector<Properties> list;
    LiveKeys::read(properties, key, list);
    for (const Properties& rank : list)
        ranks.push_back(LiveRank::fromProperties(rank));
}

/// The most frequent first.
std::vector<std::pair<std::string, unsigned>> sorted(const std::map<std::string, unsigned>& operations) {
    std::vector<std::pair<std::string, unsigned>> list(operations.begin(), operations.end());
    std::stable_sort(list.begin(), list.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    return list;
}

} // namespace

LiveHost LiveHost::fold(const std::string& name, const std::vector<LiveRank>& ranks, double seconds) {
    LiveHost host;
    host.name = name;
    host.seconds = seconds;
    for (const LiveRank& rank : ranks)
        host.addRank(rank);
    host.findOdd(ranks);
    return host;
}

LiveHost LiveHost::makeSilent(const std::string& name, const std::vector<unsigned>& ranks,
                              const std::string& reason) {
    LiveHost host;
    host.name = name;
    host.silence = reason;
    host.ranks = static_cast<unsigned>(ranks.size());
    host.states[LiveRank::SILENT] = host.ranks;
    return host;
}

void LiveHost::addRank(const LiveRank& rank) {
    ++ranks;
    ++states.at(rank.state);
    if (!rank.isAlive())
        return;
    ++operations[rank.operation.empty() ? OUTSIDE : rank.operation];
    if (rank.processorShare >= 0.0)
        processorShare.add(rank.processorShare, rank.rank);
    if (rank.waitShare >= 0.0)
        waitShare.add(rank.waitShare, rank.rank);
    memory.add(static_cast<double>(rank.memory), rank.rank);
    if (rank.command.empty())
        return;
    if (command.empty())
        command = rank.command;
    commandSeconds = std::max(commandSeconds, rank.commandSeconds);
    processor.add(rank.processor, rank.rank);
    waiting.add(rank.waiting, rank.rank);
    messages.add(static_cast<double>(rank.messages), rank.rank);
    bytes.add(static_cast<double>(rank.bytes), rank.rank);
    addedMemory.add(static_cast<double>(rank.addedMemory), rank.rank);
}

void LiveHost::add(const LiveHost& other) {
    ranks += other.ranks;
    seconds = std::max(seconds, other.seconds);
    for (const auto& [key, figure] : FIGURES)
        (this->*figure).add(other.*figure);
    for (std::size_t state = 0; state < states.size(); ++state)
        states[state] += other.states[state];
    for (const auto& [operation, count] : other.operations)
        operations[operation] += count;
    if (command.empty())
        command = other.command;
    commandSeconds = std::max(commandSeconds, other.commandSeconds);
}

std::pair<std::string, unsigned> LiveHost::getMostCommon() const {
    const auto frequent = sorted(operations);
    return frequent.empty() ? std::pair<std::string, unsigned>() : frequent.front();
}

std::optional<unsigned> LiveHost::getSlowest() const {
    if (command.empty() || waitShare.count < 2 || waitShare.meanWithoutMin() - waitShare.min < CLEARLY)
        return std::nullopt;
    return waitShare.minRank;
}

/// Those that don't live as they should, and those whose waiting, processor time or memory stands out.
void LiveHost::findOdd(const std::vector<LiveRank>& all) {
    const double waits = medianOf(all, [](const LiveRank& rank) { return rank.waitShare; });
    const double works = medianOf(all, [](const LiveRank& rank) { return rank.processorShare; });
    const double holds = medianOf(all, [](const LiveRank& rank) { return static_cast<double>(rank.memory); });
    std::vector<std::pair<double, const LiveRank*>> found;
    for (const LiveRank& rank : all) {
        double oddness = 0.0;
        if (rank.state == LiveRank::DEAD || rank.state == LiveRank::STOPPED)
            oddness = 100.0;
        else if (rank.isAlive())
            oddness = std::max({waits - rank.waitShare, (rank.waitShare - waits) / 2.0,
                                std::abs(works - rank.processorShare) / 2.0,
                                holds > 0.0 ? (static_cast<double>(rank.memory) / holds - 1.0) / 2.0 : 0.0});
        if (oddness >= CLEARLY)
            found.emplace_back(oddness, &rank);
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    for (std::size_t i = 0; i < std::min(found.size(), MAX_ODD); ++i)
        odd.push_back(*found[i].second);
}

Properties LiveHost::toProperties() const {
    Properties properties;
    properties.set("name", name);
    properties.set("ranks", ranks);
    properties.set("silence", silence);
    properties.set("seconds", seconds);
    Properties counts;
    for (std::size_t state = 0; state < states.size(); ++state)
        if (states[state] > 0)
            counts.set(LiveRank::nameOf(static_cast<LiveRank::State>(state)), states[state]);
    properties.set("states", counts);
    Properties common;
    const auto frequent = sorted(operations);
    for (std::size_t i = 0; i < std::min(frequent.size(), MAX_OPERATIONS); ++i)
        common.set(frequent[i].first, frequent[i].second);
    properties.set("operations", common);
    properties.set("command", command);
    properties.set("commandSeconds", commandSeconds);
    for (const auto& [key, figure] : FIGURES)
        if ((this->*figure).count > 0)
            properties.set(key, (this->*figure).toProperties());
    if (processors > 0) {
        properties.set("load", load);
        properties.set("processors", processors);
        properties.set("hostMemory", hostMemory);
        properties.set("freeMemory", freeMemory);
    }
    if (!odd.empty())
        properties.set("odd", toList(odd));
    if (!list.empty())
        properties.set("list", toList(list));
    return properties;
}

LiveHost LiveHost::fromProperties(const Properties& properties) {
    LiveHost host;
    LiveKeys::read(properties, "name", host.name);
    LiveKeys::read(properties, "ranks", host.ranks);
    LiveKeys::read(properties, "silence", host.silence);
    LiveKeys::read(properties, "seconds", host.seconds);
    Properties counts;
    LiveKeys::read(properties, "states", counts);
    for (std::size_t state = 0; state < host.states.size(); ++state)
        LiveKeys::read(counts, LiveRank::nameOf(static_cast<LiveRank::State>(state)), host.states[state]);
    Properties common;
    LiveKeys::read(properties, "operations", common);
    for (const std::string& operation : common.getNames())
        LiveKeys::read(common, operation, host.operations[operation]);
    LiveKeys::read(properties, "command", host.command);
    LiveKeys::read(properties, "commandSeconds", host.commandSeconds);
    for (const auto& [key, figure] : FIGURES) {
        Properties values;
        LiveKeys::read(properties, key, values);
        host.*figure = LiveFigure::fromProperties(values);
    }
    LiveKeys::read(properties, "load", host.load);
    LiveKeys::read(properties, "processors", host.processors);
    LiveKeys::read(properties, "hostMemory", host.hostMemory);
    LiveKeys::read(properties, "freeMemory", host.freeMemory);
    readList(properties, "odd", host.odd);
    readList(properties, "list", host.list);
    return host;
}
