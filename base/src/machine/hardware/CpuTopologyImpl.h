#pragma once

#include "machine/CpuTopology.h"

#include "kernel/Raise.h"

#include <hwloc.h>

#include <string>
#include <vector>

/// The hardware as hwloc tells it, without the levels that can't be trusted.
///
/// Each level is tested for the shape that the queries assume; one that fails is dropped with a warning. An
/// empty list means that its level is missing. A list of groups that isn't empty is a partition of its
/// members.
class CpuTopology::Impl {
public:
    /// An object of hwloc's tree, and its place in the list of all objects of its kind.
    struct HwlocObj {
        hwloc_obj_t obj;
        unsigned index;
    };
    /// A group: the object above, and the objects below it in ascending order of their indices.
    struct NestedHwlocObjs : HwlocObj {
        std::vector<HwlocObj> objs;
    };

    /// @param text  the text form, or empty to detect this host
    explicit Impl(const std::string& text);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    /// 0 for the fastest kind of core, and for all LPUs where nothing is known of kinds.
    unsigned getSlowness(unsigned lpu) const { return lpu < _lpuSlowness.size() ? _lpuSlowness[lpu] : 0; }

    hwloc_topology_t _topology = nullptr;
    AffinityMask _limit; ///< empty: none
    bool _isSymmetric = true;
    bool _socketsEqualToNumaNodes = true;
    bool _numaNodesSubsetOfSockets = false;
    bool _socketsSubsetOfNumaNodes = false;
    std::vector<HwlocObj> _lpus;
    std::vector<NestedHwlocObjs> _physicalCores;
    std::vector<NestedHwlocObjs> _numaNodeLpus;
    std::vector<NestedHwlocObjs> _numaNodePhysicalCores;
    std::vector<NestedHwlocObjs> _socketLpus;
    std::vector<NestedHwlocObjs> _socketPhysicalCores;
    std::vector<unsigned> _lpuPhysicalCore;
    std::vector<unsigned> _lpuNumaNode;
    std::vector<unsigned> _physicalCoreNumaNode;
    std::vector<unsigned> _lpuSocket;
    std::vector<unsigned> _physicalCoreSocket;
    std::vector<unsigned> _lpuSlowness;
    std::vector<std::vector<unsigned>> _numaNodeSockets;
    std::vector<std::vector<unsigned>> _socketNumaNodes;
    // Digits of a printed index.
    int _lpuWidth = 2;
    int _physicalCoreWidth = 2;
    int _numaNodeWidth = 2;
    int _socketWidth = 2;

private:
    bool load(const std::string& text);
    void extractTopology();
    /// The warnings about one level.
    struct LevelWords {
        const char* noPartition;
        const char* wrongOrder;
        const char* invalidMap;
        const char* noCores;
        const char* invalidCoreMap;
    };
    void extractPhysicalCores(const std::vector<HwlocObj>& cores);
    /// The groups of LPUs and of cores of one level, as far as both can be had; `words` are the warnings.
    void extractLevel(const std::vector<HwlocObj>& parents, const std::vector<HwlocObj>& cores,
                      const LevelWords& words, std::vector<NestedHwlocObjs>& levelLpus,
                      std::vector<unsigned>& lpuLevel, std::vector<NestedHwlocObjs>& levelPhysicalCores,
                      std::vector<unsigned>& physicalCoreLevel);
    void clearPhysicalCoreInformation();
    void extractKindsOfCores();

    /// Those that hold LPUs.
    std::vector<HwlocObj> getAllObjectsOfType(hwloc_obj_type_t type) const;
    /// Those that hold LPUs. Of several NUMA nodes at one object only the first counts; where nodes below the
    /// object are near all of its LPUs, they count instead.
    std::vector<HwlocObj> getAllUniqueNumaNodes() const;
    /// Appends the nodes of a subtree, without their indices.
    static void collectNumaNodes(hwloc_obj_t obj, std::vector<HwlocObj>& found);
    static std::vector<HwlocObj> getObjectsBelow(const HwlocObj& parent,
                                                 const std::vector<HwlocObj>& allTypeObjs);
    /// One group for each parent; empty when they don't form a partition of `allTypeObjs`.
    static std::vector<NestedHwlocObjs> getNestedObjects(const std::vector<HwlocObj>& parents,
                                                         const std::vector<HwlocObj>& allTypeObjs);
    template <class Object>
    static bool isConsecutiveList(const std::vector<Object>& list) {
        ORVEX_ASSERT(!list.empty(), "Unexpected empty list of objects.");
        for (std::size_t i = 0; i < list.size(); ++i)
            if (list[i].index != i)
                return false;
        return true;
    }
    /// The group of each of `size` members.
    static std::vector<unsigned> invertNesting(const std::vector<NestedHwlocObjs>& list, std::size_t size);
    static bool isMappingInRange(const std::vector<unsigned>& map, std::size_t size);
};
