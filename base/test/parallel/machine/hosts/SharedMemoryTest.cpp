// The communicators along the hardware, on hosts of any name with hardware kept as data.

#include "machine/Affinity.h"
#include "machine/AffinityRelaxer.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include "parallel/machine/hosts/MachineHostTestAccess.h"
#include "support/TestMachine.h"
#include "unit/machine/LogLines.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/hardware/AffinityTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <numeric>

namespace {

class SharedMemory : public testing::Test {
protected:
    void SetUp() override {
        if (Machine::isSerial())
            GTEST_SKIP() << "for a job";
        _realHost = MachineTestAccess::swapHost(nullptr);
    }
    void TearDown() override {
        if (Machine::isSerial())
            return;
        MachineTestAccess::dropSharedMemCommunicators();
        MachineTestAccess::swapHost(_realHost);
        AffinityTestAccess::clearProcess(_realHost->getCpuTopology());
    }
    /// Until the end of the test the job is on hosts of these names, with this hardware.
    void enter(const std::string& hostName, const std::string& machine) {
        MachineTestAccess::dropSharedMemCommunicators();
        MachineTestAccess::swapHost(nullptr);
        _host = MachineHostTestAccess::claim(hostName);
        MachineHostTestAccess::equip(*_host, CpuTopology(makeTestMachine("machine " + machine)));
        MachineTestAccess::swapHost(_host.get());
    }

