#include "client/TraceClock.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double SHORTEST_PIECE = 1.0; ///< [s] between moments: closer ones tell too little of the speed
constexpr double UNKNOWN_DRIFT = 2e-5; ///< of a speed that each host has measured for itself
constexpr double MAX_DRIFT = 1e-3;     ///< beyond, a moment can't be right

/// For differences of either sign.
double between(std::uint64_t from, std::uint64_t to) {
    return to >= from ? static_cast<double>(to - from) : -static_cast<double>(from - to);
}

} // namespace

TraceClock::TraceClock(const TraceData& trace) : _trace(trace) {
    const auto first = std::find_if(trace.ranks.begin(), trace.ranks.end(),
                                    [](const TraceData::Rank& rank) { return rank.answered; });
    if (first == trace.ranks.end())
        return;
    _base = first->begin;
    _rate = first->ticksPerSecond;
    _lines[first->host].points = {{_base, _base, 0}};
    for (const TraceData::Rank& rank : trace.ranks)
        if (rank.answered && !rank.clock.empty() && !_lines.contains(rank.host))
            _lines[rank.host] = makeLine(rank.clock, _rate / rank.ticksPerSecond);
    for (const TraceData::Rank& rank : trace.ranks) {
        if (!rank.answered)
            continue;
        if (!_lines.contains(rank.host)) {
            _lines[rank.host] = makeLine({{rank.begin, _base, 0}}, _rate / rank.ticksPerSecond);
            _unknownHosts.push_back(rank.host);
        }
        Line& line = _lines[rank.host];
        for (const std::uint64_t ticks : {rank.begin, rank.end})
            line.tolerance = std::max(line.tolerance, toleranceAt(line, ticks) / rank.ticksPerSecond * 1e9);
        _tolerance = std::max(_tolerance, line.tolerance * 1e-9);
    }
    settle();
}

void TraceClock::settle() {
    _origin = 0;
    std::int64_t origin = 0;
    bool isFirst = true;
    for (const TraceData::Rank& rank : _trace.ranks) {
        if (!rank.answered)
            continue;
        const std::int64_t begin = toNanoseconds(rank, rank.begin);
        origin = isFirst ? begin : std::min(origin, begin);
        isFirst = false;
    }
    _origin = origin;
}

std::int64_t TraceClock::move(const std::string& host, std::int64_t nanoseconds) {
    Line& line = _lines.at(host);
    const auto limit = static_cast<std::int64_t>(line.tolerance);
    line.moved = std::clamp(line.moved + nanoseconds, -limit, limit);
    return line.moved;
}

std::int64_t TraceClock::toNanoseconds(const TraceData::Rank& rank, std::uint64_t ticks) const {
    const auto line = _lines.find(rank.host);
    if (line == _lines.end())
        return 0;
    return std::llround(toMaster(line->second, ticks, _base) * 1e9 / _rate) + line->second.moved - _origin;
}

/// @param ratio  ticks of rank 0 for each tick of the host, as the hosts themselves know it
TraceClock::Line TraceClock::makeLine(const std::vector<TraceData::ClockPoint>& points, double ratio) {
    Line line;
    const double shortest = SHORTEST_PIECE * 1e9; // a tick is no longer than a nanosecond
    for (const TraceData::ClockPoint& point : points) {
        if (!line.points.empty()) {
            const TraceData::ClockPoint& last = line.points.back();
            const double own = between(last.own, point.own);
            if (own < shortest ||
                std::abs(between(last.master, point.master) / own / ratio - 1.0) > MAX_DRIFT)
                continue;
        }
        line.points.push_back(point);
    }
    const TraceData::ClockPoint& first = line.points.front();
    const TraceData::ClockPoint& last = line.points.back();
    line.slope = ratio;
    line.drift = UNKNOWN_DRIFT;
    if (line.points.size() > 1) {
        const double own = between(first.own, last.own);
        line.slope = between(first.master, last.master) / own;
        line.drift = static_cast<double>(first.tolerance + last.tolerance) / own;
    }
    return line;
}

/// @return from `origin` on [ticks of rank 0]
double TraceClock::toMaster(const Line& line, std::uint64_t ticks, std::uint64_t origin) {
    const auto next =
        std::upper_bound(line.points.begin(), line.points.end(), ticks,
                         [](std::uint64_t time, const auto& point) { return time < point.own; });
    const TraceData::ClockPoint& from = next == line.points.begin() ? *next : *(next - 1);
    double slope = line.slope;
    if (next != line.points.begin() && next != line.points.end())
        slope = between(from.master, next->master) / between(from.own, next->own);
    return between(origin, from.master) + between(from.own, ticks) * slope;
}

/// [own ticks]
double TraceClock::toleranceAt(const Line& line, std::uint64_t ticks) {
    const auto next =
        std::upper_bound(line.points.begin(), line.points.end(), ticks,
                         [](std::uint64_t time, const auto& point) { return time < point.own; });
    const TraceData::ClockPoint& before = next == line.points.begin() ? *next : *(next - 1);
    const TraceData::ClockPoint& after = next == line.points.end() ? before : *next;
    const double base = static_cast<double>(std::max(before.tolerance, after.tolerance));
    const bool isBetween = next != line.points.begin() && next != line.points.end();
    return isBetween ? base : base + std::abs(between(before.own, ticks)) * line.drift;
}
