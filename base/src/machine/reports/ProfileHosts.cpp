#include "machine/reports/ProfileHosts.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/reports/ProfileNumbers.h"

#include "kernel/Properties.h"
#include "platform/Chip.h"

#include <map>
#include <utility>

namespace {

constexpr unsigned MASTER = Communicator::_master;
constexpr const char* EXCESS = "overSubscribed";

/// For each rank of this host the processors of its main thread, on the first process of the host; none for
/// a rank that may use all. Collective over the ranks of the host.
std::vector<std::vector<long long>> gatherMasks(const CpuTopology& topology) {
    std::vector<unsigned> mine = topology.getLpusFromMask(Affinity::getThreadAffinity(topology));
    if (mine.size() == topology.getNumberLpus())
        mine.clear(); // the list of a large host without bindings would be long
    std::vector<unsigned> all = mine;
    std::vector<unsigned> counts{static_cast<unsigned>(mine.size())};
    if (MachineGround::isParallel())
        MachineGround::getHost().getIntraHostComm().gatherVector(mine, all, counts, 0);
    std::vector<std::vector<long long>> masks;
    if (!MachineGround::getHost().firstProcessOnHost())
        return masks;
    auto first = all.begin();
    for (const unsigned count : counts) {
        masks.emplace_back(first, first + count);
        first += count;
    }
    return masks;
}

Properties tellAffinity(const CpuTopology& topology, const std::vector<std::vector<long long>>& masks) {
    std::vector<unsigned> processors;
    std::vector<unsigned> cores;
    std::vector<unsigned> numaNodes;
    std::vector<unsigned> sockets;
    for (unsigned lpu = 0; lpu < topology.getNumberLpus(); ++lpu) {
        processors.push_back(lpu);
        cores.push_back(topology.getPhysicalCoreForLpu(lpu));
        numaNodes.push_back(topology.getNumaNodeForLpu(lpu));
        sockets.push_back(topology.getSocketForLpu(lpu));
    }
    Properties told;
    told.set("processors", processors);
    told.set("cores", cores);
    told.set("numa", numaNodes);
    told.set("sockets", sockets);
    told.merge(ProfileNumbers::makeRows("ofRank", masks));
    return told;
}

/// This host, on its first process; empty on the others. Collective over the ranks of the host.
Properties describeHost() {
    const MachineHost& host = MachineGround::getHost();
    const CpuTopology& topology = host.getCpuTopology();
    const bool isKnown = topology.reliableLpuInformationAvailable();
    const std::vector<std::vector<long long>> masks =
        isKnown ? gatherMasks(topology) : std::vector<std::vector<long long>>();
    Properties told;
    if (!host.firstProcessOnHost())
        return told;
    std::vector<unsigned> ranks{0};
    if (MachineGround::isParallel()) {
        ranks.clear();
        host.getMpiRanks(ranks);
    }
    told.set("name", host.getHostName());
    if (isKnown)
        told.set("cores", topology.getNumberPhysicalCores());
    told.set("memory", Platform::chip().getMemorySize());
    told.set("ranks", ranks);
    if (isKnown)
        told.set("affinity", tellAffinity(topology, masks));
    if (const int excess = host.isOverSubscribed(); excess != 0)
        told.set(EXCESS, excess);
    return told;
}

} // namespace

std::vector<unsigned> ProfileHosts::listHostOfRank() {
    std::vector<unsigned> hostOfRank(MachineGround::nProcesses(), 0);
    if (MachineGround::isSerial())
        return hostOfRank;
    const MachineHost::HostPidMap& processes = MachineGround::getHost().getHostPidMap();
    std::vector<const std::string*> names(hostOfRank.size());
    for (const auto& [name, process] : processes)
        names[process.second] = &name;
    std::map<std::string, unsigned> indices;
    for (std::size_t rank = 0; rank < names.size(); ++rank)
        hostOfRank[rank] =
            indices.try_emplace(*names[rank], static_cast<unsigned>(indices.size())).first->second;
    return hostOfRank;
}

void ProfileHosts::gather(Properties& document) {
    const Properties mine = describeHost();
    std::vector<Properties> hosts{mine};
    if (MachineGround::isParallel()) {
        hosts.clear();
        std::vector<std::string> texts;
        MachineGround::globalCommunicator().gather(mine.empty() ? std::string() : mine.toString(), texts,
                                                   MASTER);
        for (const std::string& text : texts) // in rank order, one for the first process of each host
            if (!text.empty())
                hosts.emplace_back(text);
    }
    if (!MachineGround::isSerialOrMaster())
        return;
    document.set("hosts", hosts);
    document.set("rankHost", listHostOfRank());
}

std::string ProfileHosts::warnOfOverSubscription(const Properties& document) {
    std::vector<Properties> hosts;
    document.get("hosts", hosts);
    std::size_t count = 0;
    std::string first;
    for (const Properties& host : hosts)
        if (host.hasName(EXCESS) && count++ == 0)
            first = host.getString("name");
    if (count == 0)
        return {};
    return count == 1
               ? "The host " + first + " has more processes than cores"
               : std::to_string(count) + " hosts have more processes than cores, the first is " + first;
}
