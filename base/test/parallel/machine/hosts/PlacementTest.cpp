// The places of a job's processes, and the reports about them. The ranks claim to be on hosts of any name,
// with hardware kept as data; bindings are real.

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuBinder.h"
#include "machine/CpuTopology.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include "kernel/Properties.h"
#include "parallel/machine/hosts/MachineHostTestAccess.h"
#include "platform/FileSystem.h"
#include "platform/Process.h"
#include "platform/ProcessHandle.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"
#include "support/TestMachine.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/hardware/AffinityTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <sched.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>

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

/// The operating system's numbers of the processors that this thread may run on.
std::vector<unsigned> numbersOfProcessors() {
    cpu_set_t set;
    EXPECT_EQ(::sched_getaffinity(0, sizeof set, &set), 0);
    std::vector<unsigned> numbers;
    for (unsigned number = 0; number < CPU_SETSIZE; ++number)
        if (CPU_ISSET(number, &set))
            numbers.push_back(number);
    return numbers;
}

/// A machine whose first processors are those that this thread may run on; there are no others here.
CpuTopology makeMachine(const std::string& kind, unsigned processors) {
    std::vector<unsigned> numbers = numbersOfProcessors();
    std::string indices;
    for (unsigned i = 0; i < processors; ++i)
        indices += (i == 0 ? "" : ",") + std::to_string(i < numbers.size() ? numbers[i] : 9000 + i);
    return CpuTopology(makeTestMachine("machine " + kind + "(indexes=" + indices + ")"));
}

CpuTopology makeHardware(unsigned sockets = 1) {
    return makeMachine("pack:" + std::to_string(sockets) + " [numa] core:3 pu:2", 6 * sockets);
}

/// The lines of the ranks of a host of `count` processes.
std::string rankLines(const CpuTopology& topology, const AffinityMask& mask, unsigned count) {
    std::string lines;
    for (unsigned i = 0; i < count; ++i)
        lines +=
            "    Rank - " + std::to_string(i) + ", Affinity = " + topology.printAffinityMask(mask, 60) + "\n";
    return lines;
}

