#include "machine/hardware/CpuTopologyImpl.h"

#include "kernel/IsolatedFpuContext.h"
#include "kernel/Raise.h"
#include "platform/Log.h"

#include <algorithm>
#include <functional>
#include <set>

namespace {

void warn(const OS::Log::Context& context, const char* text) {
    OS::Log::instance("Default").warning(context, text);
}

void inform(const OS::Log::Context& context, const char* text) {
    OS::Log::instance("Default").info(context, text);
}

constexpr const char* EXTRACT = "CpuTopology::Impl::extractTopology";
constexpr const char* COLLECT_NODES = "CpuTopology::Impl::getAllUniqueNumaNodes";
constexpr const char* NO_OBJECT = "Unexpected uninitialized object while parsing hwloc topology.";

/// Walks the tree from `root` in its order, left to right. `take` answers whether the children of an object,
/// the normal ones, are of interest too.
template <class Take>
void walk(hwloc_obj_t root, const OS::Log::Context& context, Take take) {
    std::vector<hwloc_obj_t> stack{root};
    while (!stack.empty()) {
        const hwloc_obj_t obj = stack.back();
        stack.pop_back();
        if (!obj) {
            warn(context, NO_OBJECT);
            continue;
        }
        if (take(obj))
            for (unsigned child = obj->arity; child-- > 0;)
                stack.push_back(obj->children[child]);
    }
}

} // namespace

CpuTopology::Impl::Impl(const std::string& text) {
    if (load(text))
        extractTopology();
}

CpuTopology::Impl::~Impl() {
    if (_topology)
        hwloc_topology_destroy(_topology);
}

bool CpuTopology::Impl::load(const std::string& text) {
    // The XML library makes its infinity by a division; the next command shall not be blamed for it.
    const IsolatedFpuContext isolated(false);
    if (hwloc_topology_init(&_topology) != 0) {
        _topology = nullptr;
        return false;
    }
    // Processors that this process may not use are read too: other servers run there. The loading fails when
    // this does.
    constexpr unsigned long wholeSystem = HWLOC_TOPOLOGY_FLAG_INCLUDE_DISALLOWED;
    bool isGood = hwloc_topology_set_flags(_topology, wholeSystem) == 0;
    if (isGood && !text.empty())
        // The text describes this very host, so binding has to go on working.
        isGood = hwloc_topology_set_xmlbuffer(_topology, text.data(), static_cast<int>(text.size())) == 0 &&
                 hwloc_topology_set_flags(_topology, hwloc_topology_get_flags(_topology) |
                                                         HWLOC_TOPOLOGY_FLAG_IS_THISSYSTEM) == 0;
    if (isGood && hwloc_topology_load(_topology) == 0)
        return true;
    hwloc_topology_destroy(_topology);
    _topology = nullptr;
    return false;
}

