// Reports of a host for the user and the client: its processes, their bindings and the hardware.

#include "machine/MachineHost.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineGround.h"
#include "machine/MpiCore.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Chip.h"
#include "platform/System.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace {

constexpr unsigned MASK_LENGTH = 60; ///< of a printed mask's description

/// Ascending ranks as maximal runs: "0-2, 5".
std::string formatRuns(const std::vector<unsigned>& ranks) {
    std::ostringstream text;
    for (std::size_t first = 0; first < ranks.size();) {
        std::size_t last = first;
        while (last + 1 < ranks.size() && ranks[last + 1] == ranks[last] + 1)
            ++last;
        text << (first == 0 ? "" : ", ") << ranks[first];
        if (last > first)
            text << '-' << ranks[last];
        first = last + 1;
    }
    return text.str();
}

void printMpiDistribution(std::ostream& out) {
    out << "MPI Distribution : " << MpiCore::getDistribName();
    if (!MpiCore::getMpiVersionName().empty())
        out << '-' << MpiCore::getMpiVersionName();
    out << '\n';
}

/// Collective: whether each of the values is the same on all processes.
bool allEqualAcross(Communicator& communicator, const std::vector<unsigned>& list) {
    const auto areEqual = [&](std::vector<unsigned> values) {
        // The complement of the smallest value is the largest complement: one reduction for both.
        const std::size_t count = values.size();
        for (std::size_t i = 0; i < count; ++i)
            values.push_back(~values[i]);
        communicator.allReduce(values, Communicator::MAX);
        return std::equal(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(count),
                          values.begin() + static_cast<std::ptrdiff_t>(count),
                          [](unsigned largest, unsigned complement) { return largest == ~complement; });
    };
    return areEqual({static_cast<unsigned>(list.size())}) && (list.empty() || areEqual(list));
}

/// Collective: brings the texts to the standard output of rank 0, in rank order, at once or one by one.
void hostOutput(Communicator& firstProcesses, const std::string& text, bool gather) {
    const unsigned root = Communicator::masterRank();
    const unsigned me = firstProcesses.myRank();
    if (gather) {
        std::vector<std::string> texts;
        firstProcesses.gather(text, texts, root);
        for (const std::string& each : texts)
            std::cout << each;
        std::cout << std::flush;
        return;
    }
    for (unsigned rank = 0; rank < firstProcesses.size(); ++rank) {
        if (me == root) {
            std::string received = text;
            if (rank != root)
                firstProcesses.recv(received, rank);
            std::cout << received << std::flush;
        } else if (me == rank) {
            firstProcesses.send(text, root);
        }
    }
    firstProcesses.synchronise();
}

/// One list for each process out of the lists of all, one behind the other.
std::vector<std::vector<unsigned>> cut(const std::vector<unsigned>& all,
                                       const std::vector<unsigned>& counts) {
    std::vector<std::vector<unsigned>> lists;
    auto first = all.begin();
    for (const unsigned count : counts) {
        lists.emplace_back(first, first + count);
        first += count;
    }
    return lists;
}

/// A flag for each logical processing unit of the topology.
std::vector<bool> flagsOf(const CpuTopology& topology, const AffinityMask& mask) {
    std::vector<bool> flags(topology.getNumberLpus(), false);
    for (const unsigned lpu : topology.getLpusFromMask(mask))
        flags[lpu] = true;
    return flags;
}

Properties tellTopology(const CpuTopology& topology) {
    Properties told;
    const unsigned sockets = topology.getNumberSockets();
    const unsigned coresPerSocket = topology.getNumberPhysicalCores() / sockets;
    told.set("NumberSockets", sockets);
    told.set("NumberCoresPerSocket", coresPerSocket);
    // A host with fewer cores than sockets is odd, but no reason to stop.
    told.set("NumberThreadsPerCore",
             coresPerSocket == 0 ? 0u : topology.getNumberLpus() / sockets / coresPerSocket);
    std::vector<Properties> all;
    for (unsigned socket = 0; socket < sockets; ++socket) {
        std::vector<Properties> cores;
        for (const unsigned core : topology.getPhysicalCoresForSocket(socket)) {
            cores.emplace_back();
            cores.back().set("Rank", core);
            cores.back().set("LogicalProcessingUnitRanks", topology.getLpusForPhysicalCore(core));
        }
        all.emplace_back();
        all.back().set("Rank", socket);
        all.back().set("PhysicalCores", cores);
    }
    told.set("Sockets", all);
    return told;
}

