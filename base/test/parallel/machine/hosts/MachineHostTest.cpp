// How a job lies on its hosts. The ranks claim to be on hosts of any name, so that one machine is enough.

#include "machine/MachineHost.h"
#include "machine/Communicator.h"
#include "machine/MpiCore.h"

#include "platform/Process.h"

#include "parallel/machine/hosts/MachineHostTestAccess.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>

namespace {

class MachineHostOfJob : public testing::Test {
protected:
    void SetUp() override {
        if (Machine::isSerial())
            GTEST_SKIP() << "for a job";
    }
};

std::vector<unsigned> ranksOfAll(Communicator& communicator) {
    std::vector<unsigned> ranks;
    communicator.allGather(Machine::getPartitionId(), ranks);
    return ranks;
}

TEST_F(MachineHostOfJob, CommunicatorsFollowTheNames) {
    constexpr std::string (*NAMINGS[])(unsigned) = {
        [](unsigned) { return std::string("one"); },
        [](unsigned rank) { return std::string(rank % 2 == 0 ? "a" : "b"); },
        [](unsigned rank) { return "n" + std::to_string(9 - rank); },
        [](unsigned rank) { return std::string(rank < 2 ? "zeta" : ""); },
    };
    const unsigned me = Machine::getPartitionId();
    for (const auto& nameOf : NAMINGS) {
        const std::string mine = nameOf(me);
        SCOPED_TRACE(mine);
        std::vector<unsigned> expectedRanks;
        std::vector<unsigned> expectedFirst;
        std::set<std::string> names;
        for (unsigned rank = 0; rank < Machine::nProcesses(); ++rank) {
            if (nameOf(rank) == mine)
                expectedRanks.push_back(rank);
            if (names.insert(nameOf(rank)).second)
                expectedFirst.push_back(rank);
        }
        const std::unique_ptr<MachineHost> host = MachineHostTestAccess::claim(mine);
        EXPECT_EQ(host->getHostName(), mine);
        EXPECT_EQ(host->getNumberHosts(), names.size());
        EXPECT_EQ(host->getNumberProcesses(), expectedRanks.size());
        EXPECT_EQ(host->masterOnHost(), expectedRanks.front() == 0);
        std::vector<std::string> hostNames;
        host->getHostNames(hostNames);
        EXPECT_EQ(hostNames, std::vector<std::string>(names.begin(), names.end()));
        std::vector<unsigned> ranks;
        host->getMpiRanks(ranks);
        EXPECT_EQ(ranks, expectedRanks);
        EXPECT_EQ(ranksOfAll(host->getIntraHostComm()), expectedRanks);
        EXPECT_EQ(host->getIntraHostRank(), host->getIntraHostComm().myRank());
        EXPECT_EQ(host->firstProcessOnHost(), me == expectedRanks.front());

        std::vector<unsigned> pids;
        host->getPids(pids);
        ASSERT_EQ(pids.size(), expectedRanks.size());
        EXPECT_EQ(pids[host->getIntraHostRank()], static_cast<unsigned>(Platform::process().getPid()));
        EXPECT_EQ(host->getHostPidMap().size(), Machine::nProcesses());

        Communicator* const inter = MachineHostTestAccess::interHostComm(*host);
        EXPECT_EQ(inter != nullptr, host->firstProcessOnHost());
        if (inter) {
            EXPECT_EQ(ranksOfAll(*inter), expectedFirst);
        } else {
            expectAssertion([&] { MachineHostTestAccess::getInterHostComm(*host); },
                            "Inter-host Communicator being used from wrong rank!", "hasInterHostComm()",
                            "MachineHost.cpp");
        }
    }
}

TEST_F(MachineHostOfJob, IsToldInSummaries) {
    const std::string distribution =
        "MPI Distribution : " + MpiCore::getDistribName() +
        (MpiCore::getMpiVersionName().empty() ? "" : "-" + MpiCore::getMpiVersionName()) + "\n";
    std::vector<std::string> twelve;
    std::string twelveLines;
    for (unsigned host = 0; host < 12; ++host) {
        // Descending names: the hosts are listed by their first rank all the same.
        twelve.push_back(std::string("n") + static_cast<char>('z' - static_cast<int>(host)));
        twelveLines += "Host " + std::string(host < 10 ? " " : "") + std::to_string(host) + " -- " +
                       twelve.back() + " -- Ranks " + std::to_string(host) + "\n";
    }
    const struct {
        std::vector<std::string> hostOfRank;
        std::string truncated;
    } rows[] = {
        {{"alpha", "alpha", "alpha", "beta2", "beta2", "alpha", "beta2"},
         "Host 0 -- alpha -- Ranks 0-2, 5\nHost 1 -- beta2 -- Ranks 3-4, 6\n"
         "Process rank 0 alpha 100\nTotal number of processes : 7\n"},
        {{"long", "b", "long", "b"},
         "Host 0 -- long -- Ranks 0, 2\nHost 1 -- b    -- Ranks 1, 3\n"
         "Process rank 0 long 100\nTotal number of processes : 4\n"},
        {twelve, twelveLines + "Process rank 0 nz 100\nTotal number of processes : 12\n"},
    };
    const auto mode = Machine::isMaster() ? Machine::MASTER_MODE : Machine::WORKER_MODE;
    const unsigned ranks = Machine::nProcesses();
    const unsigned me = Machine::getPartitionId();
    for (const auto& [hostOfRank, truncated] : rows) {
        const std::unique_ptr<MachineHost> host = MachineHostTestAccess::claim("here");
        MachineHostTestAccess::pretend(*host, hostOfRank);
        MachineTestAccess::playRole(mode, static_cast<unsigned>(hostOfRank.size()), me);
        std::string told = printedOnRank([&] {
            host->printProcessSummary();
            host->printCompleteProcessSummary();
        });
        MachineTestAccess::options().printPids = true;
        told += printedOnRank([&] { host->printTruncatedProcessSummary(); });
        MachineTestAccess::options().printPids = false;
        MachineTestAccess::playRole(mode, ranks, me);
        std::string complete = distribution;
        std::string withPids = distribution + truncated + "\n";
        std::vector<std::string> hosts; // by their first ranks
        for (unsigned rank = 0; rank < hostOfRank.size(); ++rank) {
            complete += "Process rank " + std::to_string(rank) + " " + hostOfRank[rank] + " " +
                        std::to_string(100 + rank) + "\n";
            if (std::find(hosts.begin(), hosts.end(), hostOfRank[rank]) == hosts.end())
                hosts.push_back(hostOfRank[rank]);
        }
        for (std::size_t id = 0; id < hosts.size(); ++id)
            for (unsigned rank = 0; rank < hostOfRank.size(); ++rank)
                if (hostOfRank[rank] == hosts[id])
                    withPids += "Host ID " + std::to_string(id) + " Rank " + std::to_string(rank) + " on " +
                                hosts[id] + " with process ID " + std::to_string(100 + rank) + "\n";
        EXPECT_EQ(told, me == 0 ? distribution + truncated + complete + withPids : "")
            << "only the master prints";
    }
}

} // namespace
