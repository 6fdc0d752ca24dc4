#include "machine/CpuTopology.h"

#include "machine/hardware/CpuTopologyImpl.h"

#include "kernel/IsolatedFpuContext.h"
#include "kernel/Raise.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <set>
#include <utility>

#define ASSERT_IN_RANGE(condition) ORVEX_ASSERT(condition, "Index out of range.")
/// The members of group `index`, after testing that there is such a group and that it has members.
#define MEMBERS_OF(groups, index) (ASSERT_GROUP(groups, index), _impl->groups[index].objs)
#define ASSERT_GROUP(groups, index)                                                                          \
    assertGroup(index < _impl->groups.size(), #index " < " #groups ".size()",                                \
                index < _impl->groups.size() && !_impl->groups[index].objs.empty(),                          \
                "!" #groups "[" #index "].objs.empty()", __LINE__)

namespace {

void assertGroup(bool isInRange, const char* rangeText, bool hasMembers, const char* membersText, int line) {
    if (!isInRange) [[unlikely]]
        raiseInternalError("Index out of range.", rangeText, __FILE__, line);
    if (!hasMembers) [[unlikely]]
        raiseInternalError("Unexpected empty list of nested objects.", membersText, __FILE__, line);
}

unsigned asCount(std::size_t size) {
    return static_cast<unsigned>(size); // of a host's objects
}

std::vector<unsigned> upTo(unsigned count) {
    std::vector<unsigned> all(count);
    std::iota(all.begin(), all.end(), 0u);
    return all;
}

template <class Objects>
std::vector<unsigned> indicesOf(const Objects& objs) {
    std::vector<unsigned> indices;
    indices.reserve(objs.size());
    for (const auto& obj : objs)
        indices.push_back(obj.index);
    return indices;
}

template <class Objects>
std::vector<unsigned> indicesWithin(const Objects& objs, hwloc_const_bitmap_t mask) {
    std::vector<unsigned> indices;
    for (const auto& obj : objs)
        if (hwloc_bitmap_intersects(obj.obj->cpuset, mask))
            indices.push_back(obj.index);
    return indices;
}

template <class List>
hwloc_const_bitmap_t cpusetOf(const List& list, unsigned index) {
    ASSERT_IN_RANGE(index < list.size());
    return list[index].obj->cpuset;
}

std::vector<unsigned> distinct(const std::vector<unsigned>& members, auto getGroup) {
    std::set<unsigned> groups;
    for (const unsigned member : members)
        groups.insert(getGroup(member));
    return {groups.begin(), groups.end()};
}

} // namespace

CpuTopology::CpuTopology() : CpuTopology(std::string()) {}

CpuTopology::CpuTopology(const std::string& text) : _impl(std::make_unique<Impl>(text)) {
    if (reliableLpuInformationAvailable()) {
        decideSymmetry();
        relateSocketsToNumaNodes();
    }
    const auto getWidth = [](unsigned count) {
        return std::max(2, static_cast<int>(std::to_string(count - 1).size()));
    };
    _impl->_lpuWidth = getWidth(getNumberLpus());
    _impl->_physicalCoreWidth = getWidth(getNumberPhysicalCores());
    _impl->_numaNodeWidth = getWidth(getNumberNumaNodes());
    _impl->_socketWidth = getWidth(getNumberSockets());
}

CpuTopology::CpuTopology(CpuTopology&&) noexcept = default;
CpuTopology& CpuTopology::operator=(CpuTopology&&) noexcept = default;
CpuTopology::~CpuTopology() = default;

void CpuTopology::decideSymmetry() {
    const auto areEqual = [](unsigned count, auto getSize) {
        for (unsigned i = 1; i < count; ++i)
            if (getSize(i) != getSize(0))
                return false;
        return true;
    };
    _impl->_isSymmetric =
        areEqual(getNumberPhysicalCores(), [this](unsigned i) { return getLpusForPhysicalCore(i).size(); }) &&
        areEqual(getNumberNumaNodes(), [this](unsigned i) { return getLpusForNumaNode(i).size(); }) &&
        areEqual(getNumberNumaNodes(),
                 [this](unsigned i) { return getPhysicalCoresForNumaNode(i).size(); }) &&
        areEqual(getNumberSockets(), [this](unsigned i) { return getLpusForSocket(i).size(); }) &&
        areEqual(getNumberSockets(), [this](unsigned i) { return getPhysicalCoresForSocket(i).size(); });
}

void CpuTopology::relateSocketsToNumaNodes() {
    const unsigned sockets = getNumberSockets();
    const unsigned numaNodes = getNumberNumaNodes();
    _impl->_socketsEqualToNumaNodes = sockets == numaNodes;
    for (unsigned i = 0; i < sockets && _impl->_socketsEqualToNumaNodes; ++i)
        _impl->_socketsEqualToNumaNodes = getLpusForSocket(i) == getLpusForNumaNode(i);
    for (unsigned i = 0; i < numaNodes; ++i)
        _impl->_numaNodeSockets.push_back(
            distinct(getLpusForNumaNode(i), [this](unsigned lpu) { return getSocketForLpu(lpu); }));
    for (unsigned i = 0; i < sockets; ++i)
        _impl->_socketNumaNodes.push_back(
            distinct(getLpusForSocket(i), [this](unsigned lpu) { return getNumaNodeForLpu(lpu); }));
    if (_impl->_socketsEqualToNumaNodes)
        return;

    _impl->_numaNodesSubsetOfSockets = true;
    for (unsigned i = 0; i < numaNodes && _impl->_numaNodesSubsetOfSockets; ++i) {
        const std::vector<unsigned>& above = _impl->_numaNodeSockets[i];
        _impl->_numaNodesSubsetOfSockets =
            above.size() == 1 && getNumberLpusForNumaNode(i) < getNumberLpusForSocket(above.front());
    }
    if (_impl->_numaNodesSubsetOfSockets)
        return;
    _impl->_socketsSubsetOfNumaNodes = true;
    for (unsigned i = 0; i < sockets && _impl->_socketsSubsetOfNumaNodes; ++i) {
        const std::vector<unsigned>& above = _impl->_socketNumaNodes[i];
        _impl->_socketsSubsetOfNumaNodes =
            above.size() == 1 && getNumberLpusForSocket(i) < getNumberLpusForNumaNode(above.front());
    }
}

std::string CpuTopology::toString() const {
    std::string text;
    if (!_impl->_topology)
        return text;
    const IsolatedFpuContext isolated(false); // the XML library makes its infinity by a division
    char* buffer = nullptr;
    int length = 0;
    if (hwloc_topology_export_xmlbuffer(_impl->_topology, &buffer, &length, 0) >= 0 && buffer)
        text.assign(buffer, static_cast<std::size_t>(length)); // with the zero at its end
    if (buffer)
        hwloc_free_xmlbuffer(_impl->_topology, buffer);
    return text;
}

hwloc_topology* CpuTopology::getHwlocTopology() const {
    return _impl->_topology;
}

// ---- Available information, and the shape.

bool CpuTopology::reliableLpuInformationAvailable() const {
    return !_impl->_lpus.empty();
}

bool CpuTopology::reliablePhysicalCoreInformationAvailable() const {
    return !_impl->_physicalCores.empty();
}

bool CpuTopology::reliableNumaNodeInformationAvailable() const {
    return !_impl->_numaNodeLpus.empty();
}

bool CpuTopology::reliableSocketInformationAvailable() const {
    return !_impl->_socketLpus.empty();
}

bool CpuTopology::isSymmetric() const {
    return _impl->_isSymmetric;
}

bool CpuTopology::areSocketsEqualToNumaNodes() const {
    return _impl->_socketsEqualToNumaNodes;
}

bool CpuTopology::areNumaNodesSubsetOfSockets() const {
    return _impl->_numaNodesSubsetOfSockets;
}

bool CpuTopology::areSocketsSubsetOfNumaNodes() const {
    return _impl->_socketsSubsetOfNumaNodes;
}

bool CpuTopology::usesSMT() const {
    return getNumberLpus() > getNumberPhysicalCores();
}

// ---- Counts.

unsigned CpuTopology::getNumberLpus() const {
    return std::max(1u, asCount(_impl->_lpus.size()));
}

unsigned CpuTopology::getNumberPhysicalCores() const {
    return reliablePhysicalCoreInformationAvailable() ? asCount(_impl->_physicalCores.size())
                                                      : getNumberLpus();
}

unsigned CpuTopology::getNumberNumaNodes() const {
    return std::max(1u, asCount(_impl->_numaNodeLpus.size()));
}

unsigned CpuTopology::getNumberSockets() const {
    return std::max(1u, asCount(_impl->_socketLpus.size()));
}

unsigned CpuTopology::getNumberLpus(unsigned physicalCore) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return 1;
    return asCount(MEMBERS_OF(_physicalCores, physicalCore).size());
}

