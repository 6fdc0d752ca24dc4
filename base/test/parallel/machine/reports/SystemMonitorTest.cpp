// The memory of a job: folded over hosts and ranks, and as one file.

#include "machine/SystemMonitor.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include "kernel/Error.h"
#include "platform/FileSystem.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"
#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using Reading = std::int64_t (SystemMonitor::*)(SystemMonitor::MemoryMetric) const;

/// Rank r has r + 1 times 1000 bytes, 10 of them in libraries. Its clock moves on by 0.25 s in each sleep.
class RankSource : public SystemMonitor::Source {
public:
    double getTime() override { return now; }
    bool query(Platform::MemoryUse& use) override {
        const long long size = 1000LL * (Machine::getPartitionId() + 1);
        use = {size, size, size, size, 10};
        return !fails;
    }
    void wait(Semaphore& wake, double seconds) override {
        if (sleeps)
            wake.wait(seconds);
        else
            now += 0.25;
    }
    double getPatience() override { return 0.05; }

    double now = 0.0;
    bool fails = false;
    bool sleeps = false;
};

class SteppedMonitor : public SystemMonitor {
public:
    using SystemMonitor::runNestedTask;
    using SystemMonitor::SystemMonitor;
};

class SystemMonitorOfJob : public testing::Test {
protected:
    SystemMonitorOfJob() { monitor.setYieldTime(250); }
    void record(unsigned samples) {
        monitor.startRecording();
        for (unsigned i = 0; i < samples; ++i)
            monitor.runNestedTask();
        monitor.stopRecording();
    }

    const std::int64_t me = Machine::getPartitionId();
    const std::int64_t n = Machine::nProcesses();
    const std::int64_t sum = 1000 * n * (n + 1) / 2;
    RankSource* source = new RankSource;
    SteppedMonitor monitor{Machine::getSingleton().getOnExitObservable(),
                           std::unique_ptr<SystemMonitor::Source>(source)};
};

TEST_F(SystemMonitorOfJob, FoldsTheMemoryOfTheRanks) {
    monitor.runNestedTask();
    const std::tuple<Reading, Reading, std::int64_t> rows[] = {
        {&SystemMonitor::getProcessMemory, &SystemMonitor::getProcessPeakMemory, 1000 * (me + 1)},
        {&SystemMonitor::getHostMemory, &SystemMonitor::getHostPeakMemory, sum},
        {&SystemMonitor::getGlobalAccumulatedMemory, &SystemMonitor::getGlobalAccumulatedPeakMemory, sum},
        {&SystemMonitor::getGlobalMaxProcessMemory, &SystemMonitor::getGlobalMaxProcessPeakMemory, 1000 * n},
        {&SystemMonitor::getGlobalMinProcessMemory, &SystemMonitor::getGlobalMinProcessPeakMemory, 1000},
        {&SystemMonitor::getGlobalMaxHostMemory, &SystemMonitor::getGlobalMaxHostPeakMemory, sum},
        {&SystemMonitor::getGlobalMinHostMemory, &SystemMonitor::getGlobalMinHostPeakMemory, sum}};
    ASSERT_EQ(Machine::getHost().getNumberHosts(), 1u);
    for (const auto& [current, peak, expected] : rows) {
        EXPECT_EQ((monitor.*current)(SystemMonitor::RESIDENT), expected);
        EXPECT_EQ((monitor.*peak)(SystemMonitor::RESIDENT), expected);
    }
    EXPECT_EQ(monitor.getHostMemory(SystemMonitor::ADJUSTED_VIRTUAL), sum - 10 * (n - 1));
}

TEST_F(SystemMonitorOfJob, AllRanksFailWhenOneHasNoSample) {
    source->fails = me == n - 1;
    source->sleeps = true;
    monitor.start();
    for (const Reading reading :
         {&SystemMonitor::getHostMemory, &SystemMonitor::getGlobalAccumulatedMemory,
          &SystemMonitor::getGlobalMinProcessMemory, &SystemMonitor::getGlobalMaxHostMemory})
        EXPECT_EQ(
            messageOf<SystemError>([&] { static_cast<void>((monitor.*reading)(SystemMonitor::RESIDENT)); }),
            "The system monitor has no sample: the memory of a process can't be read");
    monitor.stop();
}