    const unsigned _ranks = Machine::nProcesses();
    const unsigned _me = Machine::getPartitionId();
    const MachineHost* _realHost = nullptr;
    std::unique_ptr<MachineHost> _host;
};

std::vector<unsigned> ranksOf(Communicator* communicator) {
    std::vector<unsigned> ranks;
    if (communicator)
        communicator->allGather(Machine::getPartitionId(), ranks);
    return ranks;
}

std::vector<unsigned> ranksOf(Machine::ShmemScope scope) {
    return ranksOf(&Machine::sharedMemCommunicator(scope));
}

/// The processors of this machine that no test machine has: nobody's binding says anything on it.
std::string strangeMachine(unsigned sockets) {
    std::string indices = "9000";
    for (unsigned i = 1; i < sockets; ++i)
        indices += "," + std::to_string(9000 + i);
    return "pack:" + std::to_string(sockets) + " [numa] core:1 pu:1(indexes=" + indices + ")";
}

TEST_F(SharedMemory, WithoutKnownBindingsTheRanksAreDealtOut) {
    for (const unsigned groups : {2u, 3u, 9u}) {
        SCOPED_TRACE(groups);
        enter("one", strangeMachine(groups));
        MachineTestAccess::buildShmemCommunicators();
        // Dealt out one by one, then lined up: the first groups have one more.
        std::vector<unsigned> sizes(groups, 0);
        for (unsigned rank = 0; rank < _ranks; ++rank)
            ++sizes[rank % groups];
        std::vector<unsigned> expected;
        std::vector<unsigned> firsts;
        unsigned next = 0;
        for (const unsigned size : sizes) {
            if (size > 0)
                firsts.push_back(next);
            if (_me >= next && _me < next + size) {
                expected.resize(size);
                std::iota(expected.begin(), expected.end(), next);
            }
            next += size;
        }
        for (const auto scope : {Machine::SOCKET_SCOPE, Machine::NUMA_SCOPE}) {
            EXPECT_EQ(ranksOf(scope), expected);
            Communicator* const sparse = Machine::hasSparseCommunicator(scope);
            EXPECT_EQ(sparse != nullptr, _me == expected.front());
            if (sparse) {
                EXPECT_EQ(ranksOf(sparse), firsts);
            }
        }
        // The ranks do share memory, in spite of their claims.
        EXPECT_EQ(ranksOf(Machine::HOST_SCOPE).size(), _ranks);
        EXPECT_EQ(ranksOf(Machine::hasSparseCommunicator(Machine::HOST_SCOPE)),
                  _me == 0 ? std::vector<unsigned>{0} : std::vector<unsigned>{});
    }
}

TEST_F(SharedMemory, CountsTheRanksThatShareMemory) {
    // The names that they give and the hardware that each of them reads don't matter.
    enter("host" + std::to_string(_me), strangeMachine(_me == 0 ? 2 : 1));
    MachineTestAccess::buildShmemCommunicators();
    const unsigned first = (_ranks + 1) / 2;
    std::vector<unsigned> expected(_me < first ? first : _ranks - first);
    std::iota(expected.begin(), expected.end(), _me < first ? 0 : first);
    EXPECT_EQ(ranksOf(Machine::SOCKET_SCOPE), expected);
}

TEST_F(SharedMemory, FollowsTheHostsOfTheJob) {
    MachineTestAccess::swapHost(_realHost);
    MachineTestAccess::buildShmemCommunicators();
    std::vector<unsigned> mine;
    _realHost->getMpiRanks(mine);
    std::vector<std::string> hosts;
    _realHost->getHostNames(hosts);
    std::vector<unsigned> firsts;
    for (const std::string& host : hosts) {
        std::vector<unsigned> ranks;
        _realHost->getMpiRanks(host, ranks);
        firsts.push_back(ranks.front());
    }
    std::sort(firsts.begin(), firsts.end());
    if (_me == 0) {
        std::cout << "The first ranks of " << hosts.size() << " hosts:";
        for (const unsigned rank : firsts)
            std::cout << ' ' << rank;
        std::cout << std::endl;
    }
    EXPECT_EQ(ranksOf(Machine::HOST_SCOPE), mine);
    for (const auto scope : {Machine::NUMA_SCOPE, Machine::SOCKET_SCOPE, Machine::HOST_SCOPE}) {
        // Smaller groups lie within, and the first of each is in the sparse one.
        const std::vector<unsigned> group = ranksOf(scope);
        EXPECT_TRUE(std::includes(mine.begin(), mine.end(), group.begin(), group.end()));
        Communicator* const sparse = Machine::hasSparseCommunicator(scope);
        EXPECT_EQ(sparse != nullptr, _me == group.front());
        const std::vector<unsigned> told = ranksOf(sparse);
        EXPECT_TRUE(!sparse || std::includes(told.begin(), told.end(), firsts.begin(), firsts.end()));
        EXPECT_TRUE(!sparse || scope != Machine::HOST_SCOPE || told == firsts);
    }
}

TEST_F(SharedMemory, OverSubscribedHostsAreNamed) {
    const unsigned onEven = (_ranks + 1) / 2;
    const auto warn = [&](const char* evenMachine, const char* oddMachine) {
        enter(_me % 2 == 0 ? "even" : "odd", _me % 2 == 0 ? evenMachine : oddMachine);
        return printedOnRank(&MachineTestAccess::testOverSubscription);
    };
    const std::string stars(84, '*');
    const char* const wide = "pack:1 [numa] core:64 pu:1";
    EXPECT_EQ(warn(wide, wide), "");
    const std::string told = warn("pack:1 [numa] core:1 pu:2", wide);
    EXPECT_EQ(
        told,
        _me != 0 || onEven < 2
            ? ""
            : stars + "\nWarning: The host machine [even] has been over-subscribed.\n         The host has " +
                  std::to_string(onEven - 1) +
                  " too many processes allocated to it.\n\n"
                  "         Over-subscribing a host can severely affect performance.\n" +
                  stars + "\n");
}

/// A relaxed process may run where its neighbours may, and tells it in the log.
TEST_F(SharedMemory, BindingsAreRelaxedForAWhile) {
    const auto host = MachineHostTestAccess::claim("one");
    MachineTestAccess::swapHost(host.get());
    MachineTestAccess::buildShmemCommunicators();
    const CpuTopology& topology = _realHost->getCpuTopology();
    const std::vector<unsigned> lpus =
        topology.getLpusFromMask(topology.restrictToAvailableResources(topology.getTopologyMask()));
    const AffinityMask mine = topology.getLpuMask(lpus[_me % lpus.size()]);
    AffinityMask all;
    for (unsigned rank = 0; rank < _ranks; ++rank)
        all |= topology.getLpuMask(lpus[rank % lpus.size()]);
    ASSERT_TRUE(AffinityTestAccess::setProcess(topology, mine));
    const auto relaxing = [&](const AffinityMask& found) {
        const std::string constructor = "AffinityRelaxer::Impl::Impl: ";
        return "debug " + constructor + "#LPUs = " + std::to_string(topology.getNumberLpus()) +
               ", Process affinity mask = " + topology.printAffinityMask(found, 60) + "\ndebug " +
               constructor + "Relaxed affinity mask = " + topology.printAffinityMask(all, 60) + "\ninfo " +
               constructor + "Relaxed affinity mask applied successfully.\n";
    };
    const auto restored = [&](const AffinityMask& found) {
        return "info AffinityRelaxer::Impl::~Impl: Successfully applied original affinity mask " +
               topology.printAffinityMask(found, 60) + ".\n";
    };
    const LogLines log(OS::Log::DEBUG_LEVEL);
    {
        const AffinityRelaxer relaxer(Machine::HOST_SCOPE, AffinityRelaxer::Key());
        EXPECT_EQ(Affinity::getProcessAffinity(topology), all);
        {
            const AffinityRelaxer inner(Machine::SOCKET_SCOPE, AffinityRelaxer::Key());
            EXPECT_EQ(Affinity::getProcessAffinity(topology), all);
        }
        EXPECT_EQ(Affinity::getProcessAffinity(topology), all) << "the inner one restores the outer one's";
    }
    EXPECT_EQ(Affinity::getProcessAffinity(topology), mine);
    std::string expected = relaxing(mine) + relaxing(all) + restored(all) + restored(mine);
    EXPECT_EQ(log.text(), expected);
    // The hardware is lost meanwhile, and for the next one from the start: no empty mask is applied.
    const std::string lost = "{- : " + mine.toHexString(1) + "}";
    for (const char* const reason :
         {"error AffinityRelaxer::Impl::~Impl: Failed to restore original affinity mask ",
          "warning AffinityRelaxer::Impl::~Impl: The original process affinity mask is empty."}) {
        const bool isFirst = reason[0] == 'e';
        expected +=
            (isFirst ? relaxing(mine)
                     : "debug AffinityRelaxer::Impl::Impl: #LPUs = 1, Process affinity mask = {- : 0x0}\n"
                       "debug AffinityRelaxer::Impl::Impl: Relaxed affinity mask = {- : 0x0}\n"
                       "error AffinityRelaxer::Impl::Impl: Failed to apply relaxed affinity mask.\n") +
            reason + (isFirst ? lost + ".\n" : "\n");
        const AffinityRelaxer relaxer(Machine::HOST_SCOPE, AffinityRelaxer::Key());
        MachineHostTestAccess::equip(*host, CpuTopology(std::string("no XML")));
    }
    EXPECT_EQ(log.text(), expected);
}

} // namespace
