#pragma once

#include "machine/Affinity.h"
#include "machine/CpuTopology.h"

/// Opens for tests what no caller of masks and bindings sees.
class AffinityMaskTestAccess {
public:
    static AffinityMask make(const hwloc_bitmap_s* bitmap) { return AffinityMask(bitmap); }
};

class AffinityTestAccess {
public:
    static bool setThread(const CpuTopology& topology, const AffinityMask& mask) {
        return Affinity::setThreadAffinity(topology, mask);
    }
    static bool setProcess(const CpuTopology& topology, const AffinityMask& mask) {
        return Affinity::setProcessAffinity(topology, mask);
    }
    static bool setThreadHere(const CpuTopology& topology) {
        return Affinity::setThreadAffinityToCurrentCpuLocation(topology);
    }
    static bool setProcessHere(const CpuTopology& topology) {
        return Affinity::setProcessAffinityToCurrentCpuLocation(topology);
    }
    static bool clearThread(const CpuTopology& topology) { return Affinity::clearThreadAffinity(topology); }
    static bool clearProcess(const CpuTopology& topology) { return Affinity::clearProcessAffinity(topology); }
};
