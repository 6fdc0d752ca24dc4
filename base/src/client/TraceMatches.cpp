#include "client/TraceMatches.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

using TraceLayout::Record;

namespace {

constexpr std::size_t MAX_COMPARED_HOSTS = 16; ///< of one collective, each with each
constexpr std::size_t MAX_ROUNDS = 100;        ///< a host's time moves those that depend on it

bool isCollective(const Record& record) {
    return record.kind >= TraceLayout::COLLECTIVE && record.kind <= TraceLayout::COLLECTIVE_TO_ROOT;
}

/// Partners are told by their ranks in the communicator: these are known in those that hold all ranks.
bool hasAllRanks(const TraceData::Rank& rank, const Record& record) {
    const std::string& communicator = rank.name(record.communicator);
    return communicator.starts_with("global") || communicator.starts_with("command");
}

/// Of messages that are received in the order in which they were sent.
using Way = std::array<std::uint32_t, 5>; // communicator, epoch, source, destination, tag

} // namespace

TraceMatches::TraceMatches(const TraceData& trace, TraceClock& clock) : _trace(trace), _clock(clock) {
    matchCollectives();
    matchMessages();
    adjust();
    countBreaches();
}

void TraceMatches::matchCollectives() {
    std::map<std::array<std::uint32_t, 3>, std::vector<Place>> collectives;
    for (std::size_t rank = 0; rank < _trace.ranks.size(); ++rank) {
        const std::vector<Record>& records = _trace.ranks[rank].records;
        for (std::size_t i = 0; i < records.size(); ++i)
            if (isCollective(records[i]) && records[i].flags == 0 && records[i].group != 0)
                collectives[{records[i].group, records[i].epoch, records[i].number}].push_back({rank, i});
    }
    for (auto& [key, places] : collectives)
        joinCollective(places);
}

void TraceMatches::joinCollective(std::vector<Place>& places) {
    for (std::size_t i = 1; i < places.size(); ++i)
        if (places[i].rank == places[i - 1].rank || at(places[i]).kind != at(places[0]).kind)
            return; // not one collective
    if (places.size() < 2)
        return;
    ++_collectives;
    std::sort(places.begin(), places.end(),
              [this](const Place& a, const Place& b) { return end(a) < end(b); });
    const auto last = std::max_element(
        places.begin(), places.end(), [this](const Place& a, const Place& b) { return begin(a) < begin(b); });
    checkCollective(places, *last);
    if (!hasAllRanks(_trace.ranks[last->rank], at(*last)))
        return;
    Flow flow{true, *last, {}};
    for (const Place& place : places)
        if (place.rank != last->rank)
            flow.to.push_back(place);
    addFlow(std::move(flow));
}

/// @param places  in the order of their ends
void TraceMatches::checkCollective(const std::vector<Place>& places, const Place& last) {
    const Record& first = at(places.front());
    if (first.kind == TraceLayout::COLLECTIVE_MEETING)
        return checkMeeting(places, last);
    if (first.kind == TraceLayout::COLLECTIVE || first.partner < 0 ||
        !hasAllRanks(_trace.ranks[places.front().rank], first))
        return;
    const auto root = std::find_if(places.begin(), places.end(), [&](const Place& place) {
        return _trace.ranks[place.rank].rank == static_cast<unsigned>(first.partner);
    });
    if (root == places.end())
        return;
    const bool isFromRoot = first.kind == TraceLayout::COLLECTIVE_FROM_ROOT;
    for (const Place& place : places)
        if (place.rank != root->rank)
            depend(isFromRoot ? place : *root, isFromRoot ? *root : place);
}

/// The first end on a host needs the last begin on each other one.
void TraceMatches::checkMeeting(const std::vector<Place>& places, const Place& last) {
    struct Bounds {
        Place end;
        Place begin;
    };
    std::map<std::string_view, Bounds> hosts;
    for (const Place& place : places) {
        Bounds& bounds = hosts.try_emplace(_trace.ranks[place.rank].host, Bounds{place, place}).first->second;
        bounds.begin = begin(place) > begin(bounds.begin) ? place : bounds.begin;
    }
    depend(places.front(), last);
    if (hosts.size() > MAX_COMPARED_HOSTS)
        return;
    for (const auto& [host, bounds] : hosts)
        for (const auto& [otherHost, other] : hosts)
            if (host != otherHost)
                depend(bounds.end, other.begin);
}