unsigned CpuTopology::getNumberLpusForNumaNode(unsigned numaNode) const {
    if (!reliableNumaNodeInformationAvailable())
        return getNumberLpus();
    return asCount(MEMBERS_OF(_numaNodeLpus, numaNode).size());
}

unsigned CpuTopology::getNumberLpusForSocket(unsigned socket) const {
    if (!reliableSocketInformationAvailable())
        return getNumberLpus();
    return asCount(MEMBERS_OF(_socketLpus, socket).size());
}

unsigned CpuTopology::getNumberPhysicalCoresForNumaNode(unsigned numaNode) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getNumberLpusForNumaNode(numaNode);
    if (_impl->_numaNodePhysicalCores.empty())
        return asCount(_impl->_physicalCores.size());
    return asCount(MEMBERS_OF(_numaNodePhysicalCores, numaNode).size());
}

unsigned CpuTopology::getNumberPhysicalCoresForSocket(unsigned socket) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getNumberLpusForSocket(socket);
    if (_impl->_socketPhysicalCores.empty())
        return asCount(_impl->_physicalCores.size());
    return asCount(MEMBERS_OF(_socketPhysicalCores, socket).size());
}

unsigned CpuTopology::getNumberSocketsForNumaNode(unsigned numaNode) const {
    return asCount(getSocketsForNumaNode(numaNode).size());
}