TEST_F(SystemMonitorOfJob, WritesTheSumOfAllRanksUpToTheEndOfTheShortestHistory) {
    std::string folder;
    if (me == 0)
        folder = StringHelper::toString(Platform::filesystem().makeTemporaryDirectory(
            Platform::filesystem().getDefaultTemporaryDirectory(), L"orvex-monitor-"));
    if (Machine::isParallel())
        Machine::globalCommunicator().broadcast(folder, 0);
    const auto message = [&](const std::string& name) {
        return messageOf<SystemError>([&] { monitor.exportHistoryData(folder + name); });
    };
    if (me != n - 1 || n == 1)
        record(6);
    else
        monitor.startRecording(), monitor.stopRecording();
    if (n > 1) { // a rank without a history
        EXPECT_EQ(message("/none.csv"), "");
        EXPECT_FALSE(std::ifstream(folder + "/none.csv"));
    }
    record(3);
    for (const auto& [name, reason] : {std::pair{"/missing/a.csv", "No such file or directory"},
                                       std::pair{"/../../../../../dev/full", "No space left on device"}})
        EXPECT_EQ(message(name),
                  "Error detected writing memory monitor history file \"" + folder + name + "\": " + reason);
    EXPECT_EQ(message("/a.csv"), "");
    if (me != 0)
        return;
    std::ostringstream text;
    text << std::ifstream(folder + "/a.csv").rdbuf();
    std::string expected = "time,virtual,resident,lib,virtualhwm,residenthwm,adjusted_virtual\n";
    const std::string size = std::to_string(sum);
    for (int row = 1; row <= (n == 1 ? 8 : 2); ++row) {
        std::ostringstream time;
        time << 0.25 * row;
        expected += time.str() + ',' + size + ',' + size + ',' + std::to_string(10 * n) + ',' + size + ',' +
                    size + ',' + std::to_string(sum - 10 * (n - 1)) + ",\n";
    }
    EXPECT_EQ(text.str(), expected);
    Platform::filesystem().deleteTree(StringHelper::toWString(folder));
}

TEST(SystemMonitorOfMachine, LeavesTheFileOfAnotherServerAndAgreesWithTheSystem) {
    const unsigned me = Machine::getPartitionId();
    const std::filesystem::path before = std::filesystem::current_path();
    std::string folder;
    if (me == 0) {
        folder = StringHelper::toString(Platform::filesystem().makeTemporaryDirectory(
            Platform::filesystem().getDefaultTemporaryDirectory(), L"orvex-monitor-"));
        std::filesystem::current_path(folder);
        for (std::time_t now = std::time(nullptr), next = now; next < now + 60; ++next) {
            char name[64];
            ASSERT_NE(std::strftime(name, sizeof name, "memory-history-%Y%m%d%H%M%S.csv", std::gmtime(&next)),
                      0u);
            std::ofstream(name) << "of another server";
        }
    }
    testing::internal::CaptureStdout();
    Machine::enableSystemMonitor(true, 1000.0F);
    Platform::time().sleep(0.1);
    Machine::enableSystemMonitor(false, 50.0F);
    const std::string told = testing::internal::GetCapturedStdout();
    Platform::MemoryUse use;
    ASSERT_TRUE(Platform::memory().createQuery(Platform::process().getPid())->query(use));
    double size = static_cast<double>(use.virtualSize);
    if (Machine::isParallel())
        Machine::globalCommunicator().allReduce(size, Communicator::SUM);
    EXPECT_NE(told.find("-2.csv\n"), std::string::npos) << told;
    if (me != 0)
        return;
    const std::size_t place = told.find("memory-history-");
    std::ifstream file(told.substr(place, told.size() - 1 - place));
    std::string line;
    std::string last;
    while (std::getline(file, line))
        last = line;
    EXPECT_NEAR(std::stod(last.substr(last.find(',') + 1)), size, 0.02 * size) << last;
    std::filesystem::current_path(before);
    Platform::filesystem().deleteTree(StringHelper::toWString(folder));
}

} // namespace
