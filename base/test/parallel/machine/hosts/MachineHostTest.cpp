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

using Naming = std::string (*)(unsigned rank);

TEST_F(MachineHostOfJob, communicatorsFollowTheNames) {
    constexpr Naming NAMINGS[] = {
        [](unsigned) { return std::string("one"); },
        [](unsigned rank) { return std::string(rank % 2 == 0 ? "a" : "b"); },
        [](unsigned rank) { return "n" + std::to_string(9 - rank); },
        [](unsigned rank) { return std::string(rank < 2 ? "zeta" : ""); },
    };
    const unsigned me = Machine::getPartitionId();
    for (const Naming& nameOf : NAMINGS) {
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

TEST_F(MachineHostOfJob, summaries) {
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
    struct Row {
        std::vector<std::string> hostOfRank;
        std::string truncated;
        std::string complete;
    };
    const Row rows[] = {
        {{"alpha", "alpha", "alpha", "beta2", "beta2", "alpha", "beta2"},
         "Host 0 -- alpha -- Ranks 0-2, 5\nHost 1 -- beta2 -- Ranks 3-4, 6\n"
         "Process rank 0 alpha 100\nTotal number of processes : 7\n",
         "Process rank 0 alpha 100\nProcess rank 1 alpha 101\nProcess rank 2 alpha 102\nProcess rank 3 beta2 "
         "103\n"
         "Process rank 4 beta2 104\nProcess rank 5 alpha 105\nProcess rank 6 beta2 106\n"},
        {{"long", "b", "long", "b"},
         "Host 0 -- long -- Ranks 0, 2\nHost 1 -- b    -- Ranks 1, 3\n"
         "Process rank 0 long 100\nTotal number of processes : 4\n",
         "Process rank 0 long 100\nProcess rank 1 b 101\nProcess rank 2 long 102\nProcess rank 3 b 103\n"},
        {twelve, twelveLines + "Process rank 0 nz 100\nTotal number of processes : 12\n", ""},
    };
    const auto mode = Machine::isMaster() ? Machine::MASTER_MODE : Machine::WORKER_MODE;
    const unsigned ranks = Machine::nProcesses();
    const unsigned me = Machine::getPartitionId();
    for (const Row& row : rows) {
        const std::unique_ptr<MachineHost> host = MachineHostTestAccess::claim("here");
        MachineHostTestAccess::pretend(*host, row.hostOfRank);
        MachineTestAccess::playRole(mode, static_cast<unsigned>(row.hostOfRank.size()), me);
        const std::string truncated = printedOnRank([&] { host->printProcessSummary(); });
        const std::string complete = printedOnRank([&] { host->printCompleteProcessSummary(); });
        MachineTestAccess::setPrintpids(true);
        const std::string withPids = printedOnRank([&] { host->printTruncatedProcessSummary(); });
        MachineTestAccess::setPrintpids(false);
        MachineTestAccess::playRole(mode, ranks, me);
        if (!Machine::isMaster()) {
            EXPECT_EQ(truncated + complete + withPids, "") << "only the master prints";
            continue;
        }
        EXPECT_EQ(truncated, distribution + row.truncated);
        if (!row.complete.empty()) {
            EXPECT_EQ(complete, distribution + row.complete);
        }
        EXPECT_EQ(withPids.substr(0, truncated.size() + 1), truncated + "\n");
        EXPECT_NE(withPids.find("Host ID 1 Rank 1 on " + row.hostOfRank[1] + " with process ID 101\n") ==
                      std::string::npos,
                  row.hostOfRank[1] != row.hostOfRank[0]);
        EXPECT_EQ(static_cast<std::size_t>(std::count(withPids.begin(), withPids.end(), '\n')),
                  static_cast<std::size_t>(std::count(truncated.begin(), truncated.end(), '\n')) + 1 +
                      row.hostOfRank.size());
    }
}

} // namespace