unsigned CpuTopology::getNumberNumaNodesForSocket(unsigned socket) const {
    return asCount(getNumaNodesForSocket(socket).size());
}

// ---- Members of a group.

std::vector<unsigned> CpuTopology::getLpusForPhysicalCore(unsigned physicalCore) const {
    if (reliablePhysicalCoreInformationAvailable())
        return indicesOf(MEMBERS_OF(_physicalCores, physicalCore));
    ASSERT_IN_RANGE(physicalCore < getNumberPhysicalCores());
    return {physicalCore};
}

std::vector<unsigned> CpuTopology::getLpusForNumaNode(unsigned numaNode) const {
    if (!reliableNumaNodeInformationAvailable())
        return upTo(getNumberLpus());
    return indicesOf(MEMBERS_OF(_numaNodeLpus, numaNode));
}

std::vector<unsigned> CpuTopology::getLpusForSocket(unsigned socket) const {
    if (!reliableSocketInformationAvailable())
        return upTo(getNumberLpus());
    return indicesOf(MEMBERS_OF(_socketLpus, socket));
}

std::vector<unsigned> CpuTopology::getPhysicalCoresForNumaNode(unsigned numaNode) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getLpusForNumaNode(numaNode);
    if (_impl->_numaNodePhysicalCores.empty())
        return upTo(getNumberPhysicalCores());
    return indicesOf(MEMBERS_OF(_numaNodePhysicalCores, numaNode));
}

std::vector<unsigned> CpuTopology::getPhysicalCoresForSocket(unsigned socket) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getLpusForSocket(socket);
    if (_impl->_socketPhysicalCores.empty())
        return upTo(getNumberPhysicalCores());
    return indicesOf(MEMBERS_OF(_socketPhysicalCores, socket));
}

std::vector<unsigned> CpuTopology::getSocketsForNumaNode(unsigned numaNode) const {
    const auto& _numaNodeSockets = _impl->_numaNodeSockets;
    ASSERT_IN_RANGE(numaNode < _numaNodeSockets.size());
    return _numaNodeSockets[numaNode];
}

std::vector<unsigned> CpuTopology::getNumaNodesForSocket(unsigned socket) const {
    const auto& _socketNumaNodes = _impl->_socketNumaNodes;
    ASSERT_IN_RANGE(socket < _socketNumaNodes.size());
    return _socketNumaNodes[socket];
}

// ---- The group of a member.

unsigned CpuTopology::getPhysicalCoreForLpu(unsigned lpu) const {
    const auto& _lpuPhysicalCore = _impl->_lpuPhysicalCore;
    if (_lpuPhysicalCore.empty()) {
        ASSERT_IN_RANGE(lpu < getNumberLpus());
        return lpu;
    }
    ASSERT_IN_RANGE(lpu < _lpuPhysicalCore.size());
    return _lpuPhysicalCore[lpu];
}