Properties tellHardware(const CpuTopology& topology) {
    Properties chip;
    chip.set("model", Platform::chip().getModel());
    chip.set("architecture", Platform::chip().getArchitecture());
    chip.set("clock speed", Platform::chip().getClockSpeed());
    chip.set("cache", Platform::chip().getCacheSize());
    Properties hardware;
    hardware.set("ram", Platform::chip().getMemorySize());
    hardware.set("nprocs", topology.getNumberSockets());
    hardware.set("ncores", topology.getNumberLpusForSocket(0));
    hardware.set("chip", chip);
    hardware.set("topology", tellTopology(topology));
    if (topology.usesSMT())
        hardware.set("ht", true);
    return hardware;
}

} // namespace

void MachineHost::printTruncatedProcessSummary() const {
    if (!MachineGround::isMaster())
        return;
    std::size_t nameWidth = 0;
    for (const auto& entry : _hostPidMap)
        nameWidth = std::max(nameWidth, entry.first.size());
    const int indexWidth = static_cast<int>(std::to_string(_numberHosts).size());

    printMpiDistribution(std::cout);
    std::ostringstream processIdentifiers;
    unsigned index = 0;
    const std::map<unsigned, std::string> hosts = getHostsByFirstRank();
    for (const auto& [firstRank, host] : hosts) {
        std::vector<unsigned> ranks;
        std::vector<unsigned> pids;
        getMpiRanks(host, ranks);
        getPids(host, pids);
        std::cout << "Host " << std::setw(indexWidth) << index << " -- " << host
                  << std::string(nameWidth - host.size(), ' ') << " -- Ranks " << formatRuns(ranks) << '\n';
        if (MachineGround::getPrintpids())
            for (std::size_t k = 0; k < ranks.size(); ++k)
                processIdentifiers << "Host ID " << index << " Rank " << ranks[k] << " on " << host
                                   << " with process ID " << pids[k] << '\n';
        ++index;
    }
    std::cout << "Process rank 0 " << hosts.begin()->second << ' ' << _pid << '\n'
              << "Total number of processes : " << MachineGround::nProcesses() << std::endl;
    if (MachineGround::getPrintpids())
        std::cout << '\n' << processIdentifiers.str() << std::flush;
}

void MachineHost::printCompleteProcessSummary() const {
    if (!MachineGround::isMaster())
        return;
    std::vector<std::pair<std::string, unsigned>> processes(MachineGround::nProcesses());
    for (const auto& [host, process] : _hostPidMap)
        processes[process.second] = {host, process.first};
    printMpiDistribution(std::cout);
    for (std::size_t rank = 0; rank < processes.size(); ++rank)
        std::cout << "Process rank " << rank << ' ' << processes[rank].first << ' ' << processes[rank].second
                  << '\n';
    std::cout << std::flush;
}

void MachineHost::printProcessAffinitySummary() const {
    printProcessAffinitySummary(true, false, false, true);
}

void MachineHost::printProcessAffinitySummary(bool numaNodes, bool physicalCores, bool summary,
                                              bool gather) const {
    const CpuTopology& topology = getCpuTopology();
    const AffinityMask mask = Affinity::getProcessAffinity(topology);
    const std::string topologyText = topology.print(true, numaNodes, physicalCores, summary, 4, 28);
    if (MachineGround::isSerial()) {
        std::cout << "CPU Affinity Report (" << _hostName << ") :\n"
                  << topologyText
                  << "    Rank - 0, Affinity = " << topology.printAffinityMask(mask, MASK_LENGTH)
                  << std::endl;
        return;
    }
    const bool sameTopology = haveAllSameTopology();
    bool samePlacement = sameTopology && haveAllSameNumberOfProcesses();

    std::vector<unsigned> lpus;
    std::vector<unsigned> counts;
    getIntraHostComm().gatherVector(topology.getLpusFromMask(mask), lpus, counts, 0);
    if (samePlacement) {
        if (hasInterHostComm()) {
            ORVEX_ASSERT(firstProcessOnHost(),
                         "Intra-host master must be included in inter-host communicator.");
            const bool sameLpus = allEqualAcross(getInterHostComm(), lpus);
            const bool sameCounts = allEqualAcross(getInterHostComm(), counts);
            samePlacement = sameLpus && sameCounts;
        }
        samePlacement = agreeOnHost(samePlacement);
    }
    if (!firstProcessOnHost())
        return;
    const std::string rankText = printRankAffinities(cut(lpus, counts));
    if (_numberHosts < 2) {
        std::cout << "CPU Affinity Report (" << _hostName << ") :\n"
                  << topologyText << rankText << std::flush;
        return;
    }
    ORVEX_ASSERT(hasInterHostComm(), "Intra-host master must be part of the inter-host communicator.");
    const bool isRoot = getInterHostComm().myRank() == Communicator::masterRank();
    if (samePlacement) {
        if (isRoot)
            std::cout << "CPU Affinity Report (equal for all hosts) :\n"
                      << topologyText << rankText << std::flush;
        return;
    }
    if (isRoot) {
        std::cout << "CPU Affinity Report :\n";
        if (sameTopology)
            std::cout << "  CPU Topology for all Hosts :\n" << topologyText;
    }
    hostOutput(getInterHostComm(),
               "  " + _hostName + " :\n" + (sameTopology ? std::string() : topologyText) + rankText, gather);
}

