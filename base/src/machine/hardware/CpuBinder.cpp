#include "machine/CpuBinder.h"

#include "machine/Affinity.h"
#include "machine/CpuTopology.h"

#include "kernel/Raise.h"

bool CpuBinder::bindProcess(unsigned processRank, unsigned numberProcesses, const CpuTopology& topology,
                            const AffinityMask& availableMask, CpuBindingPolicy policy) {
    CpuTopology::LpuSelectionMode mode = CpuTopology::Spread;
    switch (policy) {
    case BANDWIDTH_BINDING:
        break;
    case LATENCY_BINDING:
        mode = CpuTopology::Compact;
        break;
    case LEAST_LOAD_BINDING:
        return Affinity::setProcessAffinityToCurrentCpuLocation(topology);
    default:
        raiseInternalError("Invalid CpuBindingPolicy specified", "false", __FILE__, __LINE__);
    }
    const std::vector<unsigned> chosen =
        topology.getLpuSubset(topology.getLpusFromMask(availableMask), numberProcesses, mode, true);
    // Nothing to choose from: on a host without hardware information, or when all is taken.
    return !chosen.empty() &&
           Affinity::setProcessAffinity(topology, topology.getLpuMask(chosen[processRank % chosen.size()]));
}
