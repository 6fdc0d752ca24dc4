#pragma once

#include "machine/AffinityMask.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineHost.h"

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

/// Builds views of jobs that don't run.
class MachineHostTestAccess {
public:
    /// Collective: this rank says that it is on `hostName`.
    static std::unique_ptr<MachineHost> claim(const std::string& hostName) {
        return std::unique_ptr<MachineHost>(new MachineHost(hostName));
    }
    /// The same view with another job in it: the host of each rank. The process identifiers are 100 + rank.
    static void pretend(MachineHost& host, const std::vector<std::string>& hostOfRank) {
        host._hostPidMap.clear();
        for (unsigned rank = 0; rank < hostOfRank.size(); ++rank)
            host._hostPidMap.emplace(hostOfRank[rank], std::make_pair(100u + rank, rank));
        std::vector<std::string> names;
        host.getHostNames(names);
        host._numberHosts = static_cast<unsigned>(names.size());
        host._pid = 100;
    }
    /// Gives the host other hardware.
    static void equip(MachineHost& host, CpuTopology topology) { *host._cpuTopology = std::move(topology); }
    static AffinityMask getOccupiedCores(const MachineHost& host, const std::vector<unsigned>& pids) {
        return host.getOccupiedCores(host.getCpuTopology(), pids, nullptr);
    }
    static bool hasIntraHostComm(const MachineHost& host) { return host.hasIntraHostComm(); }
    static Communicator* interHostComm(const MachineHost& host) { return host._interHostComm.get(); }
    static Communicator& getInterHostComm(const MachineHost& host) { return host.getInterHostComm(); }
};

/// The text that this rank writes to std::cout while `operation` runs.
template <class F>
std::string printedOnRank(F operation) {
    std::ostringstream text;
    std::streambuf* const console = std::cout.rdbuf(text.rdbuf());
    operation();
    std::cout.rdbuf(console);
    return text.str();
}
