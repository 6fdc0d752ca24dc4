#include "machine/failures/HostWatch.h"

#include "platform/ProcessUse.h"

#include <utility>

namespace {

constexpr std::chrono::duration<double> SHORTEST{0.08}; ///< that tells anything: several clients may look
constexpr std::chrono::duration<double> LONGEST{60.0};  ///< an older look is of another time

} // namespace

HostWatch::HostWatch(std::string host, const std::vector<RankSource::Process>& processes)
    : _host(std::move(host)), _source(processes) {}

/// The newest look that isn't too new.
const HostWatch::Look* HostWatch::chooseBase(Clock::time_point now) const {
    for (auto look = _looks.rbegin(); look != _looks.rend(); ++look)
        if (now - look->time >= SHORTEST && now - look->time <= LONGEST)
            return &*look;
    return nullptr;
}

LiveHost HostWatch::look(bool withList) {
    Look now{Clock::now(), _source.read()};
    const Look* const base = chooseBase(now.time);
    const double seconds = base ? std::chrono::duration<double>(now.time - base->time).count() : 0.0;
    std::vector<LiveRank> ranks;
    ranks.reserve(now.samples.size());
    for (std::size_t i = 0; i < now.samples.size(); ++i)
        ranks.push_back(now.samples[i].toLive(base ? &base->samples[i] : nullptr, seconds));
    LiveHost host = LiveHost::fold(_host, ranks, seconds);
    const Platform::HostUse use = Platform::HostUse::read();
    host.load = use.load;
    host.processors = use.processors;
    host.hostMemory = use.memory;
    host.freeMemory = use.freeMemory;
    if (withList)
        host.list = std::move(ranks);
    if (_looks.empty() || now.time - _looks.back().time >= SHORTEST) {
        if (_looks.size() == 2)
            _looks.erase(_looks.begin());
        _looks.push_back(std::move(now));
    }
    return host;
}
