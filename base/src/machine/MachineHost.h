#pragma once

#include "machine/MachineExport.h"

#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class AffinityMask;
class Communicator;
class CpuTopology;
enum CpuBindingPolicy : int;
class Properties;

/// The hosts of the job as this process sees them: the ranks that share a host, its hardware, and the
/// communicators within a host and among the first ranks of all hosts.
///
/// Two ranks are on the same host exactly when they report the same host name. Built once by Machine and then
/// constant; the readers are local and may be called from any thread.
class ORVEX_MACHINE_EXPORT MachineHost {
public:
    /// Host name to (process identifier, global rank) of every process of the job; the entries of a host
    /// stand in ascending rank.
    using HostPidMap = std::multimap<std::string, std::pair<unsigned, unsigned>>;

    /// Collective over the global communicator in a parallel job. Main thread.
    /// @throw InternalError, or the error of the message layer, when a message fails; hardware that can't be
    /// read is no failure
    MachineHost();
    ~MachineHost();
    MachineHost(const MachineHost&) = delete;
    MachineHost& operator=(const MachineHost&) = delete;

    /// The name that the message layer gives this host, in a serial process the operating system.
    const std::string& getHostName() const { return _hostName; }
    /// Of the whole job.
    unsigned getNumberHosts() const { return _numberHosts; }
    /// The hardware of this host, looked at once for each host.
    const CpuTopology& getCpuTopology() const { return *_cpuTopology; }
    /// The same on all processes of the job.
    const HostPidMap& getHostPidMap() const { return _hostPidMap; }
    /// Appends each host name once, in ascending order.
    void getHostNames(std::vector<std::string>& names) const;

    /// Number of processes of the job on this host.
    unsigned getNumberProcesses() const;
    /// Appends the process identifiers on this host, in ascending rank.
    void getPids(std::vector<unsigned>& pids) const { getPids(_hostName, pids); }
    /// The same for a host of the job; a name that no process gave appends nothing.
    void getPids(const std::string& host, std::vector<unsigned>& pids) const;
    /// Appends the global ranks on this host, ascending.
    void getMpiRanks(std::vector<unsigned>& ranks) const { getMpiRanks(_hostName, ranks); }
    /// The same for a host of the job; a name that no process gave appends nothing.
    void getMpiRanks(const std::string& host, std::vector<unsigned>& ranks) const;

    /// Whether global rank 0 runs on this host; false in a serial process.
    bool masterOnHost() const { return _masterOnHost; }
    /// All processes of this host, in ascending global rank. @throw InternalError in a serial process
    Communicator& getIntraHostComm() const;
    /// Rank within the host, 0 in a serial process.
    unsigned getIntraHostRank() const;
    bool firstProcessOnHost() const { return getIntraHostRank() == 0; }

    // ---- Placement. Main thread.

    /// Under a batch system, limits all placement to the processors that it gave the job's processes on this
    /// host, also where it gave them by affinity alone; elsewhere nothing. Collective over the job. Once,
    /// before anything is bound.
    /// @param processors  on which this process could run at its start, by the system's numbers
    void keepToBatchJob(const std::vector<unsigned>& processors);

    /// How many processes of the job on this host have no physical core of their own among those that this
    /// process may use; 0 when there are enough, or when nothing is known of the hardware. Local.
    int isOverSubscribed() const;
    /// Binds each process of the job on this host by `policy`. Collective over the processes of the host.
    /// @return whether all of them are bound; false at once, with nothing done, on an over-subscribed host
    /// @throw InternalError for a policy that doesn't exist
    bool bindProcesses(CpuBindingPolicy policy) const;
    /// The same by the policy of the job: that of the option -cpubind, BANDWIDTH_BINDING without it.
    bool bindProcesses() const;
    /// The union of the bindings of the job's processes on this host. Collective over them.
    AffinityMask getHostAffinity() const;

    /// Whether processes of this executable run here that aren't of this job. Local.
    bool hasMultipleServersRunning() const;
    /// Whether this server and others are bound to the same cores of this host. Collective over the processes
    /// of the host, and with `verbose`, which has to be equal everywhere, over the job.
    /// @param verbose  writes the findings to the master's standard output
    bool hasCpuContention(bool verbose) const;
    /// Moves the server on this host to cores that no other server holds; looks again after each move and
    /// retries after random pauses, up to 9 s in all. Collective over the processes of the host.
    /// @return whether it found a place
    /// @throw InternalError for a binding policy that doesn't exist
    bool resolveCpuContention(CpuBindingPolicy policy, bool verbose) const;
    /// The same by the policy of the job: that of the option -cpubind, BANDWIDTH_BINDING without it.
    bool resolveCpuContention(bool verbose) const;

