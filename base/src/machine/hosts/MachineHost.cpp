#include "machine/MachineHost.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuBinder.h"
#include "machine/CpuTopology.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineGround.h"
#include "machine/ground/MachineOptions.h"

#include "kernel/Raise.h"
#include "platform/BatchSystem.h"
#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/Process.h"

#include <algorithm>

namespace {

constexpr unsigned MASK_LENGTH = 60; ///< of a printed mask's description

std::string reportedHostName() {
    return MachineGround::isParallel() ? MachineGround::globalCommunicator().myName()
                                       : Platform::io().getHostName();
}

} // namespace

MachineHost::MachineHost() : MachineHost(reportedHostName()) {}

MachineHost::MachineHost(const std::string& hostName)
    : _hostName(hostName), _pid(static_cast<unsigned>(Platform::process().getPid())) {
    gatherProcesses();
    if (MachineGround::isParallel())
        buildCommunicators();
    buildTopology();
}

MachineHost::~MachineHost() = default;

void MachineHost::gatherProcesses() {
    const std::vector<std::string> names = gatherHostNames();
    std::vector<unsigned> pids{_pid};
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allGather(_pid, pids);
    for (unsigned rank = 0; rank < MachineGround::nProcesses(); ++rank)
        _hostPidMap.emplace(names[rank], std::make_pair(pids[rank], rank));

    std::vector<std::string> hosts;
    getHostNames(hosts);
    _numberHosts = static_cast<unsigned>(hosts.size());
}

std::vector<std::string> MachineHost::gatherHostNames() const {
    std::vector<std::string> names{_hostName};
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allGather(_hostName, names);
    return names;
}

void MachineHost::buildCommunicators() {
    Communicator& global = MachineGround::globalCommunicator();
    std::vector<unsigned> ranks;
    getMpiRanks(ranks);
    // Told by the rank: processes of two hosts may have the same identifier.
    _masterOnHost = ranks.front() == Communicator::masterRank();
    _intraHostComm = global.createCommunicator(ranks);

    // Every rank knows the whole map, so none needs to be asked which one is the first on its host.
    std::vector<unsigned> firstRanks;
    for (const auto& [firstRank, host] : getHostsByFirstRank())
        firstRanks.push_back(firstRank);
    _interHostComm = global.createCommunicator(firstRanks);
}

void MachineHost::buildTopology() {
    _cpuTopology =
        MachineGround::isSerial() ? std::make_unique<CpuTopology>() : shareTopology(getIntraHostComm());
}

std::unique_ptr<CpuTopology> MachineHost::shareTopology(Communicator& processes) {
    // Reading the text is faster than looking at the hardware, and many looking at once are slower still.
    std::unique_ptr<CpuTopology> topology;
    std::string text;
    if (processes.myRank() == 0) {
        topology = std::make_unique<CpuTopology>();
        text = topology->toString();
    }
    // With more processes than processors, a process that spins takes time from the one that reads.
    processes.noSpinBroadcast(text);
    if (!topology || text.empty())
        topology = std::make_unique<CpuTopology>(text);
    if (text.empty()) {
        // Each process has read the hardware by itself. All must come to the same decisions from it.
        bool allKnow = topology->reliableLpuInformationAvailable();
        processes.allReduce(allKnow, Communicator::LOGICAL_AND);
        if (!allKnow)
            topology = std::make_unique<CpuTopology>("nothing that could be read");
    }
    return topology;
}

std::map<unsigned, std::string> MachineHost::getHostsByFirstRank() const {
    std::map<unsigned, std::string> hosts;
    for (auto entry = _hostPidMap.begin(); entry != _hostPidMap.end();
         entry = _hostPidMap.upper_bound(entry->first))
        hosts.emplace(entry->second.second, entry->first);
    return hosts;
}

void MachineHost::getHostNames(std::vector<std::string>& names) const {
    for (auto entry = _hostPidMap.begin(); entry != _hostPidMap.end();
         entry = _hostPidMap.upper_bound(entry->first))
        names.push_back(entry->first);
}

unsigned MachineHost::getNumberProcesses() const {
    return static_cast<unsigned>(_hostPidMap.count(_hostName));
}

void MachineHost::getPids(const std::string& host, std::vector<unsigned>& pids) const {
    const auto [begin, end] = _hostPidMap.equal_range(host);
    for (auto entry = begin; entry != end; ++entry)
        pids.push_back(entry->second.first);
}

void MachineHost::getMpiRanks(const std::string& host, std::vector<unsigned>& ranks) const {
    const auto [begin, end] = _hostPidMap.equal_range(host);
    for (auto entry = begin; entry != end; ++entry)
        ranks.push_back(entry->second.second);
}

Communicator& MachineHost::getIntraHostComm() const {
    ORVEX_ASSERT(hasIntraHostComm(), "Cannot access Intra-host Communicator in serial");
    return *_intraHostComm;
}

Communicator& MachineHost::getInterHostComm() const {
    ORVEX_ASSERT(hasInterHostComm(), "Inter-host Communicator being used from wrong rank!");
    return *_interHostComm;
}

unsigned MachineHost::getIntraHostRank() const {
    return MachineGround::isSerial() ? 0 : getIntraHostComm().myRank();
}

void MachineHost::keepToBatchJob(const std::vector<unsigned>& processors) {
    const std::string job = Platform::findBatchJob();
    // A launcher need not hand the variables on to each host.
    if (!GlobalCondition(!job.empty(), GlobalCondition::ON_ANY))
        return;
    CpuTopology& topology = *_cpuTopology;
    std::vector<unsigned> lpus = topology.getLpusFromMask(Affinity::getMask(processors));
    if (MachineGround::isParallel()) {
        const std::vector<unsigned> mine = lpus;
        std::vector<unsigned> counts;
        getIntraHostComm().allGatherVector(mine, lpus, counts);
    }
    topology.limitTo(topology.getLpuMask(lpus));
    OS::Log::instance("Default").info("MachineHost::keepToBatchJob", "@0@ on @1@: @2@", job, _hostName,
                                      topology.printAffinityMask(getAvailableMask(), MASK_LENGTH));
}

int MachineHost::isOverSubscribed() const {
    if (!getCpuTopology().reliableLpuInformationAvailable())
        return 0; // the number of cores is unknown
    const std::size_t cores = getCpuTopology().getPhysicalCoresFromMask(getAvailableMask()).size();
    return std::max(0, static_cast<int>(getNumberProcesses()) - static_cast<int>(cores));
}

AffinityMask MachineHost::getAvailableMask() const {
    return getCpuTopology().restrictToAvailableResources(getCpuTopology().getTopologyMask());
}

bool MachineHost::bindProcesses(CpuBindingPolicy policy) const {
    if (isOverSubscribed() != 0)
        return false;
    bool bound = CpuBinder::bindProcess(getIntraHostRank(), getNumberProcesses(), getCpuTopology(),
                                        getAvailableMask(), policy);
    if (MachineGround::isParallel())
        getIntraHostComm().allReduce(bound, Communicator::LOGICAL_AND);
    return bound;
}

bool MachineHost::bindProcesses() const {
    return bindProcesses(MachineGround::getOptions().bindingPolicy);
}

AffinityMask MachineHost::getHostAffinity() const {
    AffinityMask mask = Affinity::getProcessAffinity(getCpuTopology());
    if (MachineGround::isSerial())
        return mask;
    std::vector<unsigned> all;
    std::vector<unsigned> counts;
    getIntraHostComm().allGatherVector(getCpuTopology().getLpusFromMask(mask), all, counts);
    return getCpuTopology().getLpuMask(all);
}
