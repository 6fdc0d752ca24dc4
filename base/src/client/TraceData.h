#pragma once

#include "kernel/profile/TraceLayout.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// A trace as the ranks gave it.
struct TraceData {
    /// Two clocks at one moment.
    struct ClockPoint {
        std::uint64_t own = 0;       ///< [ticks]
        std::uint64_t master = 0;    ///< [ticks of rank 0]
        std::uint64_t tolerance = 0; ///< [own ticks]
    };
    struct Rank {
        unsigned rank = 0;
        std::string host;
        unsigned pid = 0;
        bool answered = false;   ///< the following is known
        std::uint64_t begin = 0; ///< of the span [ticks]
        std::uint64_t end = 0;   ///< [ticks]
        std::uint32_t epoch = 0; ///< at the begin
        double ticksPerSecond = 1.0;
        std::size_t dropped = 0;       ///< records that aren't here: the last ones
        std::vector<ClockPoint> clock; ///< of the first rank of another host than rank 0's
        std::vector<std::string> names;
        std::vector<TraceLayout::Record> records;

        const std::string& name(std::uint32_t number) const {
            static const std::string UNKNOWN = "(unknown)";
            return number < names.size() ? names[number] : UNKNOWN;
        }
    };

    std::string product;
    std::string session;
    std::vector<Rank> ranks; ///< in their order
};
