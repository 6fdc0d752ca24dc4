#pragma once

#include "kernel/KernelExport.h"
#include "kernel/profile/LiveHost.h"

#include <string>
#include <vector>

/// The answer of `server.live`: the hosts of a job, and all of them together. A value type.
struct ORVEX_KERNEL_EXPORT LiveJob {
    std::vector<LiveHost> hosts; ///< in the order of their first ranks
    LiveHost total;              ///< without a name
    bool isListed = false;       ///< each rank that was asked for has a line, not only the odd ones

    static LiveJob fold(std::vector<LiveHost> hosts);
    /// The host whose own extreme of the figure is `rank`; null when there is none.
    const LiveHost* findHostOf(unsigned rank, LiveFigure LiveHost::*figure, bool ofMax) const;

    /// "slowest" (the rank for which the others wait) and "mostMemory" are told besides what the object
    /// holds.
    Properties toProperties() const;
    static LiveJob fromProperties(const Properties& properties);
};
