#pragma once

#include "kernel/profile/LiveRank.h"
#include "machine/MachineExport.h"

#include <cstdint>
#include <optional>
#include <string>

/// The counters of a rank at one moment, as others on its host read them. A value type.
struct ORVEX_MACHINE_EXPORT RankSample {
    struct Command {
        std::string name;
        double seconds = 0.0; ///< since it began [s]
        // The values at its begin.
        double processorSeconds = 0.0;
        long long memory = 0; ///< [bytes]
        // Since then.
        double waitSeconds = 0.0;
        std::uint64_t operations = 0;
        std::uint64_t bytes = 0;
    };

    unsigned rank = 0;
    int pid = 0;
    LiveRank::State state = LiveRank::DEAD; ///< never WAITS: that is told by isInside
    double processorSeconds = 0.0;          ///< of all threads since the process began
    long long memory = 0;                   ///< [bytes] resident
    bool hasProfile = false;                ///< all below is known
    bool isInside = false;                  ///< in an operation of the message layer
    std::string operation;                  ///< that one
    double operationSeconds = 0.0;          ///< since it began; 0 when it never waits [s]
    double waitSeconds = 0.0;               ///< in operations that may wait, with the one that is open [s]
    std::optional<Command> command;         ///< the outermost one

    /// @param before   of the same rank; null: its shares aren't known
    /// @param seconds  between both
    LiveRank toLive(const RankSample* before, double seconds) const;
};
