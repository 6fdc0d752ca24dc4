#pragma once

#include "machine/MachineExport.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class Properties;
class TimeLoggerManager;

/// The part "events" of a profile: the calls of all ranks, each with its counts and times by rank.
class ORVEX_MACHINE_EXPORT ProfileCalls {
public:
    /// Numbers that the list may hold: calls times ranks. It keeps the answer of the server below its limit.
    static constexpr std::size_t MAX_NUMBERS = 4'000'000;

    /// A call that stands in the list.
    struct Call {
        std::size_t key = 0; ///< its place in the sorted keys
        std::string name;
        int parent = -1; ///< its place in the list
        bool isPlaced = true;
    };

    /// The list for these calls. A call whose parent is left out is left out, too.
    /// @param keys   sorted keys of CallPaths
    /// @param sums   [s] of each, over all ranks
    /// @param limit  the number of calls in the list; those with the largest sums stay
    static std::vector<Call> choose(const std::vector<std::string>& keys, const std::vector<double>& sums,
                                    std::size_t limit);
    /// The part as the serial or master process writes it; empty on the others. The master holds the numbers
    /// of one call at a time, beside the part itself. Collective over the job, main thread.
    /// @param manager  null when this process measures no times
    static Properties gather(const TimeLoggerManager* manager, std::size_t maxNumbers = MAX_NUMBERS);
};
