#pragma once

#include "machine/MachineExport.h"

#include <cstddef>

class MemoryHistory;
class Properties;

/// The part "memory" of a profile: the resident memory of the ranks of each host over time.
class ORVEX_MACHINE_EXPORT ProfileMemory {
public:
    /// A common grid of times: step, 2 step, ..., rows * step.
    struct Grid {
        double step = 0.0; ///< [s]
        std::size_t rows = 0;
    };
    static constexpr std::size_t MAX_TIMES = 400;
    /// Hosts times times in all.
    static constexpr std::size_t MAX_CELLS = 100'000;

    /// @param longestStep  [s] the longest time between two samples of a process
    /// @param shortestEnd  [s] when the shortest history ends
    static Grid chooseGrid(double longestStep, double shortestEnd, std::size_t hosts);
    /// The part as the serial or master process writes it; empty on the others. Collective over the job, main
    /// thread.
    /// @param history  of this process; null when its monitor is off
    static Properties gather(const MemoryHistory* history);
};
