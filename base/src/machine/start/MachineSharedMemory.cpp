// The step of Machine::main that gives the ranks communicators along the hardware: one for each host, socket
// and NUMA node, and one of the first ranks of each of these groups.

#include "machine/Machine.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineHost.h"
#include "machine/MpiCore.h"
#include "machine/SynchronizedDynamicLoader.h"
#include "machine/ThreadCount.h"
#include "machine/hybrid/HostMeeting.h"
#include "machine/messages/CollectiveHistory.h"

#include "kernel/Raise.h"
#include "kernel/ThreadParallelContext.h"

#include <algorithm>
#include <numeric>

namespace {

/// The ranks of a host that hold the same one index as rank `me`.
std::vector<unsigned> findRanksAlike(const std::vector<unsigned>& indexOfRank, unsigned me) {
    std::vector<unsigned> group;
    for (unsigned rank = 0; rank < indexOfRank.size(); ++rank)
        if (indexOfRank[rank] == indexOfRank[me])
            group.push_back(rank);
    return group;
}

/// The run of consecutive ranks around rank `me` when `ranks` of them are dealt out to `groups` as evenly as
/// can be, the larger groups first.
std::vector<unsigned> findRun(unsigned ranks, unsigned groups, unsigned me) {
    const unsigned size = ranks / groups;
    const unsigned numberLarger = ranks % groups;
    const unsigned endOfLarger = numberLarger * (size + 1);
    const unsigned runSize = me < endOfLarger ? size + 1 : size;
    const unsigned offset = me < endOfLarger ? 0 : endOfLarger;
    std::vector<unsigned> run(runSize);
    std::iota(run.begin(), run.end(), offset + (me - offset) / runSize * runSize);
    return run;
}

/// Collective over `ranks`: the processors of `topology` that any of them is bound to.
AffinityMask uniteBindings(Communicator& ranks, const CpuTopology& topology) {
    std::vector<unsigned> lpusOfAll;
    std::vector<unsigned> counts;
    ranks.allGatherVector(topology.getLpusFromMask(Affinity::getProcessAffinity(topology)), lpusOfAll,
                          counts);
    // Ranks with a larger model know processors that this one can't.
    std::erase_if(lpusOfAll, [&](unsigned lpu) { return lpu >= topology.getNumberLpus(); });
    return topology.getLpuMask(lpusOfAll);
}

void setThreadCountsToOne() {
    if (!ThreadParallelContext::_threadParallelContext)
        ThreadCount::setThreadCountsToOne(ThreadCount::OPENMP, ThreadCount::MKL | ThreadCount::MATH_OPENMP);
}

} // namespace

void Machine::startSharedMemory() {
    if (isParallel()) {
        buildShmemCommunicators();
        _hostMeeting = std::make_unique<HostMeeting>();
    }
    setThreadCountsToOne();
    SynchronizedDynamicLoader::setLoadedCallback(&setThreadCountsToOne); // a module may bring libraries
}

void Machine::buildShmemCommunicators() {
    ORVEX_ASSERT_AS(_ground.host, "_host", "host not built yet");
    if (MpiCore::hasMpiSharedMemory()) {
        _shmemComm[HOST_SCOPE] = globalCommunicator().createSharedMemCommunicators();
    } else {
        std::vector<unsigned> ranks;
        getHost().getMpiRanks(ranks);
        std::sort(ranks.begin(), ranks.end());
        _shmemComm[HOST_SCOPE] = globalCommunicator().createCommunicator(ranks);
    }
    _ground.shmem[HOST_SCOPE] = _shmemComm[HOST_SCOPE].get();
    CollectiveHistory::of(*_shmemComm[HOST_SCOPE]).setName(CollectiveHistory::HOST);
    const CpuTopology& topology = getHost().getCpuTopology();
    const AffinityMask mask = Affinity::getProcessAffinity(topology);
    buildScopeCommunicator(SOCKET_SCOPE, topology.getSocketsFromMask(mask));
    buildScopeCommunicator(NUMA_SCOPE, topology.getNumaNodesFromMask(mask));
    for (std::size_t scope = 0; scope < NUMBER_SHMEM_SCOPES; ++scope) {
        _sparseComm[scope] = createSparseCompanion(_shmemComm[scope].get());
        _ground.sparse[scope] = _sparseComm[scope].get();
    }
}

void Machine::buildScopeCommunicator(ShmemScope scope, const std::vector<unsigned>& indices) {
    ORVEX_ASSERT(scope == SOCKET_SCOPE || scope == NUMA_SCOPE,
                 "Can only create socket or NUMA node scope communicators.");
    const bool isSocket = scope == SOCKET_SCOPE;
    Communicator& host = *_shmemComm[HOST_SCOPE];
    std::vector<unsigned> indicesOfAll;
    std::vector<unsigned> counts;
    host.allGatherVector(indices, indicesOfAll, counts);
    std::vector<unsigned> group;
    if (std::all_of(counts.begin(), counts.end(), [](unsigned count) { return count == 1; })) {
        ORVEX_ASSERT(indices.size() == 1u,
                     isSocket ? "Assumption of exactly one socket per process is violated."
                              : "Assumption of exactly one NUMA node per process is violated.");
        group = findRanksAlike(indicesOfAll, host.myRank());
    } else {
        // Among the ranks that share memory: those that give one host name may be others.
        const CpuTopology& topology = getHost().getCpuTopology();
        const AffinityMask mask = uniteBindings(host, topology);
        unsigned groups = static_cast<unsigned>(
            (isSocket ? topology.getSocketsFromMask(mask) : topology.getNumaNodesFromMask(mask)).size());
        if (groups == 0)
            groups = isSocket ? topology.getNumberSockets() : topology.getNumberNumaNodes();
        host.broadcast(groups, 0); // two models of one host may count differently
        group = findRun(host.size(), std::max(1u, groups), host.myRank());
    }
    const auto index = static_cast<std::size_t>(scope);
    _shmemComm[index] = host.createCommunicator(group);
    _ground.shmem[index] = _shmemComm[index].get();
    CollectiveHistory::of(*_shmemComm[index])
        .setName(isSocket ? CollectiveHistory::SOCKET : CollectiveHistory::NUMA_NODE);
}

std::unique_ptr<Communicator> Machine::createSparseCompanion(const Communicator* communicator) const {
    if (!communicator)
        return nullptr;
    std::vector<int> isFirst(_ground.size, 0);
    isFirst[_ground.rank] = communicator->myRank() == 0 ? 1 : 0;
    globalCommunicator().allReduce(isFirst, Communicator::SUM);
    std::vector<unsigned> firstRanks;
    for (unsigned rank = 0; rank < _ground.size; ++rank)
        if (isFirst[rank] != 0)
            firstRanks.push_back(rank);
    return globalCommunicator().createCommunicator(firstRanks);
}
