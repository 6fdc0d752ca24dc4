// How the ranks that share memory are found, by the driver where it can, else by their hosts' names, and what
// else a rank is told of the others' hardware.

#include "machine/AffinityRelaxer.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include "parallel/machine/hosts/MachineHostTestAccess.h"
#include "support/ScriptedMpi.h"
#include "support/TestMachine.h"
#include "unit/machine/LogLines.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using List = std::vector<unsigned>;

/// Gives `call` these values of all ranks.
int receive(const ScriptedCall& call, const List& values) {
    std::copy(values.begin(), values.end(), static_cast<unsigned*>(call.addresses.at("recvBuffer")));
    return OXM_MPI_SUCCESS;
}

void releaseCommunicators() {
    MachineTestAccess::dropSharedMemCommunicators();
    MachineTestAccess::dropGlobalCommunicator();
    MachineTestAccess::playRole(Machine::SERIAL_MODE, 1, 0);
}

} // namespace

/// Rank 2 of 5, of which rank 1 is elsewhere, without the driver's help.
TEST(SharedMemoryCommunicators, FollowTheHardware) {
    const auto host = MachineHostTestAccess::claim("here");
    MachineHostTestAccess::equip(
        *host, CpuTopology(makeTestMachine("machine pack:2 [numa] core:1 pu:1(indexes=9000,9001)")));
    MachineHostTestAccess::pretend(*host, {"here", "there", "here", "here", "here"});
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setSharedMemorySupport(false);
    mpi.setWorld(2, 5);
    MachineTestAccess::playRole(Machine::WORKER_MODE, 5, 2);
    MachineTestAccess::makeGlobalCommunicator();
    const MachineHost* const before = MachineTestAccess::swapHost(host.get());
    mpi.clearCalls();
    MachineTestAccess::buildShmemCommunicators();
    EXPECT_EQ(mpi.callsOf("Group_incl").front().arrays.at("ranks"), (std::vector<long long>{0, 2, 3, 4}));

    const struct {
        List counts;
        List indices; ///< of all ranks of the host; when they are many, their processors as well
        std::vector<long long> group;
    } rows[] = {{{1, 1, 1, 1}, {0, 0, 1, 0}, {0, 1, 3}},
                {{1, 1, 1, 1}, {0, 1, 0, 0}, {1}},
                {{1, 1, 2, 1}, {0, 0, 0, 1, 0}, {0, 1}},
                {{1, 1, 0, 2}, {1, 1, 1, 1}, {0, 1, 2, 3}},
                {{0, 0, 0, 0}, {}, {0, 1}}};
    for (const auto scope : {Machine::SOCKET_SCOPE, Machine::NUMA_SCOPE}) {
        for (const auto& row : rows) {
            mpi.setAction("Allgather", [&](const ScriptedCall& call) { return receive(call, row.counts); });
            mpi.setAction("Allgatherv", [&](const ScriptedCall& call) { return receive(call, row.indices); });
            mpi.clearCalls();
            MachineTestAccess::buildScopeCommunicator(scope, List(row.counts[1], 0));
            EXPECT_EQ(mpi.callsOf("Group_incl").back().arrays.at("ranks"), row.group);
        }
    }
    MachineTestAccess::swapHost(before);
    releaseCommunicators();
    EXPECT_EQ(mpi.liveHandles()["comm"], 0);
}