void CpuTopology::Impl::extractTopology() {
    _lpus = getAllObjectsOfType(HWLOC_OBJ_PU);
    if (!_lpus.empty() && !isConsecutiveList(_lpus)) {
        warn(EXTRACT, "The hwloc topology data structure was successfully initialized, but the expected LPU "
                      "ordering is wrong.");
        _lpus.clear();
    }
    if (_lpus.empty()) {
        warn(EXTRACT,
             "The hwloc topology data structure was successfully initialized, but no LPUs were detected.");
        hwloc_topology_destroy(_topology);
        _topology = nullptr;
        return;
    }
    const std::vector<HwlocObj> cores = getAllObjectsOfType(HWLOC_OBJ_CORE);
    extractPhysicalCores(cores);

    // A NUMA node hangs beside the tree; the object above it says which LPUs are near.
    std::vector<HwlocObj> numaObjs = getAllUniqueNumaNodes();
    for (HwlocObj& numaObj : numaObjs)
        numaObj.obj = numaObj.obj->parent;
    if (std::any_of(numaObjs.begin(), numaObjs.end(), [](const HwlocObj& parent) { return !parent.obj; }))
        warn(EXTRACT, "There was an error when getting the parent objects of NUMA nodes.");
    else
        extractLevel(
            numaObjs, cores,
            {"NUMA nodes were detected, but they don't hold each LPU once: the level is left out.",
             "NUMA nodes were detected, but the expected NUMA node - or nested LPU - ordering is wrong.",
             "Invalid LPU to NUMA node mapping detected.",
             "Either no physical cores were detected for the NUMA nodes or the expectednested physical "
             "core ordering is wrong.",
             "Invalid physical core to NUMA node mapping detected."},
            _numaNodeLpus, _lpuNumaNode, _numaNodePhysicalCores, _physicalCoreNumaNode);
    extractLevel(
        getAllObjectsOfType(HWLOC_OBJ_PACKAGE), cores,
        {"Sockets were detected, but they don't hold each LPU once: the level is left out.",
         "Sockets were detected, but the expected socket - or nested LPU - ordering is wrong.",
         "Invalid LPU to socket mapping detected.",
         "Either no physical cores were detected for the sockets or the expectednested physical core "
         "ordering is wrong.",
         "Invalid physical core to socket mapping detected."},
        _socketLpus, _lpuSocket, _socketPhysicalCores, _physicalCoreSocket);
    extractKindsOfCores();
}

void CpuTopology::Impl::extractPhysicalCores(const std::vector<HwlocObj>& cores) {
    _physicalCores = getNestedObjects(cores, _lpus);
    if (_physicalCores.empty()) {
        if (!cores.empty())
            inform(EXTRACT,
                   "Physical cores were detected, but they don't hold each LPU once: the level is left out.");
        return;
    }
    if (!isConsecutiveList(_physicalCores)) {
        warn(EXTRACT,
             "Physical cores were detected, but the expected core - or nested LPU - ordering is wrong.");
        _physicalCores.clear();
        return;
    }
    _lpuPhysicalCore = invertNesting(_physicalCores, _lpus.size());
    if (!isMappingInRange(_lpuPhysicalCore, _physicalCores.size())) {
        warn(EXTRACT, "Invalid LPU to physical core mapping detected.");
        _lpuPhysicalCore.clear();
        _physicalCores.clear();
    }
}

void CpuTopology::Impl::extractLevel(const std::vector<HwlocObj>& parents, const std::vector<HwlocObj>& cores,
                                     const LevelWords& words, std::vector<NestedHwlocObjs>& levelLpus,
                                     std::vector<unsigned>& lpuLevel,
                                     std::vector<NestedHwlocObjs>& levelPhysicalCores,
                                     std::vector<unsigned>& physicalCoreLevel) {
    levelLpus = getNestedObjects(parents, _lpus);
    if (levelLpus.empty()) {
        if (!parents.empty())
            inform(EXTRACT, words.noPartition);
        return;
    }
    if (!isConsecutiveList(levelLpus)) {
        warn(EXTRACT, words.wrongOrder);
        levelLpus.clear();
        return;
    }
    lpuLevel = invertNesting(levelLpus, _lpus.size());
    if (!isMappingInRange(lpuLevel, levelLpus.size())) {
        warn(EXTRACT, words.invalidMap);
        lpuLevel.clear();
        levelLpus.clear();
        return;
    }
    if (_physicalCores.empty())
        return;
    levelPhysicalCores = getNestedObjects(parents, cores);
    if (levelPhysicalCores.empty() || !isConsecutiveList(levelPhysicalCores)) {
        warn(EXTRACT, words.noCores);
        clearPhysicalCoreInformation();
        return;
    }
    physicalCoreLevel = invertNesting(levelPhysicalCores, _physicalCores.size());
    if (!isMappingInRange(physicalCoreLevel, levelPhysicalCores.size())) {
        warn(EXTRACT, words.invalidCoreMap);
        clearPhysicalCoreInformation();
    }
}

