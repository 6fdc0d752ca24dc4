#pragma once

#include "machine/Affinity.h"
#include "machine/hardware/CpuTopologyImpl.h"

/// Opens for tests what no caller of the hardware model sees.
class CpuTopologyTestAccess {
public:
    using Impl = CpuTopology::Impl;
    using HwlocObj = Impl::HwlocObj;

    static Impl& impl(CpuTopology& topology) { return *topology._impl; }
    static auto getObjectsBelow(const HwlocObj& parent, const std::vector<HwlocObj>& list) {
        return Impl::getObjectsBelow(parent, list);
    }
    static auto getNestedObjects(const std::vector<HwlocObj>& parents, const std::vector<HwlocObj>& list) {
        return Impl::getNestedObjects(parents, list);
    }
    static bool isConsecutiveList(const std::vector<HwlocObj>& list) { return Impl::isConsecutiveList(list); }
    static auto getLpus(const Impl& impl) { return impl.getAllObjectsOfType(HWLOC_OBJ_PU); }
    static auto getAllUniqueNumaNodes(const Impl& impl) { return impl.getAllUniqueNumaNodes(); }
    static auto invertNesting(const std::vector<Impl::NestedHwlocObjs>& list, std::size_t size) {
        return Impl::invertNesting(list, size);
    }
};

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
