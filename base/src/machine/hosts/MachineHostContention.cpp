// Other servers on this host: this one finds them in the list of processes and moves to free cores.

#include "machine/MachineHost.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuBinder.h"
#include "machine/CpuTopology.h"
#include "machine/MachineGround.h"
#include "machine/ground/MachineOptions.h"

#include "platform/Process.h"
#include "platform/Time.h"

#include <algorithm>
#include <iostream>
#include <random>
#include <sstream>

namespace {

constexpr unsigned MASK_LENGTH = 60; ///< of a printed mask's description
constexpr unsigned MAX_ATTEMPTS = 10;
// Bounds of the pause between two attempts [ms]: servers that started together part again.
constexpr unsigned SHORTEST_PAUSE = 100;
constexpr unsigned LONGEST_PAUSE = 1000;

std::vector<unsigned> getPidsOfExecutable() {
    const std::vector<int> found = Platform::process().getPids(MachineGround::getExecutableName());
    std::vector<unsigned> pids(found.begin(), found.end());
    std::sort(pids.begin(), pids.end());
    return pids;
}

void writePids(std::ostream& out, const char* label, const std::vector<unsigned>& pids) {
    out << label << " : {";
    for (std::size_t i = 0; i < pids.size(); ++i)
        out << (i == 0 ? "" : ", ") << pids[i];
    out << "}\n";
}

unsigned drawPause() {
    // Each pause of each process has its own generator, so that two servers don't wait in step.
    std::mt19937_64 generator(std::random_device{}());
    return std::uniform_int_distribution<unsigned>(SHORTEST_PAUSE, LONGEST_PAUSE)(generator);
}

} // namespace

bool MachineHost::isWriter() const {
    return MachineGround::isSerial() || firstProcessOnHost();
}

std::vector<unsigned> MachineHost::getOtherServerPids(const std::vector<unsigned>& currentPids,
                                                      std::ostream* stream) const {
    std::vector<unsigned> others = getPidsOfExecutable();
    std::erase_if(others, [&](unsigned pid) {
        return std::find(currentPids.begin(), currentPids.end(), pid) != currentPids.end();
    });
    if (stream && isWriter()) {
        writePids(*stream, "    Current Server, PIDs", currentPids);
        if (others.empty())
            *stream << "    No other server processes found on this host.\n";
        else
            writePids(*stream, "    Other Servers, PIDs", others);
    }
    return others;
}

AffinityMask MachineHost::getOccupiedCores(const CpuTopology& topology, const std::vector<unsigned>& pids,
                                           std::ostream* stream) const {
    const AffinityMask available = topology.restrictToAvailableResources(topology.getTopologyMask());
    AffinityMask occupied;
    for (const unsigned pid : pids) {
        AffinityMask mask = Affinity::getProcessAffinity(topology, pid);
        if (stream && isWriter())
            *stream << "    PID - " << pid << ", Affinity = " << topology.printAffinityMask(mask, MASK_LENGTH)
                    << "\n";
        mask &= available;
        if (mask != available) // else it isn't bound to anything in particular
            occupied |= mask;
    }
    // Whole cores: a process on one logical processing unit slows the others of the core down.
    return topology.getPhysicalCoreMask(topology.getPhysicalCoresFromMask(occupied));
}

bool MachineHost::hasMultipleServersRunning() const {
    return getPidsOfExecutable().size() > getNumberProcesses();
}

bool MachineHost::hasCpuContention(bool verbose) const {
    if (MachineGround::isParallel())
        getIntraHostComm().synchronise(); // each process bound itself; the writer looks at all of them
    bool contention = false;
    if (isWriter()) {
        std::ostringstream os;
        contention = detectContention(verbose ? &os : nullptr);
        if (verbose)
            writeOnMaster(os.str());
    }
    if (MachineGround::isParallel())
        getIntraHostComm().broadcast(contention, 0);
    return contention;
}

bool MachineHost::detectContention(std::ostream* os) const {
    const CpuTopology& topology = getCpuTopology();
    if (os)
        *os << "Checking CPU contention on host " << _hostName << ":\n";
    std::vector<unsigned> currentPids;
    getPids(currentPids);
    std::sort(currentPids.begin(), currentPids.end());
    const std::vector<unsigned> otherPids = getOtherServerPids(currentPids, os);
    bool contention = false;
    if (!otherPids.empty()) {
        if (os)
            *os << "    ----------\n    Current Server:\n";
        const AffinityMask current = getOccupiedCores(topology, currentPids, os);
        if (os)
            *os << "    ----------\n    Other Servers:\n";
        const AffinityMask others = getOccupiedCores(topology, otherPids, os);
        contention = current.intersectsWith(others);
        if (os)
            writeAccounting(*os, current, others);
    }
    if (os)
        *os << "    ----------\n    " << (contention ? "" : "No ")
            << "CPU contention detected for servers on " << _hostName << ".\n";
    return contention;
}

