#include "machine/Affinity.h"

#include "machine/CpuTopology.h"

#include <hwloc.h>
#include <hwloc/linux.h>

#include <initializer_list>
#include <new>

namespace {

// Flags that are tried in turn: some systems can't bind strictly, some don't tell a process from its threads.
using Flags = std::initializer_list<int>;
constexpr Flags BIND_THREAD{HWLOC_CPUBIND_THREAD | HWLOC_CPUBIND_STRICT, HWLOC_CPUBIND_THREAD};
constexpr Flags BIND_PROCESS{HWLOC_CPUBIND_PROCESS | HWLOC_CPUBIND_STRICT, HWLOC_CPUBIND_PROCESS, 0};
constexpr Flags READ_THREAD{HWLOC_CPUBIND_THREAD};
constexpr Flags READ_PROCESS{HWLOC_CPUBIND_PROCESS, 0};

/// Whether one of the attempts succeeds.
template <class Attempt>
bool tryEach(Flags flags, Attempt attempt) {
    for (const int flag : flags)
        if (attempt(flag) == 0)
            return true;
    return false;
}

bool bind(hwloc_topology_t topology, hwloc_const_bitmap_t mask, Flags flags) {
    return topology && !hwloc_bitmap_iszero(mask) &&
           tryEach(flags, [&](int flag) { return hwloc_set_cpubind(topology, mask, flag); });
}

/// Fills `mask`, or clears it on failure.
template <class Attempt>
bool read(hwloc_topology_t topology, hwloc_bitmap_t mask, Flags flags, Attempt attempt) {
    if (topology && tryEach(flags, attempt))
        return true;
    hwloc_bitmap_zero(mask); // a failed call may have left something in it
    return false;
}

bool readBinding(hwloc_topology_t topology, hwloc_bitmap_t mask, Flags flags) {
    return read(topology, mask, flags, [&](int flag) { return hwloc_get_cpubind(topology, mask, flag); });
}

bool readLocation(hwloc_topology_t topology, hwloc_bitmap_t mask, Flags flags) {
    return read(topology, mask, flags,
                [&](int flag) { return hwloc_get_last_cpu_location(topology, mask, flag); });
}

bool isWithinOneCore(const CpuTopology& topology, const AffinityMask& mask) {
    return topology.getPhysicalCoresFromMask(mask).size() == 1;
}

} // namespace

AffinityMask Affinity::getThreadAffinity(const CpuTopology& topology) {
    AffinityMask mask;
    readBinding(topology.getHwlocTopology(), mask.getHwlocMask(), READ_THREAD);
    return mask;
}

AffinityMask Affinity::getProcessAffinity(const CpuTopology& topology) {
    AffinityMask mask;
    readBinding(topology.getHwlocTopology(), mask.getHwlocMask(), READ_PROCESS);
    return mask;
}

AffinityMask Affinity::getProcessAffinity(const CpuTopology& topology, unsigned pid) {
    AffinityMask mask;
    // A process is its identifier here: there is no handle to open or to close.
    read(topology.getHwlocTopology(), mask.getHwlocMask(), {0}, [&](int flag) {
        return hwloc_get_proc_cpubind(topology.getHwlocTopology(), static_cast<hwloc_pid_t>(pid),
                                      mask.getHwlocMask(), flag);
    });
    return mask;
}

AffinityMask Affinity::getMask(const std::vector<unsigned>& processors) {
    AffinityMask mask;
    for (const unsigned processor : processors)
        if (hwloc_bitmap_set(mask.getHwlocMask(), processor) < 0)
            throw std::bad_alloc();
    return mask;
}

bool Affinity::isThreadBound(const CpuTopology& topology) {
    return isWithinOneCore(topology, getThreadAffinity(topology));
}

bool Affinity::isProcessBound(const CpuTopology& topology) {
    return isWithinOneCore(topology, getProcessAffinity(topology));
}

bool Affinity::setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask) {
    return bind(topology.getHwlocTopology(), mask.getHwlocMask(), BIND_THREAD);
}

bool Affinity::setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask, int systemThread) {
    return topology.getHwlocTopology() && !mask.empty() &&
           hwloc_linux_set_tid_cpubind(topology.getHwlocTopology(), systemThread, mask.getHwlocMask()) == 0;
}

bool Affinity::setProcessAffinity(const CpuTopology& topology, const AffinityMask& mask) {
    return bind(topology.getHwlocTopology(), mask.getHwlocMask(), BIND_PROCESS);
}

bool Affinity::setThreadAffinityToCurrentCpuLocation(const CpuTopology& topology) {
    AffinityMask location;
    return readLocation(topology.getHwlocTopology(), location.getHwlocMask(), READ_THREAD) &&
           setThreadAffinity(topology, location);
}

bool Affinity::setProcessAffinityToCurrentCpuLocation(const CpuTopology& topology) {
    AffinityMask location;
    return readLocation(topology.getHwlocTopology(), location.getHwlocMask(), READ_PROCESS) &&
           setProcessAffinity(topology, location);
}

bool Affinity::clearThreadAffinity(const CpuTopology& topology) {
    return setThreadAffinity(topology, topology.restrictToAvailableResources(topology.getTopologyMask()));
}

bool Affinity::clearProcessAffinity(const CpuTopology& topology) {
    return setProcessAffinity(topology, topology.restrictToAvailableResources(topology.getTopologyMask()));
}