    // ---- Reports. Where one is collective: over the global communicator, on the main thread.

    /// The summary that a server prints at its start: printTruncatedProcessSummary().
    void printProcessSummary() const { printTruncatedProcessSummary(); }
    /// Writes the ranks of each host as ranges to the standard output. On the master only, elsewhere nothing.
    /// Local.
    void printTruncatedProcessSummary() const;
    /// Writes one line for each rank to the standard output. On the master only, elsewhere nothing. Local.
    void printCompleteProcessSummary() const;
    /// printProcessAffinitySummary(true, false, false, true). Collective over the job.
    void printProcessAffinitySummary() const;
    /// Writes the hardware of the hosts and the binding of each process to the master's standard output: one
    /// block when all hosts are alike. Collective over the job.
    /// @param numaNodes, physicalCores, summary  which parts of the hardware, see CpuTopology::print()
    /// @param gather  brings the texts of the hosts to the master at once, else one after the other
    void printProcessAffinitySummary(bool numaNodes, bool physicalCores, bool summary, bool gather) const;
    /// Fills `out` with the processes, hardware and software of this host, on its first process; leaves it
    /// alone on the others. Local.
    void getSystemInformation(Properties& out) const;
    /// Sets "hosts" of `out`: on the master one entry for each host with its "hostname" and its "masks",
    /// elsewhere none. Collective over the job.
    void gatherAffinityPropertiesToMaster(Properties& out) const;

private:
    friend class MachineHostTestAccess;
    friend class StartBench;

    enum class MoveResult { RESOLVED, CONFLICT, NO_ROOM };

    /// A job whose ranks claim to be on the hosts that they name.
    explicit MachineHost(const std::string& hostName);

    bool hasIntraHostComm() const { return _intraHostComm != nullptr; }
    bool hasInterHostComm() const { return _interHostComm != nullptr; }
    Communicator& getInterHostComm() const;

    void gatherProcesses();
    void buildCommunicators();
    void buildTopology();
    /// The hardware as the first of these processes reads it, for all of them. When it finds none, each reads
    /// by itself; unless all find some, the hardware is unknown to all. Collective over the processes of one
    /// host.
    static std::unique_ptr<CpuTopology> shareTopology(Communicator& processes);
    std::vector<std::string> gatherHostNames() const;
    /// Lowest global rank on a host to the host's name.
    std::map<unsigned, std::string> getHostsByFirstRank() const;
    /// All processors of this host that this process may use.
    AffinityMask getAvailableMask() const;

    // ---- Contention. A stream takes a report on the writer: a serial process or the first of the host.
    bool isWriter() const;
    std::vector<unsigned> getOtherServerPids(const std::vector<unsigned>& currentPids,
                                             std::ostream* stream) const;
    /// Whole physical cores; a process that isn't bound, or whose binding can't be read, occupies none.
    AffinityMask getOccupiedCores(const CpuTopology& topology, const std::vector<unsigned>& pids,
                                  std::ostream* stream) const;
    bool detectContention(std::ostream* os) const;
    void writeAccounting(std::ostream& os, const AffinityMask& current, const AffinityMask& others) const;
    void writeOnMaster(const std::string& text) const;
    /// Collective over the host: whether all its processes see others on the same cores.
    bool isSeenByAll(const AffinityMask& others) const;
    MoveResult moveAway(CpuBindingPolicy policy, const std::vector<unsigned>& currentPids) const;
    void pauseBeforeNextAttempt(bool verbose) const;

    // ---- Parts of reports.
    bool agreeOnHost(bool value) const;
    bool haveAllSameTopology() const;
    bool haveAllSameNumberOfProcesses() const;
    std::string printRankAffinities(const std::vector<std::vector<unsigned>>& lpuLists) const;
    void getAffinityProperties(Properties& out) const;

    std::string _hostName;
    unsigned _pid;
    unsigned _numberHosts = 1;
    bool _masterOnHost = false;
    // In this order: the last goes first.
    std::unique_ptr<Communicator> _interHostComm; ///< null but on the first process of each host
    std::unique_ptr<Communicator> _intraHostComm; ///< null in serial
    HostPidMap _hostPidMap;
    std::unique_ptr<CpuTopology> _cpuTopology;
};
