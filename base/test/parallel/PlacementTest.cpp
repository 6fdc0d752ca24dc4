// Where the processes of a job run, and what is told of it. The ranks claim to be on hosts of any name, with
// hardware kept as data; bindings are real.

#include "machine/Affinity.h"
#include "machine/AffinityRelaxer.h"
#include "machine/Communicator.h"
#include "machine/CpuBinder.h"
#include "machine/CpuTopology.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include "kernel/Properties.h"
#include "parallel/MachineHostTestAccess.h"
#include "support/TestMachine.h"
#include "unit/machine/CpuTopologyTestAccess.h"
#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

namespace {

const CpuTopology& realTopology() {
    return Machine::getHost().getCpuTopology();
}

AffinityMask getAvailable(const CpuTopology& topology) {
    return topology.restrictToAvailableResources(topology.getTopologyMask());
}

class Placement : public testing::Test {
protected:
    void SetUp() override {
        if (Machine::isSerial())
            GTEST_SKIP() << "for a job";
        // All on one processor, whichever this machine lets us have.
        ASSERT_TRUE(AffinityTestAccess::setProcess(realTopology(), _bound));
    }
    void TearDown() override { AffinityTestAccess::clearProcess(realTopology()); }

    const unsigned _ranks = Machine::nProcesses();
    const unsigned _me = Machine::getPartitionId();
    const unsigned _lpu = realTopology().getLpusFromMask(getAvailable(realTopology())).front();
    const AffinityMask _bound = realTopology().getLpuMask(_lpu);
};

/// What each rank writes to std::cout meanwhile.
template <class F>
std::string printedBy(F operation) {
    std::ostringstream text;
    std::streambuf* const console = std::cout.rdbuf(text.rdbuf());
    operation();
    std::cout.rdbuf(console);
    return text.str();
}

/// A machine with room for the processor that all are bound to.
CpuTopology makeMachine(const std::string& kind) {
    return CpuTopology(makeTestMachine("machine " + kind));
}

const char* const SMALL = "pack:1 [numa] core:64 pu:2";
const char* const LARGE = "pack:2 [numa] core:64 pu:2";

/// The lines of the ranks of a host of `count` processes.
std::string rankLines(const CpuTopology& topology, const AffinityMask& mask, unsigned count) {
    std::string lines;
    for (unsigned i = 0; i < count; ++i)
        lines +=
            "    Rank - " + std::to_string(i) + ", Affinity = " + topology.printAffinityMask(mask, 60) + "\n";
    return lines;
}

TEST_F(Placement, isReportedInStages) {
    const unsigned onEven = (_ranks + 1) / 2;
    const unsigned onOdd = _ranks / 2;
    const CpuTopology small = makeMachine(SMALL);
    const CpuTopology large = makeMachine(LARGE);
    const std::string smallText = small.print(true, true, false, true, 4, 28);
    const std::string largeText = large.print(true, true, false, true, 4, 28);
    const auto report = [&](bool isOneHost, bool isMixed, bool gather) {
        const bool isOdd = _me % 2 == 1;
        const auto host = MachineHostTestAccess::claim(isOneHost ? "one" : isOdd ? "odd" : "even");
        MachineHostTestAccess::equip(*host, makeMachine(isMixed && isOdd ? LARGE : SMALL));
        const std::string told =
            printedBy([&] { host->printProcessAffinitySummary(true, false, true, gather); });
        EXPECT_TRUE(_me == 0 || told.empty()) << "only the master prints";
        return told;
    };
    const auto expect = [&](const std::string& told, const std::string& expected) {
        if (_me == 0) {
            EXPECT_EQ(told, expected);
        }
    };
    expect(report(true, false, true),
           "CPU Affinity Report (one) :\n" + smallText + rankLines(small, _bound, _ranks));
    if (_ranks < 2)
        return;
    const std::string even = rankLines(small, _bound, onEven);
    for (const bool gather : {true, false}) {
        expect(report(false, false, gather),
               onEven == onOdd ? "CPU Affinity Report (equal for all hosts) :\n" + smallText + even
                               : "CPU Affinity Report :\n  CPU Topology for all Hosts :\n" + smallText +
                                     "  even :\n" + even + "  odd :\n" + rankLines(small, _bound, onOdd));
        expect(report(false, true, gather), "CPU Affinity Report :\n  even :\n" + smallText + even +
                                                "  odd :\n" + largeText + rankLines(large, _bound, onOdd));
    }
    // Alike in all but one rank's binding.
    if (_me == _ranks - 1)
        AffinityTestAccess::clearProcess(realTopology());
    const bool isAlike = Affinity::getProcessAffinity(realTopology()) == _bound;
    unsigned alike = isAlike ? 1 : 0;
    Machine::globalCommunicator().allReduce(alike, Communicator::SUM);
    const std::string told = report(false, false, true);
    if (_me == 0 && alike < _ranks) { // else this machine has one processor
        EXPECT_EQ(told.find("(equal for all hosts)"), std::string::npos);
    }
}

TEST_F(Placement, isGatheredForTheClient) {
    const auto host = MachineHostTestAccess::claim(_me % 2 == 1 ? "odd" : "even");
    Properties gathered;
    host->gatherAffinityPropertiesToMaster(gathered);
    std::vector<Properties> hosts;
    gathered.get("hosts", hosts);
    if (_me != 0) {
        EXPECT_TRUE(hosts.empty());
    } else {
        ASSERT_EQ(hosts.size(), _ranks > 1 ? 2u : 1u);
        for (std::size_t i = 0; i < hosts.size(); ++i) {
            EXPECT_EQ(hosts[i].getString("hostname"), i == 0 ? "even" : "odd");
            std::vector<Properties> masks;
            hosts[i].get("masks", masks);
            ASSERT_EQ(masks.size(), i == 0 ? (_ranks + 1) / 2 : _ranks / 2);
            for (std::size_t k = 0; k < masks.size(); ++k) {
                EXPECT_EQ(masks[k].getUnsignedInt("rank"), 2 * k + i);
                std::vector<bool> expected(realTopology().getNumberLpus(), false);
                expected[_lpu] = true;
                std::vector<bool> mask;
                masks[k].get("mask", mask);
                EXPECT_EQ(mask, expected);
            }
        }
    }
    Properties information;
    information.set("untouched", true);
    host->getSystemInformation(information);
    EXPECT_EQ(information.size(), host->firstProcessOnHost() ? 7u : 1u);
    if (host->firstProcessOnHost()) {
        std::vector<Properties> processes;
        information.get("processes", processes);
        ASSERT_EQ(processes.size(), host->getNumberProcesses());
        for (const Properties& process : processes) {
            std::vector<bool> mask;
            process.get("affinitymask", mask);
            EXPECT_TRUE(mask[_lpu]);
        }
        const Properties hardware = information.getProperties("hardware");
        EXPECT_EQ(hardware.hasName("ht"), realTopology().usesSMT());
        EXPECT_EQ(hardware.getProperties("topology").getUnsignedInt("NumberSockets"),
                  realTopology().getNumberSockets());
    }
}

TEST_F(Placement, followsTheCoresThatAreFree) {
    const MachineHost& host = Machine::getHost();
    const std::size_t cores = realTopology().getPhysicalCoresFromMask(getAvailable(realTopology())).size();
    EXPECT_EQ(host.isOverSubscribed(), _ranks > cores ? static_cast<int>(_ranks - cores) : 0);
    EXPECT_EQ(host.bindProcesses(), _ranks <= cores);
    if (_ranks <= cores) {
        EXPECT_TRUE(Affinity::isProcessBound(realTopology()));
        // All on different cores, so together on as many as there are processes.
        EXPECT_EQ(realTopology().getPhysicalCoresFromMask(host.getHostAffinity()).size(), _ranks);
    } else {
        EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), _bound) << "nothing happens";
    }
    // More processes than elements go round.
    EXPECT_TRUE(CpuBinder::bindProcess(_ranks + 5, 1, realTopology(), _bound, LATENCY_BINDING));
    EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), _bound);
    EXPECT_TRUE(CpuBinder::bindProcess(0, 1, realTopology(), AffinityMask(), LEAST_LOAD_BINDING));
    // Where its threads ran last, which needn't be one place.
    EXPECT_FALSE(Affinity::getProcessAffinity(realTopology()).empty());
    EXPECT_FALSE(CpuBinder::bindProcess(0, 1, realTopology(), AffinityMask(), BANDWIDTH_BINDING));
    expectAssertion(
        [] {
            CpuBinder::bindProcess(0, 1, realTopology(), AffinityMask(), static_cast<CpuBindingPolicy>(3));
        },
        "Invalid CpuBindingPolicy specified", "false", "CpuBinder.cpp");
}

} // namespace
