#include "machine/hybrid/ThreadBindingReport.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"

#include "platform/Host.h"

#include <iostream>
#include <sstream>

namespace {

constexpr unsigned MASK_LENGTH = 60; ///< of a printed mask's description

/// The part of this process.
std::string describeProcess(unsigned rank, const std::vector<std::string>& affinities) {
    const CpuTopology& topology = MachineGround::getHost().getCpuTopology();
    std::ostringstream text;
    text << "  Hybrid Process #" << rank << " (";
    if (!affinities.empty())
        text << "threads = " << affinities.size() << ", ";
    text << "on " << MachineGround::getHost().getHostName() << "):\n    Process Affinity = "
         << topology.printAffinityMask(Affinity::getProcessAffinity(topology), MASK_LENGTH) << "\n";
    for (const std::string& affinity : affinities)
        text << "    " << affinity << "\n";
    if (affinities.empty())
        text << "    -- No Thread Affinities Available --\n";
    return text.str();
}

} // namespace

void ThreadBindingReport::print(const std::string& name, const std::vector<std::string>& affinities,
                                Communicator* sparse) {
    const bool local = !affinities.empty();
    bool any = local;
    bool all = local;
    auto total = static_cast<unsigned>(affinities.size());
    if (sparse) {
        sparse->allReduce(any, Communicator::LOGICAL_OR);
        if (any) {
            sparse->allReduce(all, Communicator::LOGICAL_AND);
            sparse->allReduce(total, Communicator::SUM);
        }
    }
    if (!any)
        return;
    std::string text;
    if (!sparse || sparse->myRank() == Communicator::masterRank()) {
        text = "Thread Binding Report for \"" + name + "\"";
        if (all)
            text += " (total number of threads = " + std::to_string(total) + ")";
        text += ":\n";
    }
    text += describeProcess(sparse ? sparse->myRank() : 0, affinities);
    if (!sparse) {
        std::cout << text << std::flush;
        return;
    }
    std::string whole;
    std::vector<unsigned> counts;
    sparse->gatherVector(text, whole, counts, Communicator::masterRank());
    if (sparse->myRank() == Communicator::masterRank())
        std::cout << whole << std::flush;
}