void CpuTopology::Impl::clearPhysicalCoreInformation() {
    _physicalCores.clear();
    _lpuPhysicalCore.clear();
    _numaNodePhysicalCores.clear();
    _physicalCoreNumaNode.clear();
    _socketPhysicalCores.clear();
    _physicalCoreSocket.clear();
}

void CpuTopology::Impl::extractKindsOfCores() {
    const int kinds = hwloc_cpukinds_get_nr(_topology, 0);
    if (kinds < 2)
        return; // one kind, or nothing is known
    // hwloc ranks the kinds by speed, the slowest first, or by nothing at all.
    const unsigned unknown = static_cast<unsigned>(kinds);
    _lpuSlowness.assign(_lpus.size(), unknown);
    AffinityMask members;
    for (int kind = 0; kind < kinds; ++kind) {
        int speed = -1;
        if (hwloc_cpukinds_get_info(_topology, static_cast<unsigned>(kind), members.getHwlocMask(), &speed,
                                    nullptr, nullptr, 0) != 0 ||
            speed < 0 || speed >= kinds) {
            inform(EXTRACT, "Kinds of cores were detected, but not which of them are fast.");
            _lpuSlowness.clear();
            return;
        }
        for (const HwlocObj& lpu : _lpus)
            if (hwloc_bitmap_intersects(lpu.obj->cpuset, members.getHwlocMask()))
                _lpuSlowness[lpu.index] = static_cast<unsigned>(kinds - 1 - speed);
    }
    if (std::count(_lpuSlowness.begin(), _lpuSlowness.end(), unknown) > 0) {
        warn(EXTRACT, "Kinds of cores were detected, but not for all LPUs.");
        _lpuSlowness.clear();
    }
}

std::vector<CpuTopology::Impl::HwlocObj> CpuTopology::Impl::getAllObjectsOfType(hwloc_obj_type_t type) const {
    ORVEX_ASSERT(_topology != nullptr, "Unexpected uninitialized topology.");
    std::vector<HwlocObj> found;
    walk(hwloc_get_root_obj(_topology), "CpuTopology::Impl::getAllObjectsOfType", [&](hwloc_obj_t obj) {
        if (obj->type != type)
            return true;
        if (!hwloc_bitmap_iszero(obj->cpuset)) // else it is there for its memory alone
            found.push_back({obj, static_cast<unsigned>(found.size())});
        return false;
    });
    return found;
}

std::vector<CpuTopology::Impl::HwlocObj> CpuTopology::Impl::getAllUniqueNumaNodes() const {
    ORVEX_ASSERT(_topology != nullptr, "Unexpected uninitialized topology.");
    std::vector<HwlocObj> found;
    collectNumaNodes(hwloc_get_root_obj(_topology), found);
    for (unsigned i = 0; i < found.size(); ++i)
        found[i].index = i;
    return found;
}

void CpuTopology::Impl::collectNumaNodes(hwloc_obj_t obj, std::vector<HwlocObj>& found) {
    if (!obj) {
        warn(COLLECT_NODES, NO_OBJECT);
        return;
    }
    const std::size_t before = found.size();
    for (unsigned child = 0; child < obj->arity; ++child)
        collectNumaNodes(obj->children[child], found);
    hwloc_obj_t node = obj->memory_first_child;
    for (; node; node = node->next_sibling) {
        if (node->type == HWLOC_OBJ_NUMANODE && !hwloc_bitmap_iszero(node->cpuset))
            break;
        if (node->type == HWLOC_OBJ_NUMANODE)
            inform(COLLECT_NODES, "A NUMA node without LPUs is left out.");
    }
    if (!node)
        return;
    AffinityMask covered;
    for (std::size_t i = before; i < found.size(); ++i)
        covered |= AffinityMask(found[i].obj->cpuset);
    if (AffinityMask(obj->cpuset).isIncludedIn(covered)) {
        inform(COLLECT_NODES, "A NUMA node is left out for the nearer ones below it.");
        return;
    }
    if (found.size() > before)
        inform(COLLECT_NODES, "NUMA nodes that only some LPUs are near to are left out for the one above.");
    found.resize(before);
    found.push_back({node, 0});
}