bool MachineHost::agreeOnHost(bool value) const {
    getIntraHostComm().allReduce(value, Communicator::LOGICAL_AND);
    return value;
}

bool MachineHost::haveAllSameTopology() const {
    bool same = true;
    if (firstProcessOnHost()) {
        const CpuTopology& topology = getCpuTopology();
        const unsigned sockets = topology.getNumberSockets();
        const unsigned numaNodes = topology.getNumberNumaNodes();
        const unsigned cores = topology.getNumberPhysicalCores();
        same = allEqualAcross(getInterHostComm(), {sockets, numaNodes, cores, topology.usesSMT() ? 1u : 0u});
        if (same) {
            std::vector<unsigned> sizes;
            for (unsigned i = 0; i < sockets; ++i)
                sizes.push_back(topology.getNumberLpusForSocket(i));
            for (unsigned i = 0; i < numaNodes; ++i)
                sizes.push_back(topology.getNumberLpusForNumaNode(i));
            for (unsigned i = 0; i < cores; ++i)
                sizes.push_back(topology.getNumberLpus(i));
            same = allEqualAcross(getInterHostComm(), sizes);
        }
    }
    return agreeOnHost(same);
}

bool MachineHost::haveAllSameNumberOfProcesses() const {
    bool same = true;
    if (firstProcessOnHost()) {
        unsigned most = getNumberProcesses();
        unsigned least = most;
        getInterHostComm().allReduce(most, Communicator::MAX);
        getInterHostComm().allReduce(least, Communicator::MIN);
        same = most == least;
    }
    return agreeOnHost(same);
}

std::string MachineHost::printRankAffinities(const std::vector<std::vector<unsigned>>& lpuLists) const {
    const CpuTopology& topology = getCpuTopology();
    const int width = static_cast<int>(std::to_string(lpuLists.size() - 1).size());
    std::ostringstream out;
    for (std::size_t i = 0; i < lpuLists.size(); ++i)
        out << "    Rank - " << std::setw(width) << i
            << ", Affinity = " << topology.printAffinityMask(topology.getLpuMask(lpuLists[i]), MASK_LENGTH)
            << "\n";
    return out.str();
}

void MachineHost::getSystemInformation(Properties& out) const {
    if (getIntraHostRank() != 0)
        return;
    const CpuTopology& topology = getCpuTopology();
    std::vector<unsigned> ranks;
    std::vector<unsigned> pids;
    getMpiRanks(ranks);
    getPids(pids);
    std::vector<Properties> processes;
    for (std::size_t i = 0; i < ranks.size(); ++i) {
        processes.emplace_back();
        processes.back().set("mpirank", ranks[i]);
        processes.back().set("pid", pids[i]);
        processes.back().set("affinitymask",
                             flagsOf(topology, Affinity::getProcessAffinity(topology, pids[i])));
    }
    Properties software;
    software.set("os", Platform::system().getOs());
    software.set("glibc", Platform::system().getGlibc());
    out.set("ranks", ranks);
    out.set("pids", pids);
    out.set("processes", processes);
    out.set("hostname", _hostName);
    out.set("software", software);
    out.set("hardware", tellHardware(topology));
}

void MachineHost::getAffinityProperties(Properties& out) const {
    const CpuTopology& topology = getCpuTopology();
    const unsigned lpus = topology.getNumberLpus();
    std::vector<unsigned> ranks{0};
    const std::vector<bool> mine =
        flagsOf(topology, MachineGround::isParallel() ? Affinity::getProcessAffinity(topology)
                                                      : Affinity::getThreadAffinity(topology));
    std::vector<unsigned char> flags(mine.begin(), mine.end());
    if (MachineGround::isParallel()) {
        std::vector<unsigned char> all;
        getIntraHostComm().allGather(flags, all);
        flags.swap(all);
        getIntraHostComm().allGather(MachineGround::getPartitionId(), ranks);
    }
    std::vector<Properties> masks;
    for (std::size_t i = 0; i < ranks.size(); ++i) {
        const auto first = flags.begin() + static_cast<std::ptrdiff_t>(i * lpus);
        masks.emplace_back();
        masks.back().set("rank", ranks[i]);
        masks.back().set("mask", std::vector<bool>(first, first + lpus));
    }
    out.set("hostname", _hostName);
    out.set("masks", masks);
}

void MachineHost::gatherAffinityPropertiesToMaster(Properties& out) const {
    Properties mine;
    getAffinityProperties(mine);
    std::vector<Properties> hosts;
    if (MachineGround::isSerial())
        hosts.push_back(mine);
    else if (hasInterHostComm())
        getInterHostComm().gather(mine, hosts);
    out.set("hosts", hosts);
}
