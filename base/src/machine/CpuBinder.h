#pragma once

#include "machine/MachineExport.h"

class AffinityMask;
class CpuTopology;

/// How processes are placed on processors.
enum CpuBindingPolicy : int {
    BANDWIDTH_BINDING = 0, ///< spread over sockets and NUMA nodes, each on a core of its own
    LATENCY_BINDING = 1,   ///< packed onto the lowest cores, each on one of its own
    LEAST_LOAD_BINDING = 2 ///< each where the operating system has put it
};

/// Decides on which processor a process runs, and binds it there. Local, main thread.
class ORVEX_MACHINE_EXPORT CpuBinder {
public:
    /// Binds the calling process to one logical processing unit.
    ///
    /// BANDWIDTH_BINDING spreads the processes of a host over sockets and NUMA nodes, LATENCY_BINDING packs
    /// them onto the lowest cores, both one for each physical core as long as there are free ones;
    /// LEAST_LOAD_BINDING leaves each where it runs now. All processes of a host compute the same choice and
    /// take their own element, so no message is needed; more processes than elements go round.
    /// @param processRank      among the processes of the job on this host, from 0
    /// @param numberProcesses  of the job on this host
    /// @param availableMask    the processors to choose from, with as many physical cores as processes
    /// @return whether the operating system agreed; false also when there is nothing to choose from
    /// @throw InternalError for a policy that there isn't
    static bool bindProcess(unsigned processRank, unsigned numberProcesses, const CpuTopology& topology,
                            const AffinityMask& availableMask, CpuBindingPolicy policy);
};