TEST_F(Placement, IsReportedInStages) {
    const unsigned onEven = (_ranks + 1) / 2;
    const unsigned onOdd = _ranks / 2;
    const CpuTopology small = makeHardware();
    const CpuTopology large = makeHardware(2);
    const std::string smallText = small.print(true, true, false, true, 4, 28);
    const std::string largeText = large.print(true, true, false, true, 4, 28);
    const auto report = [&](bool isOneHost, bool isMixed, bool gather) {
        const bool isOdd = _me % 2 == 1;
        const auto host = MachineHostTestAccess::claim(isOneHost ? "one" : isOdd ? "odd" : "even");
        MachineHostTestAccess::equip(*host, makeHardware(isMixed && isOdd ? 2 : 1));
        return printedOnRank([&] { host->printProcessAffinitySummary(true, false, true, gather); });
    };
    const auto expect = [&](const std::string& told, const std::string& expected) {
        EXPECT_EQ(told, _me == 0 ? expected : "") << "only the master prints";
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
    // Hosts that differ in the sizes of later sockets, NUMA nodes or cores alone.
    for (const auto& [ofEven, ofOdd] :
         {std::pair("[numa] pack:3 core:3 pu:1\nrestrict 0x7b", "[numa] pack:3 core:3 pu:1\nrestrict 0x1cb"),
          std::pair("pack:1 die:3 [numa] core:3 pu:1\nrestrict 0x7b",
                    "pack:1 die:3 [numa] core:3 pu:1\nrestrict 0x1cb"),
          std::pair("pack:1 [numa] core:4 pu:2\nrestrict 0x5f",
                    "pack:1 [numa] core:4 pu:2\nrestrict 0x77")}) {
        const auto host = MachineHostTestAccess::claim(_me % 2 == 1 ? "odd" : "even");
        MachineHostTestAccess::equip(
            *host, CpuTopology(makeTestMachine(std::string("machine ") + (_me % 2 == 1 ? ofOdd : ofEven))));
        EXPECT_EQ(printedOnRank([&] { host->printProcessAffinitySummary(); }).find(" for all "),
                  std::string::npos)
            << ofOdd;
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

TEST_F(Placement, IsGatheredForTheClient) {
    const auto host = MachineHostTestAccess::claim(_me % 2 == 1 ? "odd" : "even");
    std::vector<bool> mine(realTopology().getNumberLpus(), false);
    mine[_lpu] = true;
    Properties gathered;
    host->gatherAffinityPropertiesToMaster(gathered);
    std::vector<Properties> hosts;
    gathered.get("hosts", hosts);
    std::map<unsigned, std::string> hostOfRank;
    for (const Properties& each : hosts) {
        std::vector<Properties> masks;
        each.get("masks", masks);
        for (const Properties& one : masks) {
            hostOfRank[one.getUnsignedInt("rank")] = each.getString("hostname");
            std::vector<bool> mask;
            one.get("mask", mask);
            EXPECT_EQ(mask, mine);
        }
    }
    std::map<unsigned, std::string> expected;
    for (unsigned rank = 0; _me == 0 && rank < _ranks; ++rank)
        expected[rank] = rank % 2 == 1 ? "odd" : "even";
    EXPECT_EQ(hostOfRank, expected);
    EXPECT_EQ(hosts.size(), _me > 0 ? 0u : std::min(_ranks, 2u));
    Properties information;
    information.set("untouched", true);
    host->getSystemInformation(information);
    EXPECT_EQ(information.size(), host->firstProcessOnHost() ? 7u : 1u);
    if (host->firstProcessOnHost()) {
        std::vector<Properties> processes;
        information.get("processes", processes);
        ASSERT_EQ(processes.size(), host->getNumberProcesses());
        std::vector<bool> mask;
        processes.back().get("affinitymask", mask);
        EXPECT_TRUE(mask[_lpu]); // the only one, until that process goes on to the next test
        const Properties hardware = information.getProperties("hardware");
        EXPECT_EQ(hardware.hasName("ht"), realTopology().usesSMT());
        EXPECT_EQ(hardware.getProperties("topology").getUnsignedInt("NumberSockets"),
                  realTopology().getNumberSockets());
    }
}

/// Programs on this host whose name the job takes for its own: other servers, to it.
class OtherServers {
public:
    OtherServers() {
        Machine::globalCommunicator().broadcast(_name, 0); // that of rank 0
        MachineTestAccess::setExecutableName(_name);
    }
    ~OtherServers() {
        for (auto& server : _servers)
            server->terminate(0.0);
        if (!_servers.empty())
            Platform::filesystem().deleteFile(_path);
        MachineTestAccess::setExecutableName(_before);
    }
    /// One more, bound to a processor of the operating system's number. On one rank only.
    void start(unsigned processor) {
        if (_servers.empty())
            std::filesystem::copy_file("/bin/sleep", StringHelper::toString(_path));
        _servers.push_back(Platform::process().start({_path, L"60"}, {}));
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(processor, &set);
        EXPECT_EQ(::sched_setaffinity(_servers.back()->getPid(), sizeof set, &set), 0);
    }

private:
    const std::string _before = Machine::getExecutableName();
    std::string _name = "orvex-test-server-" + std::to_string(::getpid());
    const std::wstring _path = Platform::filesystem().join(
        Platform::filesystem().getDefaultTemporaryDirectory(), StringHelper::toWString(_name));
    std::vector<std::unique_ptr<OS::Process::ProcessHandle>> _servers;
};

TEST_F(Placement, GetsOutOfTheWayOfOtherServers) {
    const MachineHost& host = Machine::getHost();
    Communicator& ranks = Machine::globalCommunicator();
    OtherServers others;
    const auto alone = MachineHostTestAccess::claim("here");
    MachineHostTestAccess::pretend(*alone, {"here"});
    if (_me == 0) {
        others.start(numbersOfProcessors().front());
        EXPECT_FALSE(alone->hasMultipleServersRunning());
        others.start(numbersOfProcessors().front());
        EXPECT_TRUE(alone->hasMultipleServersRunning());
    }
    ranks.synchronise();
    const AffinityMask free = getAvailable(realTopology()) ^
                              realTopology().getPhysicalCoreMask(realTopology().getPhysicalCoreForLpu(_lpu));
    const std::size_t freeCores = realTopology().getPhysicalCoresFromMask(free).size();
    if (freeCores == 0)
        return;
    const auto cores = [](const char* label, const AffinityMask& mask) {
        const std::size_t count = realTopology().getPhysicalCoresFromMask(mask).size();
        return label + realTopology().printAffinityMask(mask, 60) + " = (" + std::to_string(count) +
               (count == 1 ? " core)\n" : " cores)\n");
    };
    const AffinityMask taken = getAvailable(realTopology()) ^ free;
    const std::string report = printedOnRank([&] { EXPECT_TRUE(host.hasCpuContention(true)); });
    EXPECT_EQ(report.substr(std::min(report.find("    Cores Occupied"), report.size())),
              _me > 0 ? ""
                      : "    Cores Occupied by ...\n" + cores("      ... Current Server: ", taken) +
                            cores("      ... Other Servers:  ", taken) +
                            cores("    Over-subscribed Cores on Host:  ", taken) +
                            cores("    => Available to Current Server: ", free) +
                            "    ----------\n    CPU contention detected for servers on " +
                            host.getHostName() + ".\n");
    const std::string told = printedOnRank(
        [&] { EXPECT_EQ(host.resolveCpuContention(BANDWIDTH_BINDING, true), _ranks <= freeCores); });
    EXPECT_EQ(told, "") << "no pause before the first attempt";
    EXPECT_EQ(Affinity::getProcessAffinity(realTopology()) == _bound, _ranks > freeCores)
        << "no room, no move";
    // A rank that is late at its place isn't seen at the old one.
    AffinityTestAccess::setProcess(realTopology(), _me == _ranks - 1 ? _bound : free);
    ranks.synchronise();
    if (_me == _ranks - 1) {
        Platform::time().sleep(0.2);
        AffinityTestAccess::setProcess(realTopology(), free);
    }
    EXPECT_FALSE(host.hasCpuContention(false));
}

/// The processors exist from the first pause on.
TEST_F(Placement, TriesToMoveAgainAfterAPause) {
    const auto host = MachineHostTestAccess::claim("host" + std::to_string(_me));
    MachineHostTestAccess::equip(
        *host, CpuTopology(makeTestMachine("machine pack:1 [numa] core:1 pu:1(indexes=9000)")));
    class Pause : public std::stringbuf {
    public:
        std::function<void()> meanwhile;
        int sync() override {
            meanwhile();
            return 0;
        }
    } pause;
    pause.meanwhile = [&] { MachineHostTestAccess::equip(*host, makeHardware()); };
    if (_me != 0) // only the master tells of its pauses
        return;
    std::streambuf* const console = std::cout.rdbuf(&pause);
    EXPECT_TRUE(host->resolveCpuContention(BANDWIDTH_BINDING, true));
    std::cout.rdbuf(console);
    unsigned length = 0;
    EXPECT_EQ(std::sscanf(pause.str().c_str(),
                          "Resolving CPU contention failed. Waiting for %u milliseconds before trying again.",
                          &length),
              1)
        << pause.str();
    EXPECT_TRUE(length >= 100 && length <= 1000) << length;
    EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), _bound);
}

TEST_F(Placement, FollowsTheCoresThatAreFree) {
    const MachineHost& host = Machine::getHost();
    const std::size_t cores = realTopology().getPhysicalCoresFromMask(getAvailable(realTopology())).size();
    EXPECT_EQ(host.isOverSubscribed(), _ranks > cores ? static_cast<int>(_ranks - cores) : 0);
    EXPECT_EQ(host.bindProcesses(BANDWIDTH_BINDING), _ranks <= cores);
    if (_ranks <= cores) {
        EXPECT_TRUE(Affinity::isProcessBound(realTopology()));
        // All on different cores, so together on as many as there are processes.
        EXPECT_EQ(realTopology().getPhysicalCoresFromMask(host.getHostAffinity()).size(), _ranks);
    } else {
        EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), _bound) << "nothing happens";
    }
    EXPECT_FALSE(CpuBinder::bindProcess(0, 1, realTopology(), AffinityMask(), BANDWIDTH_BINDING));
}