unsigned CpuTopology::getNumaNodeForLpu(unsigned lpu) const {
    const auto& _lpuNumaNode = _impl->_lpuNumaNode;
    if (_lpuNumaNode.empty())
        return 0;
    ASSERT_IN_RANGE(lpu < _lpuNumaNode.size());
    return _lpuNumaNode[lpu];
}

unsigned CpuTopology::getSocketForLpu(unsigned lpu) const {
    const auto& _lpuSocket = _impl->_lpuSocket;
    if (_lpuSocket.empty())
        return 0;
    ASSERT_IN_RANGE(lpu < _lpuSocket.size());
    return _lpuSocket[lpu];
}

unsigned CpuTopology::getNumaNodeForPhysicalCore(unsigned physicalCore) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getNumaNodeForLpu(physicalCore);
    const auto& _physicalCoreNumaNode = _impl->_physicalCoreNumaNode;
    if (_physicalCoreNumaNode.empty())
        return 0;
    ASSERT_IN_RANGE(physicalCore < _physicalCoreNumaNode.size());
    return _physicalCoreNumaNode[physicalCore];
}

unsigned CpuTopology::getSocketForPhysicalCore(unsigned physicalCore) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getSocketForLpu(physicalCore);
    const auto& _physicalCoreSocket = _impl->_physicalCoreSocket;
    if (_physicalCoreSocket.empty())
        return 0;
    ASSERT_IN_RANGE(physicalCore < _physicalCoreSocket.size());
    return _physicalCoreSocket[physicalCore];
}

// ---- Masks.

AffinityMask CpuTopology::getTopologyMask() const {
    return _impl->_topology ? AffinityMask(hwloc_get_root_obj(_impl->_topology)->cpuset) : AffinityMask();
}

AffinityMask CpuTopology::restrictToAvailableResources(AffinityMask&& mask) const {
    AffinityMask result(std::move(mask));
    if (_impl->_topology)
        result &= AffinityMask(hwloc_topology_get_allowed_cpuset(_impl->_topology));
    if (!_impl->_limit.empty())
        result &= _impl->_limit;
    return result;
}

void CpuTopology::limitTo(const AffinityMask& mask) {
    AffinityMask limit = restrictToAvailableResources(getTopologyMask()) & mask;
    if (!limit.empty())
        _impl->_limit = std::move(limit);
}

AffinityMask CpuTopology::getLpuMask(unsigned lpu) const {
    const auto& _lpus = _impl->_lpus;
    if (_lpus.empty()) {
        ASSERT_IN_RANGE(lpu == 0u);
        return AffinityMask();
    }
    ASSERT_IN_RANGE(lpu < _lpus.size());
    return AffinityMask(_lpus[lpu].obj->cpuset);
}

AffinityMask CpuTopology::getPhysicalCoreMask(unsigned physicalCore) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getLpuMask(physicalCore);
    return AffinityMask(cpusetOf(_impl->_physicalCores, physicalCore));
}

AffinityMask CpuTopology::getNumaMask(unsigned numaNode) const {
    if (reliableNumaNodeInformationAvailable())
        return AffinityMask(cpusetOf(_impl->_numaNodeLpus, numaNode));
    ASSERT_IN_RANGE(numaNode == 0u);
    return getAllLpusMask();
}

AffinityMask CpuTopology::getSocketMask(unsigned socket) const {
    if (reliableSocketInformationAvailable())
        return AffinityMask(cpusetOf(_impl->_socketLpus, socket));
    ASSERT_IN_RANGE(socket == 0u);
    return getAllLpusMask();
}

AffinityMask CpuTopology::getAllLpusMask() const {
    AffinityMask all;
    for (const Impl::HwlocObj& lpu : _impl->_lpus)
        all |= AffinityMask(lpu.obj->cpuset);
    return all;
}

AffinityMask CpuTopology::getLpuMask(const std::vector<unsigned>& lpus) const {
    AffinityMask all;
    for (const unsigned lpu : lpus)
        all |= getLpuMask(lpu);
    return all;
}

AffinityMask CpuTopology::getPhysicalCoreMask(const std::vector<unsigned>& physicalCores) const {
    AffinityMask all;
    for (const unsigned physicalCore : physicalCores)
        all |= getPhysicalCoreMask(physicalCore);
    return all;
}

