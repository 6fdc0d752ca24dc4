#pragma once

#include "kernel/profile/LiveHost.h"
#include "machine/MachineExport.h"
#include "machine/failures/RankSource.h"

#include <chrono>
#include <string>
#include <vector>

/// Tells again and again what the ranks of this host have done since the last look. One thread at a time.
class ORVEX_MACHINE_EXPORT HostWatch {
public:
    HostWatch(std::string host, const std::vector<RankSource::Process>& processes);

    /// @param withList  a line for each rank
    LiveHost look(bool withList);

private:
    using Clock = std::chrono::steady_clock;
    struct Look {
        Clock::time_point time;
        std::vector<RankSample> samples;
    };
    const Look* chooseBase(Clock::time_point now) const;

    const std::string _host;
    RankSource _source;
    std::vector<Look> _looks; ///< the older one first, at most two
};