TEST(SharedMemoryCommunicators, MixedVectorizationIsToldOnce) {
    for (const bool isMixed : {false, true})
        for (const unsigned rank : {0u, 1u}) {
            ScriptedMpi& mpi = ScriptedMpi::start();
            mpi.setWorld(static_cast<int>(rank), 3);
            MachineTestAccess::playRole(rank == 0 ? Machine::MASTER_MODE : Machine::WORKER_MODE, 3, rank);
            MachineTestAccess::makeGlobalCommunicator();
            mpi.setAction("Gather", [&](const ScriptedCall& call) {
                return rank == 0 ? receive(call, {4, 4, isMixed ? 3u : 4u}) : OXM_MPI_SUCCESS;
            });
            testing::internal::CaptureStdout();
            MachineTestAccess::warnOfMixedVectorization();
            EXPECT_EQ(testing::internal::GetCapturedStdout(),
                      isMixed && rank == 0
                          ? "Warning: The set of hardware resources has mixed vectorization capabilities.\n"
                            "This can lead to numerical issues (see \"Avoid Using Mixed-Vector Hardware in a "
                            "Single\nParallel Job\" in the User's Guide). The command line flag \"-xbuildopt "
                            "standard\"\ncan be passed to force the lowest vectorization level on all hosts. "
                            "Use of this option\nmay impact performance. It does not affect vectorization of "
                            "third-party libraries, so further issues might arise.\n"
                          : "");
            mpi.setAction("Gather", {});
            releaseCommunicators();
        }
}

/// Names with their lengths, process identifiers, the two communicators. The hardware with its length goes
/// down a tree of the processes, which sleep meanwhile.
TEST(MachineHost, IsBuiltAndReportedByAFixedNumberOfMessages) {
    for (const unsigned ranks : {1u, 9u}) {
        ScriptedMpi& mpi = ScriptedMpi::start();
        mpi.setWorld(0, static_cast<int>(ranks));
        MachineTestAccess::playRole(Machine::MASTER_MODE, ranks, 0);
        MachineTestAccess::makeGlobalCommunicator();
        mpi.setAction("Allgather", [&](const ScriptedCall& call) { return receive(call, List(ranks, 3)); });
        mpi.setAction("Allgatherv", [&](const ScriptedCall& call) {
            for (unsigned rank = 0; rank < ranks; ++rank)
                std::copy_n("one", 3, static_cast<char*>(call.addresses.at("recvBuffer")) + 3 * rank);
            return OXM_MPI_SUCCESS;
        });
        mpi.clearCalls();
        auto host = MachineHostTestAccess::claim("one");
        std::map<std::string, int> calls;
        for (const std::string& name : mpi.names())
            ++calls[name];
        EXPECT_EQ(calls["Allgather"] + calls["Allgatherv"] + calls["Comm_create"], 5);
        EXPECT_EQ(calls["Send"], ranks > 1 ? 4 : 0) << "to two children";
        EXPECT_EQ(calls["Allreduce"] + calls["Barrier"] + calls["Bcast"] + calls["Gather"] + calls["Isend"],
                  0);
        // The hosts compare their hardware and bindings in as many calls for any number of processors.
        std::set<std::size_t> numbers;
        for (const char* const machine :
             {"machine pack:1 [numa] core:1 pu:1", "machine pack:4 [numa] core:8 pu:2"}) {
            if (ranks > 1)
                break; // the driver plays no answers of the others
            MachineHostTestAccess::equip(*host, CpuTopology(makeTestMachine(machine)));
            mpi.clearCalls();
            printedOnRank([&] { host->printProcessAffinitySummary(); });
            numbers.insert(mpi.calls().size());
        }
        EXPECT_EQ(numbers.size(), ranks > 1 ? 0u : 1u);
        host.reset();
        releaseCommunicators();
    }
}

TEST(AffinityRelaxer, LeavesASerialProcessAsItIs) {
    MachineTestAccess::startAfresh();
    const LogLines log(OS::Log::DEBUG_LEVEL);
    { const AffinityRelaxer relaxer(Machine::HOST_SCOPE, AffinityRelaxer::Key()); }
    EXPECT_EQ(log.text(), "info AffinityRelaxer::Impl::Impl: Affinity relaxer is disabled in serial mode.\n"
                          "info AffinityRelaxer::Impl::~Impl: Affinity relaxer is disabled in serial mode, "
                          "hence no affinity to restore.\n");
}