std::vector<CpuTopology::Impl::HwlocObj>
CpuTopology::Impl::getObjectsBelow(const HwlocObj& parent, const std::vector<HwlocObj>& allTypeObjs) {
    ORVEX_ASSERT(!allTypeObjs.empty(), "Unexpected, empty list");
    ORVEX_ASSERT_AS(
        std::all_of(allTypeObjs.begin(), allTypeObjs.end(),
                    [&](const HwlocObj& obj) { return obj.obj->type == allTypeObjs.front().obj->type; }),
        "std::all_of(allTypeObjs.begin(), allTypeObjs.end(), [&allTypeObjs](HwlocObj const &obj){ return "
        "obj.obj->type == allTypeObjs.front().obj->type; })",
        "All objects in 'allTypeObjs' must be of the same type.");
    constexpr const char* operation = "CpuTopology::Impl::getObjectsBelow";
    std::vector<HwlocObj> found;
    // The list and the walk are both in tree order, so the next object of one is mostly the next of the
    // other.
    std::size_t next = 0;
    walk(parent.obj, operation, [&](hwloc_obj_t obj) {
        if (obj->type != allTypeObjs.front().obj->type)
            return true;
        if (next >= allTypeObjs.size() || allTypeObjs[next].obj != obj)
            next =
                static_cast<std::size_t>(std::find_if(allTypeObjs.begin(), allTypeObjs.end(),
                                                      [obj](const HwlocObj& one) { return one.obj == obj; }) -
                                         allTypeObjs.begin());
        if (next < allTypeObjs.size())
            found.push_back(allTypeObjs[next++]);
        else
            warn(operation, "Unexpected, not yet seen object found while parsing hwloc topology.");
        return false;
    });
    std::sort(found.begin(), found.end(),
              [](const HwlocObj& a, const HwlocObj& b) { return a.index < b.index; });
    return found;
}

std::vector<CpuTopology::Impl::NestedHwlocObjs>
CpuTopology::Impl::getNestedObjects(const std::vector<HwlocObj>& parents,
                                    const std::vector<HwlocObj>& allTypeObjs) {
    ORVEX_ASSERT(!allTypeObjs.empty(), "Unexpected, empty list");
    std::vector<NestedHwlocObjs> groups;
    for (const HwlocObj& parent : parents) {
        groups.push_back({parent, getObjectsBelow(parent, allTypeObjs)});
        if (groups.back().objs.empty())
            return {};
    }
    std::set<hwloc_obj_t, std::less<>> seen;
    for (const NestedHwlocObjs& group : groups)
        for (const HwlocObj& member : group.objs)
            if (!seen.insert(member.obj).second)
                return {}; // under two parents
    if (seen.empty())
        return groups;
    for (const HwlocObj& object : allTypeObjs)
        if (!seen.contains(object.obj))
            return {}; // under none
    return groups;
}

std::vector<unsigned> CpuTopology::Impl::invertNesting(const std::vector<NestedHwlocObjs>& list,
                                                       std::size_t size) {
    std::vector<unsigned> map(size, 0);
    for (std::size_t group = 0; group < list.size(); ++group)
        for (const HwlocObj& obj : list[group].objs) {
            ORVEX_ASSERT(obj.index < size, "Unexpected logical index while iterating object list.");
            map[obj.index] = static_cast<unsigned>(group);
        }
    return map;
}

bool CpuTopology::Impl::isMappingInRange(const std::vector<unsigned>& map, std::size_t size) {
    return std::all_of(map.begin(), map.end(), [size](unsigned entry) { return entry < size; });
}
