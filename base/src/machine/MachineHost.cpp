#include "machine/MachineHost.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MpiCore.h"

#include "kernel/Raise.h"
#include "platform/Io.h"
#include "platform/Process.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace {

std::string reportedHostName() {
    return Machine::isParallel() ? Machine::globalCommunicator().myName() : Platform::io().getHostName();
}

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

} // namespace

MachineHost::MachineHost() : MachineHost(reportedHostName()) {}

MachineHost::MachineHost(const std::string& hostName)
    : _hostName(hostName), _pid(static_cast<unsigned>(Platform::process().getPid())) {
    gatherProcesses();
    if (Machine::isParallel())
        buildCommunicators();
}

MachineHost::~MachineHost() = default;

void MachineHost::gatherProcesses() {
    const std::vector<std::string> names = gatherHostNames();
    std::vector<unsigned> pids{_pid};
    if (Machine::isParallel())
        Machine::globalCommunicator().allGather(_pid, pids);
    for (unsigned rank = 0; rank < Machine::nProcesses(); ++rank)
        _hostPidMap.emplace(names[rank], std::make_pair(pids[rank], rank));

    std::vector<std::string> hosts;
    getHostNames(hosts);
    _numberHosts = static_cast<unsigned>(hosts.size());
}

std::vector<std::string> MachineHost::gatherHostNames() const {
    std::vector<std::string> names{_hostName};
    if (Machine::isParallel())
        Machine::globalCommunicator().allGather(_hostName, names);
    return names;
}

void MachineHost::buildCommunicators() {
    Communicator& global = Machine::globalCommunicator();
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
    return Machine::isSerial() ? 0 : getIntraHostComm().myRank();
}

void MachineHost::printTruncatedProcessSummary() const {
    if (!Machine::isMaster())
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
        if (Machine::getPrintpids())
            for (std::size_t k = 0; k < ranks.size(); ++k)
                processIdentifiers << "Host ID " << index << " Rank " << ranks[k] << " on " << host
                                   << " with process ID " << pids[k] << '\n';
        ++index;
    }
    std::cout << "Process rank 0 " << hosts.begin()->second << ' ' << _pid << '\n'
              << "Total number of processes : " << Machine::nProcesses() << std::endl;
    if (Machine::getPrintpids())
        std::cout << '\n' << processIdentifiers.str() << std::flush;
}

void MachineHost::printCompleteProcessSummary() const {
    if (!Machine::isMaster())
        return;
    std::vector<std::pair<std::string, unsigned>> processes(Machine::nProcesses());
    for (const auto& [host, process] : _hostPidMap)
        processes[process.second] = {host, process.first};
    printMpiDistribution(std::cout);
    for (std::size_t rank = 0; rank < processes.size(); ++rank)
        std::cout << "Process rank " << rank << ' ' << processes[rank].first << ' ' << processes[rank].second
                  << '\n';
    std::cout << std::flush;
}