AffinityMask CpuTopology::getNumaMask(const std::vector<unsigned>& numaNodes) const {
    AffinityMask all;
    for (const unsigned numaNode : numaNodes)
        all |= getNumaMask(numaNode);
    return all;
}

AffinityMask CpuTopology::getSocketMask(const std::vector<unsigned>& sockets) const {
    AffinityMask all;
    for (const unsigned socket : sockets)
        all |= getSocketMask(socket);
    return all;
}

std::vector<unsigned> CpuTopology::getLpusFromMask(const AffinityMask& mask) const {
    return indicesWithin(_impl->_lpus, mask.getHwlocMask());
}

std::vector<unsigned> CpuTopology::getPhysicalCoresFromMask(const AffinityMask& mask) const {
    if (!reliablePhysicalCoreInformationAvailable())
        return getLpusFromMask(mask);
    return indicesWithin(_impl->_physicalCores, mask.getHwlocMask());
}

std::vector<unsigned> CpuTopology::getNumaNodesFromMask(const AffinityMask& mask) const {
    if (reliableNumaNodeInformationAvailable())
        return indicesWithin(_impl->_numaNodeLpus, mask.getHwlocMask());
    return upTo(getLpusFromMask(mask).empty() ? 0 : 1);
}

std::vector<unsigned> CpuTopology::getSocketsFromMask(const AffinityMask& mask) const {
    if (reliableSocketInformationAvailable())
        return indicesWithin(_impl->_socketLpus, mask.getHwlocMask());
    return upTo(getLpusFromMask(mask).empty() ? 0 : 1);
}

// ---- Choice.

std::vector<unsigned> CpuTopology::getLpuSubset(const std::vector<unsigned>& lpus, unsigned count,
                                                LpuSelectionMode mode, bool spreadOverPhysicalCores) const {
    constexpr std::size_t first = 2; // of the levels that are dealt in turn
    constexpr std::size_t levels = 6;
    struct Place {
        std::array<unsigned, levels> keys; ///< the turn within the core, the kind of core, then from the
                                           ///< widest group down to the core
        unsigned order;                    ///< within the list of a group
        unsigned lpu;
    };
    const bool isSpread = mode == Spread;
    std::vector<Place> places;
    places.reserve(lpus.size());
    for (const unsigned lpu : lpus)
        places.push_back({{0, _impl->getSlowness(lpu),
                           isSpread && areNumaNodesSubsetOfSockets() ? getSocketForLpu(lpu) : 0,
                           isSpread ? getNumaNodeForLpu(lpu) : 0,
                           isSpread && areSocketsSubsetOfNumaNodes() ? getSocketForLpu(lpu) : 0,
                           spreadOverPhysicalCores ? getPhysicalCoreForLpu(lpu) : 0},
                          lpu,
                          lpu});

    // From the cores up, the lists of a level are dealt in turn into one list for the group above: sorted by
    // their order within the list, then by the list's key.
    const auto areInOneGroup = [](const Place& a, const Place& b, std::size_t level) {
        return std::equal(a.keys.begin(), a.keys.begin() + static_cast<std::ptrdiff_t>(level),
                          b.keys.begin());
    };
    const auto number = [&](std::size_t level) { // the order within each group of this level
        for (std::size_t i = 0; i < places.size(); ++i)
            places[i].order =
                i > 0 && areInOneGroup(places[i - 1], places[i], level) ? places[i - 1].order + 1 : 0;
    };
    std::sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
        return a.keys != b.keys ? a.keys < b.keys : a.lpu < b.lpu;
    });
    number(levels);
    // A second LPU of a core comes after the first ones of all cores, be they of other groups: groups needn't
    // have the same number of free cores. And fast cores come before slow ones.
    if (spreadOverPhysicalCores)
        for (Place& place : places)
            place.keys.front() = std::exchange(place.order, 0);
    for (std::size_t level = levels; level-- > first;) {
        std::sort(places.begin(), places.end(), [&](const Place& a, const Place& b) {
            if (!areInOneGroup(a, b, level))
                return a.keys < b.keys;
            return a.order != b.order ? a.order < b.order : a.keys[level] < b.keys[level];
        });
        number(level);
    }

    std::vector<unsigned> subset;
    for (std::size_t i = 0; i < std::min<std::size_t>(places.size(), count); ++i)
        subset.push_back(places[i].lpu);
    std::sort(subset.begin(), subset.end());
    return subset;
}
