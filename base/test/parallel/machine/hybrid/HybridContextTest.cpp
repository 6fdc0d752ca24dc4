// Ranks that become threads and back: who works where, what is left afterwards, and how ranks that wait meet.

#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/HybridMpiThreadContext.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"
#include "machine/ThreadPolicyBase.h"
#include "machine/hybrid/HostMeeting.h"
#include "machine/hybrid/ThreadBindingReport.h"

#include "kernel/Raise.h"
#include "kernel/ThreadParallelContext.h"
#include "platform/ThreadStacks.h"

#include "parallel/harness/ParallelTest.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/hardware/AffinityTestAccess.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <sched.h>
#include <tbb/parallel_for.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

namespace {

/// The processors of a thread as the operating system tells them. 0: the calling thread.
std::vector<int> processorsOf(int thread = 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> processors;
    if (sched_getaffinity(thread, sizeof set, &set) == 0)
        for (int i = 0; i < CPU_SETSIZE; ++i)
            if (CPU_ISSET(i, &set))
                processors.push_back(i);
    return processors;
}

/// The different processors of all threads of this process.
std::set<std::vector<int>> processorsOfAllThreads() {
    std::set<std::vector<int>> all;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        all.insert(processorsOf(std::stoi(task.path().filename())));
    return all;
}

/// Threads at work, each with its processors.
class Team {
public:
    /// Called by each member; waits, for a time, until `size` of them are here at once.
    void join(std::size_t size) {
        {
            const std::lock_guard lock(_mutex);
            _members[gettid()] = processorsOf();
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (count() < size && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::size_t count() const {
        const std::lock_guard lock(_mutex);
        return _members.size();
    }
    /// How many members each set of processors has.
    std::map<std::vector<int>, std::size_t> places() const {
        std::map<std::vector<int>, std::size_t> places;
        for (const auto& [thread, processors] : _members)
            ++places[processors];
        return places;
    }

private:
    mutable std::mutex _mutex;
    std::map<int, std::vector<int>> _members;
};

/// A job that knows its scopes, with each rank bound to one processor if it is told to.
class HybridContext : public testing::Test {
protected:
    void SetUp() override {
        if (Machine::isParallel()) {
            MachineTestAccess::buildShmemCommunicators();
            MachineTestAccess::startHostMeeting();
        }
        omp_set_num_threads(1);
    }
    void TearDown() override {
        AffinityTestAccess::clearProcess(topology());
        if (Machine::isParallel())
            MachineTestAccess::dropSharedMemCommunicators();
    }
    static const CpuTopology& topology() { return Machine::getHost().getCpuTopology(); }
    void bind() const {
        const std::vector<unsigned> lpus =
            topology().getLpusFromMask(topology().restrictToAvailableResources(topology().getTopologyMask()));
        AffinityTestAccess::setProcess(topology(), topology().getLpuMask(lpus[_me % lpus.size()]));
    }
    /// Each processor with the ranks, and so the threads, that belong to it.
    std::map<std::vector<int>, std::size_t> placesOfRanks() const {
        std::vector<int> all{processorsOf().front()};
        if (Machine::isParallel())
            Machine::globalCommunicator().allGather(processorsOf().front(), all);
        std::map<std::vector<int>, std::size_t> places;
        for (const int processor : all)
            ++places[{processor}];
        return places;
    }

    const unsigned _me = Machine::getPartitionId();
    const unsigned _ranks = Machine::nProcesses();
};

TEST_F(HybridContext, EachThreadWorksOnItsProcessorAndNothingIsLeft) {
    bind();
    const auto expected = placesOfRanks();
    const std::set<std::vector<int>> before = processorsOfAllThreads();
    EXPECT_EQ(before.size(), 1u);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        bool hasRun = false;
        HybridMpiThreadContext::execute(Machine::HOST_SCOPE, [&](const HybridMachine& machine) {
            hasRun = true;
            EXPECT_EQ(machine.nLocalCore(), _ranks);
            EXPECT_EQ(machine.isParallel(), Machine::isParallel());
            EXPECT_EQ(ThreadParallelContext::_threadParallelContext, 1u);
            Team tasks;
            tbb::parallel_for(
                0u, _ranks, [&](unsigned) { tasks.join(_ranks); }, tbb::simple_partitioner());
            EXPECT_EQ(tasks.count(), _ranks);
            EXPECT_EQ(tasks.places(), expected);
            EXPECT_EQ(omp_get_max_threads(), static_cast<int>(_ranks));
            Team region;
#pragma omp parallel
            region.join(_ranks);
            EXPECT_EQ(region.count(), _ranks);
            if (ThreadStacks::seesAllThreads()) {
                EXPECT_EQ(region.places(), expected);
            }
        });
        EXPECT_EQ(hasRun, _me == 0);
        EXPECT_EQ(omp_get_max_threads(), 1);
        EXPECT_EQ(ThreadParallelContext::_threadParallelContext, 0u);
        EXPECT_EQ(processorsOfAllThreads(), before);
    }
}

TEST_F(HybridContext, AProcessThatWasFreeHasFreeThreads) {
    AffinityTestAccess::clearProcess(topology());
    const std::vector<int> all = processorsOf();
    HybridMpiThreadContext::execute(Machine::HOST_SCOPE, [&](const HybridMachine&) {
        Team tasks;
        tbb::parallel_for(
            0u, _ranks, [&](unsigned) { tasks.join(_ranks); }, tbb::simple_partitioner());
        EXPECT_EQ(tasks.places(), (std::map<std::vector<int>, std::size_t>{{all, _ranks}}));
    });
}

TEST_F(HybridContext, AnErrorReachesAllRanksAndLeavesNothing) {
    bind();
    const std::set<std::vector<int>> before = processorsOfAllThreads();
    const std::vector<std::pair<void (*)(), std::string>> errors{
        {[] { raise(InputError("the mesh has no cells")); }, "the mesh has no cells"},
        {[] { tbb::parallel_for(0, 9, [](int) { throw std::runtime_error("a task fails"); }); },
         "a task fails"},
        {[] { throw 5; }, "an error of unknown type"}};
    for (const auto& [fail, text] : errors) {
        SCOPED_TRACE(text);
        std::string told;
        try {
            HybridMpiThreadContext::execute(Machine::HOST_SCOPE, "Meshing",
                                            [&](const HybridMachine&) { fail(); });
        } catch (const RecoverableError& error) {
            told = error.what();
            EXPECT_EQ(error.isCollective(), _me != 0);
        } catch (const std::exception& error) {
            told = error.what();
        } catch (int) {
            told = "an error of unknown type";
        }
        if (_me == 0) {
            EXPECT_EQ(told, text);
        } else {
            EXPECT_EQ(told, "The hybrid operation Meshing failed on rank 0: " + text);
        }
        EXPECT_EQ(omp_get_max_threads(), 1);
        EXPECT_EQ(ThreadParallelContext::_threadParallelContext, 0u);
        EXPECT_EQ(processorsOfAllThreads(), before);
    }
    EXPECT_EQ(messageOf<InternalError>([] {
                  HybridMpiThreadContext::execute(Machine::HOST_SCOPE, [](const HybridMachine&) {
                      EXPECT_EQ(messageOf<InternalError>([] {
                                    HybridMpiThreadContext::execute(Machine::HOST_SCOPE,
                                                                    [](const HybridMachine&) {});
                                }),
                                "Cannot start hybrid thread context inside another one!");
                  });
              }),
              "");
}

/// Has the threads of both runtimes bound and reported.
class Reporting : public HybridMpiThreadOperation {
public:
    std::unique_ptr<AbstractThreadPolicy> createThreadPolicy(unsigned nThreads, bool bindThreads) override {
        auto policy = std::make_unique<ThreadPolicyBase>(nThreads, bindThreads,
                                                         ThreadPolicyBase::Configuration{3, 3, 3});
        _policy = policy.get();
        return policy;
    }
    void run(const HybridMachine& machine) override {
        Team tasks;
        tbb::parallel_for(
            0u, machine.nLocalCore(), [&](unsigned) { tasks.join(machine.nLocalCore()); },
            tbb::simple_partitioner());
        lines = _policy->reportThreadAffinities();
    }

    std::vector<std::string> lines;

private:
    const ThreadPolicyBase* _policy = nullptr;
};

TEST_F(HybridContext, ReportsEachThreadOfBothRuntimes) {
    bind();
    std::vector<std::string> own{topology().printAffinityMask(Affinity::getThreadAffinity(topology()), 60)};
    std::string all = own[0] + '\n';
    std::vector<unsigned> lengths;
    if (Machine::isParallel())
        Machine::globalCommunicator().allGatherVector(own[0] + '\n', all, lengths);
    Reporting operation;
    HybridMpiThreadContext::execute(Machine::HOST_SCOPE, operation);
    if (_me != 0) {
        EXPECT_TRUE(operation.lines.empty());
        return;
    }
    ASSERT_EQ(operation.lines.size(), 2 * _ranks);
    for (unsigned i = 0; i < 2 * _ranks; ++i) {
        const std::string prefix =
            (i < _ranks ? "TBB Thread " : "OpenMP Thread ") + std::to_string(i % _ranks) + " - Affinity = ";
        EXPECT_TRUE(operation.lines[i].starts_with(prefix)) << operation.lines[i];
        EXPECT_NE(all.find(operation.lines[i].substr(prefix.size()) + '\n'), std::string::npos);
    }
}

TEST_F(HybridContext, TheReportOfProcessesWithAndWithoutAffinities) {
    Communicator* const ranks = Machine::isParallel() ? &Machine::globalCommunicator() : nullptr;
    const auto print = [ranks](const std::vector<std::string>& affinities) {
        testing::internal::CaptureStdout();
        ThreadBindingReport::print("Work", affinities, ranks);
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(print({}), "");
    const std::string place = ", on " + Machine::getHost().getHostName() + "):\n    Process Affinity = " +
                              topology().printAffinityMask(Affinity::getProcessAffinity(topology()), 60) +
                              "\n";
    std::string expected = "Thread Binding Report for \"Work\"";
    if (_ranks == 1)
        expected += " (total number of threads = 2)";
    expected += ":\n";
    for (unsigned rank = 0; rank < _ranks; ++rank)
        expected += "  Hybrid Process #" + std::to_string(rank) + " (" +
                    (rank % 2 == 0 ? "threads = 2" + place + "    one\n    two\n"
                                   : place.substr(2) + "    -- No Thread Affinities Available --\n");
    EXPECT_EQ(print(_me % 2 == 0 ? std::vector<std::string>{"one", "two"} : std::vector<std::string>{}),
              _me == 0 ? expected : "");
}

TEST_F(HybridContext, RanksThatWaitMeetAndHearOfAMark) {
    ORVEX_NEEDS_RANKS(2);
    constexpr MessageOperation MEET{"HybridContextTest::meet", CommunicatorStatistics::GLOBAL, true,
                                    Collective::LEAVE_HYBRID_CONTEXT};
    for (const bool hasMemory : {true, false}) {
        SCOPED_TRACE(hasMemory);
        if (!hasMemory)
            MachineTestAccess::stopHostMeeting();
        unsigned state = 1;
        for (unsigned round = 0; round < (hasMemory ? 300u : 20u); ++round) {
            state = state * 1103515245 + 12345; // the same on all ranks
            const unsigned late = (state >> 16) % _ranks;
            const bool isMarked = (state >> 8) % 3 == 0;
            if (late == _me && round % 50 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_EQ(HostMeeting::meet(Machine::globalCommunicator(), MEET, isMarked && late == _me,
                                        round % 2 == 0 ? 0.0 : 0.001),
                      isMarked);
        }
    }
}

} // namespace