TEST_F(Placement, MoreProcessesThanElementsGoRound) {
    AffinityTestAccess::clearProcess(realTopology());
    const std::vector<unsigned> numbers = numbersOfProcessors();
    const CpuTopology four = makeMachine("pack:1 [numa] core:4 pu:1", 4);
    for (const CpuBindingPolicy policy : {BANDWIDTH_BINDING, LATENCY_BINDING})
        for (unsigned rank = 0; rank < 8; ++rank) {
            // The operating system refuses a processor that does not exist; the old binding stays.
            const bool exists = rank % 4 < numbers.size();
            EXPECT_EQ(CpuBinder::bindProcess(rank, 4, four, four.getTopologyMask(), policy), exists);
            EXPECT_TRUE(!exists || numbersOfProcessors() == std::vector{numbers[rank % 4]}) << rank;
        }
}

TEST_F(Placement, UnderTheLeastLoadIsWhereTheProcessRuns) {
    AffinityTestAccess::clearProcess(realTopology());
    // A process of one thread runs in one place.
    const pid_t child = ::fork();
    if (child == 0) {
        const bool bound = CpuBinder::bindProcess(0, 1, realTopology(), AffinityMask(), LEAST_LOAD_BINDING);
        const std::vector<unsigned> here{static_cast<unsigned>(::sched_getcpu())};
        ::_exit(bound && numbersOfProcessors() == here ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(Placement, WithoutBindingTheProcessIsWhereItsMainThreadIs) {
    AffinityTestAccess::clearProcess(realTopology());
    ASSERT_TRUE(AffinityTestAccess::setThread(realTopology(), _bound));
    const AffinityMask before = Affinity::getProcessAffinity(realTopology());
    std::thread(&MachineTestAccess::conformProcessAffinityToMainThreadAffinity).join();
    EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), before) << "the main thread alone decides";
    MachineTestAccess::conformProcessAffinityToMainThreadAffinity();
    EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), _bound);
}