/// Moves the times of hosts as far as their tolerances allow, so that no end comes before the begin it needs.
void TraceMatches::adjust() {
    std::map<std::pair<std::string, std::string>, std::int64_t> needs; // by which the first is to rise
    for (const auto& [later, earlier] : _dependences) {
        const std::string& host = _trace.ranks[later.rank].host;
        const std::string& other = _trace.ranks[earlier.rank].host;
        if (host == other)
            continue;
        const std::int64_t need = begin(earlier) - end(later);
        std::int64_t& most = needs.try_emplace({host, other}, need).first->second;
        most = std::max(most, need);
    }
    std::map<std::string, std::int64_t> moved;
    bool isSettled = needs.empty();
    for (std::size_t round = 0; round < MAX_ROUNDS && !isSettled; ++round) {
        isSettled = true;
        for (const auto& [hosts, need] : needs) {
            const std::int64_t lack = need - moved[hosts.first] + moved[hosts.second];
            if (lack <= 0)
                continue;
            const bool isFixed = hosts.first == _trace.ranks.front().host;
            const std::string& host = isFixed ? hosts.second : hosts.first;
            const std::int64_t now = _clock.move(host, isFixed ? -lack : lack);
            isSettled = now == std::exchange(moved[host], now) && isSettled;
        }
    }
    _clock.settle();
}

void TraceMatches::countBreaches() {
    for (const auto& [later, earlier] : _dependences)
        if (end(later) < begin(earlier))
            ++_violations;
}

/// Messages of commands that began within the span of both ranks: of others the first ones may be missing.
void TraceMatches::matchMessages() {
    std::map<Way, std::vector<Place>> sends;
    std::map<Way, std::vector<Place>> receives;
    std::set<Way> unsure;
    for (std::size_t i = 0; i < _trace.ranks.size(); ++i) {
        const TraceData::Rank& rank = _trace.ranks[i];
        std::vector<std::size_t> order(rank.records.size());
        for (std::size_t k = 0; k < order.size(); ++k)
            order[k] = k;
        std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return rank.records[a].begin < rank.records[b].begin;
        });
        for (const std::size_t k : order) {
            const Record& record = rank.records[k];
            const auto partner = static_cast<std::uint32_t>(record.partner);
            const bool isSend = record.kind == TraceLayout::SEND || record.kind == TraceLayout::BEGIN_SEND;
            const bool isReceive =
                record.kind == TraceLayout::RECEIVE || record.kind == TraceLayout::BEGIN_RECEIVE;
            if ((!isSend && !isReceive) || record.epoch == rank.epoch || !hasAllRanks(rank, record))
                continue;
            const Way way = isSend ? Way{record.group, record.epoch, rank.rank, partner, record.tag}
                                   : Way{record.group, record.epoch, partner, rank.rank, record.tag};
            if (record.flags != 0 || record.partner < 0)
                unsure.insert(way);
            (isSend ? sends : receives)[way].push_back({i, k});
        }
    }
    for (const auto& each : sends) {
        const Way& way = each.first; // clang takes no structured binding into a lambda
        const auto received = receives.find(way);
        const Way fromAny{way[0], way[1], static_cast<std::uint32_t>(-1), way[3], way[4]};
        const auto isMember = [&](std::uint32_t number) {
            return number < _trace.ranks.size() && way[1] != _trace.ranks[number].epoch;
        };
        if (received != receives.end() && received->second.size() == each.second.size() &&
            !unsure.contains(way) && !unsure.contains(fromAny) && isMember(way[2]) && isMember(way[3]))
            joinMessages(each.second, received->second);
    }
}

/// A receive that was only begun ends with the requests of its stack.
void TraceMatches::joinMessages(const std::vector<Place>& sends, const std::vector<Place>& receives) {
    for (std::size_t i = 0; i < sends.size(); ++i) {
        Place to = receives[i];
        if (at(to).kind == TraceLayout::BEGIN_RECEIVE) {
            const std::vector<Record>& records = _trace.ranks[to.rank].records;
            const Record& receive = at(to);
            std::size_t next = to.record + 1; // records stand in the order of their ends
            while (next < records.size() && (records[next].kind != TraceLayout::COMPLETE ||
                                             records[next].requests != receive.requests))
                ++next;
            if (next == records.size() || records[next].flags != 0)
                continue;
            to.record = next;
        }
        ++_messages;
        depend(to, sends[i]);
        addFlow({false, sends[i], {to}});
    }
}

void TraceMatches::addFlow(Flow flow) {
    if (_trace.ranks.size() > MAX_FLOW_RANKS || _flowPlaces + flow.to.size() + 1 > MAX_FLOWS)
        return;
    _flowPlaces += flow.to.size() + 1;
    _flows.push_back(std::move(flow));
}

const Record& TraceMatches::at(const Place& place) const {
    return _trace.ranks[place.rank].records[place.record];
}

std::int64_t TraceMatches::begin(const Place& place) const {
    return _clock.toNanoseconds(_trace.ranks[place.rank], at(place).begin);
}

std::int64_t TraceMatches::end(const Place& place) const {
    return _clock.toNanoseconds(_trace.ranks[place.rank], at(place).end);
}
