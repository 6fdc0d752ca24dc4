#pragma once

#include "machine/MachineExport.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class Communicator;

/// This process's view of how the job lies on the machines: which ranks share a host, and the communicators
/// within a host and among the first ranks of all hosts.
///
/// Two ranks are on the same host exactly when they report the same host name. Built once by Machine and then
/// constant; the readers are local and may be called from any thread.
class ORVEX_MACHINE_EXPORT MachineHost {
public:
    /// Host name to (process identifier, global rank) of every process of the job; the entries of a host
    /// stand in ascending rank.
    using HostPidMap = std::multimap<std::string, std::pair<unsigned, unsigned>>;

    /// Collective over the global communicator in a parallel job. Main thread.
    MachineHost();
    ~MachineHost();
    MachineHost(const MachineHost&) = delete;
    MachineHost& operator=(const MachineHost&) = delete;

    const std::string& getHostName() const { return _hostName; }
    unsigned getNumberHosts() const { return _numberHosts; }
    const HostPidMap& getHostPidMap() const { return _hostPidMap; }
    /// Appends each host name once, in ascending order.
    void getHostNames(std::vector<std::string>& names) const;

    /// Number of processes of the job on this host.
    unsigned getNumberProcesses() const;
    /// Appends the process identifiers on this host, in ascending rank.
    void getPids(std::vector<unsigned>& pids) const { getPids(_hostName, pids); }
    void getPids(const std::string& host, std::vector<unsigned>& pids) const;
    /// Appends the global ranks on this host, ascending.
    void getMpiRanks(std::vector<unsigned>& ranks) const { getMpiRanks(_hostName, ranks); }
    void getMpiRanks(const std::string& host, std::vector<unsigned>& ranks) const;

    /// Whether global rank 0 runs on this host; false in a serial process.
    bool masterOnHost() const { return _masterOnHost; }
    bool hasIntraHostComm() const { return _intraHostComm != nullptr; }
    /// All processes of this host, in ascending global rank. @throw InternalError in a serial process
    Communicator& getIntraHostComm() const;
    /// Rank within the host, 0 in a serial process.
    unsigned getIntraHostRank() const;
    bool firstProcessOnHost() const { return getIntraHostRank() == 0; }

    /// The summary that a server prints at its start: printTruncatedProcessSummary().
    void printProcessSummary() const { printTruncatedProcessSummary(); }
    /// Writes the ranks of each host as ranges to the standard output. On the master only, elsewhere nothing.
    /// Local.
    void printTruncatedProcessSummary() const;
    /// Writes one line for each rank to the standard output. On the master only, elsewhere nothing. Local.
    void printCompleteProcessSummary() const;

private:
    friend class MachineHostTestAccess;

    /// A job whose ranks claim to be on the hosts that they name.
    explicit MachineHost(const std::string& hostName);

    bool hasInterHostComm() const { return _interHostComm != nullptr; }
    Communicator& getInterHostComm() const;

    void gatherProcesses();
    void buildCommunicators();
    std::vector<std::string> gatherHostNames() const;
    /// Lowest global rank on a host to the host's name.
    std::map<unsigned, std::string> getHostsByFirstRank() const;

    std::string _hostName;
    unsigned _pid;
    unsigned _numberHosts = 1;
    bool _masterOnHost = false;
    // In this order: the communicator within the host is let go first.
    std::unique_ptr<Communicator> _interHostComm; ///< null but on the first process of each host
    std::unique_ptr<Communicator> _intraHostComm; ///< null in serial
    HostPidMap _hostPidMap;
};