TEST_F(Placement, KeepsToTheProcessorsThatAreAllowedAndKnown) {
    const auto host = MachineHostTestAccess::claim("here");
    const auto own = static_cast<unsigned>(::getpid());
    constexpr unsigned NOBODY = 1u << 30;
    MachineHostTestAccess::equip(*host, makeHardware());
    using List = std::vector<unsigned>;
    const auto occupied = [&](const List& pids) {
        return host->getCpuTopology().getLpusFromMask(MachineHostTestAccess::getOccupiedCores(*host, pids));
    };
    EXPECT_EQ(occupied({NOBODY}), List{}) << "whose binding can't be read is in nobody's way";
    EXPECT_EQ(occupied({NOBODY, own}), (List{0, 1})) << "a whole core for one of its processors";

    for (const auto& [allow, processes, tooMany] :
         {std::tuple("", 4u, 0), std::tuple("", 6u, 2), std::tuple("\nallow 0x5", 2u, 0),
          std::tuple("\nallow 0x5", 3u, 1)}) {
        MachineHostTestAccess::equip(
            *host, CpuTopology(makeTestMachine(std::string("machine pack:1 [numa] core:4 pu:1") + allow)));
        MachineHostTestAccess::pretend(*host, std::vector<std::string>(processes, "here"));
        EXPECT_EQ(host->isOverSubscribed(), tooMany) << allow << processes;
        if (tooMany > 0) {
            EXPECT_FALSE(host->bindProcesses(BANDWIDTH_BINDING));
            EXPECT_EQ(Affinity::getProcessAffinity(realTopology()), _bound) << "nothing happens";
        }
    }
    // Nothing is known of the hardware: nobody is too many, and nothing can be chosen.
    MachineHostTestAccess::equip(*host, CpuTopology(std::string("no XML at all\0", 14)));
    EXPECT_EQ(host->isOverSubscribed(), 0);
    EXPECT_FALSE(host->bindProcesses(BANDWIDTH_BINDING));
    EXPECT_EQ(occupied({own}), List{});
}

} // namespace