void MachineHost::writeAccounting(std::ostream& os, const AffinityMask& current,
                                  const AffinityMask& others) const {
    const CpuTopology& topology = getCpuTopology();
    const auto write = [&](const char* label, const AffinityMask& mask) {
        const std::size_t count = topology.getPhysicalCoresFromMask(mask).size();
        os << label << topology.printAffinityMask(mask, MASK_LENGTH) << " = (" << count
           << (count == 1 ? " core)" : " cores)");
    };
    os << "    ----------\n    Cores Occupied by ...";
    write("\n      ... Current Server: ", current);
    write("\n      ... Other Servers:  ", others);
    write("\n    Over-subscribed Cores on Host:  ", current & others);
    write("\n    => Available to Current Server: ",
          topology.restrictToAvailableResources(others ^ topology.getTopologyMask()));
    os << "\n";
}

void MachineHost::writeOnMaster(const std::string& text) const {
    if (MachineGround::isSerial()) {
        std::cout << text << std::flush;
        return;
    }
    Communicator& firstProcesses = getInterHostComm();
    std::vector<std::string> texts;
    firstProcesses.gather(text, texts, Communicator::masterRank());
    if (firstProcesses.myRank() != Communicator::masterRank())
        return;
    for (const std::string& each : texts)
        std::cout << each;
    std::cout << std::flush;
}

bool MachineHost::isSeenByAll(const AffinityMask& others) const {
    if (MachineGround::isSerial())
        return true;
    Communicator& processes = getIntraHostComm();
    const std::vector<unsigned> lpus = getCpuTopology().getLpusFromMask(others);
    unsigned long long largest = lpus.size();
    processes.allReduce(largest, Communicator::MAX);
    bool same = lpus.size() == largest;
    processes.allReduce(same, Communicator::LOGICAL_AND);
    if (!same)
        return false;
    std::vector<unsigned> all = lpus;
    processes.allReduce(all, Communicator::BITWISE_OR);
    bool differ = lpus != all;
    processes.allReduce(differ, Communicator::LOGICAL_OR);
    return !differ;
}

bool MachineHost::resolveCpuContention(CpuBindingPolicy policy, bool verbose) const {
    std::vector<unsigned> currentPids;
    getPids(currentPids);
    for (unsigned attempt = 0; attempt < MAX_ATTEMPTS; ++attempt) {
        if (attempt > 0)
            pauseBeforeNextAttempt(verbose);
        switch (moveAway(policy, currentPids)) {
        case MoveResult::RESOLVED:
            return true;
        case MoveResult::NO_ROOM:
            return false; // and no retry can make any
        case MoveResult::CONFLICT:
            break;
        }
    }
    return false;
}

bool MachineHost::resolveCpuContention(bool verbose) const {
    return resolveCpuContention(MachineGround::getOptions().bindingPolicy, verbose);
}

MachineHost::MoveResult MachineHost::moveAway(CpuBindingPolicy policy,
                                              const std::vector<unsigned>& currentPids) const {
    const CpuTopology& topology = getCpuTopology();
    AffinityMask others = getOccupiedCores(topology, getOtherServerPids(currentPids, nullptr), nullptr);
    // Each process looked by itself, and all have to choose from the same.
    if (!isSeenByAll(others))
        return MoveResult::CONFLICT;
    const AffinityMask available = topology.restrictToAvailableResources(others ^ topology.getTopologyMask());
    if (getNumberProcesses() > topology.getPhysicalCoresFromMask(available).size())
        return MoveResult::NO_ROOM;
    const bool bound =
        CpuBinder::bindProcess(getIntraHostRank(), getNumberProcesses(), topology, available, policy);
    if (MachineGround::isParallel())
        getIntraHostComm().synchronise(); // a neighbour that is still at its old place would seem a conflict
    // A server that moved at the same moment shows in a second look.
    others = getOccupiedCores(topology, getOtherServerPids(currentPids, nullptr), nullptr);
    const AffinityMask current = getOccupiedCores(topology, currentPids, nullptr);
    bool conflict = !(current & others).empty() || !bound;
    if (MachineGround::isParallel())
        getIntraHostComm().allReduce(conflict, Communicator::LOGICAL_OR);
    return conflict ? MoveResult::CONFLICT : MoveResult::RESOLVED;
}

void MachineHost::pauseBeforeNextAttempt(bool verbose) const {
    const unsigned pause = drawPause();
    if (verbose && MachineGround::isSerialOrMaster())
        std::cout << "Resolving CPU contention failed. Waiting for " << pause << " milliseconds before "
                  << "trying again." << std::endl;
    Platform::time().sleepMilliseconds(pause);
}
