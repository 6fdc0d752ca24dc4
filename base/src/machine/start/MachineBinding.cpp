// The steps of Machine::main that place the job: the look at over-subscribed hosts, binding, and getting out
// of other servers' way.

#include "machine/Machine.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineHost.h"
#include "machine/MpiCore.h"
#include "machine/ground/MachineOptions.h"

#include "platform/Thread.h"

#include <iostream>
#include <string>
#include <vector>

namespace {

const std::string STARS(84, '*');

/// Over the job; the own value in a serial process.
unsigned sumOverJob(unsigned value) {
    if (Machine::isParallel())
        Machine::globalCommunicator().allReduce(value, Communicator::SUM);
    return value;
}

} // namespace

void Machine::testOverSubscription() const {
    const int mine = getHost().isOverSubscribed();
    if (!GlobalCondition(mine != 0, GlobalCondition::ON_ANY))
        return;
    std::vector<int> excess{mine};
    if (isParallel())
        globalCommunicator().gather(mine, excess, Communicator::masterRank());
    if (!isSerialOrMaster())
        return;
    std::cout << STARS << '\n';
    std::vector<std::string> hosts;
    getHost().getHostNames(hosts);
    for (const std::string& host : hosts) {
        std::vector<unsigned> ranks;
        getHost().getMpiRanks(host, ranks);
        if (excess[ranks.front()] != 0)
            std::cout << "Warning: The host machine [" << host << "] has been over-subscribed.\n"
                      << "         The host has " << excess[ranks.front()]
                      << " too many processes allocated to it.\n\n";
    }
    std::cout << "         Over-subscribing a host can severely affect performance.\n" << STARS << std::endl;
}

void Machine::bindProcesses() {
    if (!_options.internalBinding)
        conformProcessAffinityToMainThreadAffinity();
    else if (!getHost().bindProcesses())
        // startHost() has told of an over-subscribed host; a refusal ends no run.
        static_cast<void>(Affinity::clearProcessAffinity(getHost().getCpuTopology()));
}

void Machine::conformProcessAffinityToMainThreadAffinity() {
    if (!Thread::isMain())
        return;
    const CpuTopology& topology = getHost().getCpuTopology();
    const AffinityMask threadMask = Affinity::getThreadAffinity(topology);
    if (Affinity::getProcessAffinity(topology) != threadMask &&
        !Affinity::setProcessAffinity(topology, threadMask))
        std::cerr << "Unable to apply the main thread affinity to the owning process." << std::endl;
}

void Machine::resolveCpuContention() const {
    testForCpuBindingCollisions(_options.bindingVerbosity);
    if (_options.bindingVerbosity > 0)
        getHost().printProcessAffinitySummary(true, false, false, true);
}

void Machine::testForCpuBindingCollisions(unsigned verbosity) const {
    if (isParallel() && MpiCore::disableCpuBindingCollisionTest())
        return;
    if (!_options.bindingContentionTest)
        return;
    const bool verbose = verbosity > 0;
    const bool isTeller = isSerialOrMaster();
    const bool contention = getHost().hasCpuContention(verbosity >= 2);
    if (!GlobalCondition(contention, GlobalCondition::ON_ANY))
        return;
    const unsigned hosts = sumOverJob(contention && getHost().firstProcessOnHost() ? 1 : 0);
    if (verbose && isTeller) {
        const char* const end = hosts < 2 ? "." : "s.";
        std::cout << "Detected CPU contention on " << hosts << " host" << end
                  << " Attempting to resolve CPU contention on " << (hosts < 2 ? "that " : "those ") << "host"
                  << end << std::endl;
    }
    const bool unresolved = contention && !getHost().resolveCpuContention(verbose);
    if (!GlobalCondition(unresolved, GlobalCondition::ON_ANY)) {
        if (verbose && isTeller)
            std::cout << "CPU contention on all processes has been resolved." << std::endl;
        return;
    }
    const unsigned processes = sumOverJob(unresolved ? 1 : 0);
    if (isTeller) {
        const char* const ending = processes < 2 ? "" : "es";
        std::cout << STARS << "\nWarning: CPU contention on " << processes << " process" << ending
                  << " could not be resolved.\n         CPU affinity will be cleared on "
                  << (processes < 2 ? "that " : "those ") << "process" << ending
                  << ".\n\n         This is a strong indication that some hosts are over-subscribed.\n"
                     "         Over-subscribing a host is discouraged since it can severely affect "
                     "performance.\n"
                  << STARS << std::endl;
    }
    if (unresolved)
        // Unbound, the scheduler of the operating system does what it can; a refusal leaves the old binding.
        static_cast<void>(Affinity::clearProcessAffinity(getHost().getCpuTopology()));
}
