// The system monitor of one process, on a clock and with values of the test's own; then on those of the
// system.

#include "machine/SystemMonitor.h"
#include "machine/reports/MemoryHistory.h"

#include "kernel/Error.h"
#include "kernel/Subject.h"
#include "platform/Memory.h"
#include "platform/StringHelper.h"

#include "support/TemporaryDirectory.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

namespace {

using Metric = SystemMonitor::MemoryMetric;

// ---- The history as data.

SystemMonitor::Values valuesOf(std::int64_t value) {
    SystemMonitor::Values values;
    values.fill(value);
    return values;
}

TEST(MemoryHistory, GivesEachStepTheLargestValueSeenInIt) {
    struct Row {
        std::vector<double> times;
        std::vector<std::int64_t> samples;
        double step;
        std::size_t rows;
        std::vector<std::int64_t> expected; ///< of one metric
        double emptyStep;                   ///< 0: none
    };
    const Row rows[] = {
        {{0.25}, {7}, 0.25, 1, {7}, 0.0},
        {{0.1, 0.5, 0.6, 1.0}, {1, 9, 4, 3}, 0.5, 2, {9, 4}, 0.0},
        {{0.1, 0.2, 0.3}, {1, 2, 3}, 0.1, 3, {1, 2, 3}, 0.0}, // 3 * 0.1 is a little more than 0.3
        {{0.1, 0.2, 0.1 + 0.2}, {1, 2, 3}, 0.3, 1, {3}, 0.0}, // 0.1 + 0.2 as well
        {{0.5, 2.5}, {1, 2}, 1.0, 2, {1, -1}, 2.5},
        {{0.5}, {1}, 1.0, 2, {1, -1}, 2.0}};
    for (const Row& row : rows) {
        MemoryHistory history;
        for (std::size_t i = 0; i < row.times.size(); ++i)
            history.append(row.times[i], valuesOf(row.samples[i]));
        std::vector<std::int64_t> expected;
        for (const std::int64_t value : row.expected)
            expected.insert(expected.end(), SystemMonitor::NUMBER_METRICS, value);
        std::vector<std::int64_t> cells;
        double emptyStep = 0.0;
        EXPECT_EQ(history.resample(row.step, row.rows, cells, emptyStep), row.emptyStep == 0.0);
        EXPECT_EQ(emptyStep, row.emptyStep);
        EXPECT_EQ(cells, expected);
    }
}

TEST(MemoryHistory, HalvesItselfWhenFullAndKeepsThePeak) {
    MemoryHistory history;
    constexpr std::size_t FULL = MemoryHistory::MAXIMUM_SAMPLES;
    for (std::size_t i = 1; i <= FULL; ++i)
        history.append(double(i), valuesOf(i == 1001 ? 99 : 1));
    EXPECT_EQ(history.size(), FULL);
    EXPECT_EQ(history.findStep(), 1.0);
    history.append(FULL + 1.0, valuesOf(1));
    EXPECT_EQ(history.size(), FULL / 2 + 1);
    EXPECT_EQ(history.findStep(), 2.0);
    EXPECT_EQ(history.getEndTime(), FULL + 1.0);
    std::vector<std::int64_t> cells;
    double emptyStep = 0.0;
    EXPECT_TRUE(history.resample(2.0, 501, cells, emptyStep));
    EXPECT_EQ(cells.back(), 99);
}

// ---- The monitor, step by step.

/// A clock that stands still outside wait().
class ScriptedSource : public SystemMonitor::Source {
public:
    double getTime() override { return now; }
    bool query(Platform::MemoryUse& use) override {
        if (onQuery)
            onQuery();
        if (fails)
            return false;
        use = {1000 + next, 2000 + next, 300 + next, 400 + next, 50};
        next = next == 0 ? 5 : next - 1;
        return true;
    }
    void wait(Semaphore&, double seconds) override {
        waits.push_back(seconds);
        now += seconds + delay;
        delay = usualDelay;
    }
    double getPatience() override { return 0.01; }

    double now = 1000.0;
    double delay = 0.0;
    double usualDelay = 0.0;
    std::atomic<bool> fails{false};
    long long next = 0;
    std::vector<double> waits;
    std::function<void()> onQuery;
};

/// The worker's task in the hands of the test.
class SteppedMonitor : public SystemMonitor {
public:
    using SystemMonitor::runNestedTask;
    using SystemMonitor::SystemMonitor;
};

class SystemMonitorTest : public testing::Test {
protected:
    SystemMonitorTest() {
        MachineTestAccess::startAfresh();
        monitor.setYieldTime(250);
    }
    std::string path(const wchar_t* name) const { return StringHelper::toString(folder / name); }
    void step(int n) {
        for (int i = 0; i < n; ++i)
            monitor.runNestedTask();
    }
    std::string exportTo(const std::string& file) {
        testing::internal::CaptureStdout();
        const std::string failure = messageOf<SystemError>([&] { monitor.exportHistoryData(file); });
        return testing::internal::GetCapturedStdout() + failure;
    }
    static std::string contentOf(const std::string& file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }

    TemporaryDirectory folder;
    Subject onExit;
    ScriptedSource* source = new ScriptedSource;
    SteppedMonitor monitor{onExit, std::unique_ptr<SystemMonitor::Source>(source)};
};

TEST_F(SystemMonitorTest, WritesTheLargestValuesOfEachStep) {
    monitor.startRecording();
    step(4); // values 0, 5, 4, 3 at the times 0, 0.25, 0.5, 0.75
    EXPECT_EQ(monitor.getTime(), 1.0);
    monitor.stopRecording();
    EXPECT_EQ(monitor.getTime(), 0.0);
    step(1);
    const std::string file = path(L"history.csv");
    EXPECT_EQ(exportTo(file), "Exporting memory history to file : " + file + "\n");
    EXPECT_EQ(contentOf(file), "time,virtual,resident,lib,virtualhwm,residenthwm,adjusted_virtual\n"
                               "0.25,1005,305,50,2005,405,1005,\n"
                               "0.5,1004,304,50,2004,404,1004,\n"
                               "0.75,1003,303,50,2003,403,1003,\n");
    EXPECT_EQ(monitor.getProcessMemory(Metric::VIRTUAL), 1002);
    EXPECT_EQ(monitor.getProcessPeakMemory(Metric::VIRTUAL), 1005);
    monitor.resetPeak();
    EXPECT_EQ(monitor.getProcessPeakMemory(Metric::VIRTUAL), 0);
}

TEST_F(SystemMonitorTest, KeepsItsGridInSpiteOfLateWakeUps) {
    source->delay = source->usualDelay = 0.0625;
    step(3);
    source->delay = 1.0; // misses four points of the grid
    step(3);
    EXPECT_EQ(source->waits, (std::vector{0.25, 0.1875, 0.1875, 0.1875, 0.25, 0.1875}));
    monitor.setYieldTime(125); // a shorter time doesn't wait for the longer one
    source->waits.clear();
    step(2);
    EXPECT_LE(source->waits.front(), 0.125);
}

TEST_F(SystemMonitorTest, TellsWhyNoFileCanBeWritten) {
    EXPECT_EQ(exportTo(path(L"none.csv")),
              "Exporting memory history to file : " + path(L"none.csv") + "\nEmpty sampling history...\n");
    EXPECT_FALSE(std::ifstream(path(L"none.csv")));
    monitor.startRecording();
    step(3);
    const std::pair<std::string, std::string> rows[] = {
        {"/dev/full", "No space left on device"},
        {path(L"missing") + "/a.csv", "No such file or directory"},
        {StringHelper::toString(folder.getPath()), "Is a directory"}};
    for (const auto& [file, reason] : rows)
        EXPECT_EQ(exportTo(file), "Exporting memory history to file : " + file +
                                      "\nError detected writing memory monitor history file \"" + file +
                                      "\": " + reason);
    exportTo(path(L"later.csv")); // nothing is lost
    EXPECT_NE(contentOf(path(L"later.csv")), "");
}

TEST_F(SystemMonitorTest, DropsAPeakFromBeforeTheReset) {
    source->onQuery = [&] {
        source->onQuery = nullptr;
        monitor.resetPeak(); // the value of this query is older
    };
    step(1);
    EXPECT_EQ(monitor.getProcessPeakMemory(Metric::VIRTUAL), 0);
    step(1); // at once, not at the next point of the grid
    EXPECT_EQ(monitor.getProcessPeakMemory(Metric::VIRTUAL), 1005);
    EXPECT_EQ(source->waits, (std::vector{0.02, 0.25}));
}

// ---- The monitor with its thread.

/// Stands still between the queries, as the system's does.
class FailingSource : public ScriptedSource {
public:
    void wait(Semaphore& wake, double seconds) override { wake.wait(seconds); }
};

TEST_F(SystemMonitorTest, AReaderDoesNotWaitForeverForMemoryThatCannotBeRead) {
    auto* failing = new FailingSource;
    failing->fails = true;
    SystemMonitor unlucky(onExit, std::unique_ptr<SystemMonitor::Source>(failing));
    unlucky.setYieldTime(1000000);
    unlucky.start();
    const auto read = [&] { static_cast<void>(unlucky.getHostMemory(Metric::RESIDENT)); };
    EXPECT_EQ(messageOf<SystemError>(read),
              "The system monitor has no sample: the memory of a process can't be read");
    failing->fails = false;
    for (int i = 0; i < 1000 && !messageOf<SystemError>(read).empty(); ++i) {
    }
    EXPECT_EQ(messageOf<SystemError>(read), "");
    unlucky.stop();
}

TEST(SystemMonitorOfThisProcess, ObeysInEveryOrder) {
    MachineTestAccess::startAfresh();
    Subject onExit;
    const TemporaryDirectory folder;
    const std::string file = StringHelper::toString(folder / L"a.csv");
    SystemMonitor monitor(onExit);
    monitor.setYieldTime(0);
    using Step = std::function<void()>;
    const std::array<Step, 8> steps{[&] {
                                        if (!monitor.running())
                                            monitor.start();
                                    },
                                    [&] { monitor.stop(); },
                                    [&] { monitor.startRecording(); },
                                    [&] { monitor.stopRecording(); },
                                    [&] { monitor.resetPeak(); },
                                    [&] { monitor.exportHistoryData(file); },
                                    [&] { onExit.notify(); },
                                    [&] { static_cast<void>(monitor.getTime()); }};
    testing::internal::CaptureStdout();
    for (const Step& first : steps)
        for (const Step& second : steps)
            for (const Step& third : steps) {
                first();
                second();
                third();
                if (monitor.running()) {
                    EXPECT_GT(monitor.getProcessPeakMemory(Metric::VIRTUAL), 0);
                }
            }
    testing::internal::GetCapturedStdout();
}

TEST(SystemMonitorOfThisProcess, TellsTheMemoryOfTheSystem) {
    MachineTestAccess::startAfresh();
    Subject onExit;
    SystemMonitor monitor(onExit);
    monitor.setYieldTime(1000000); // resetPeak() below doesn't wait for it
    monitor.start();
    expectAssertion([&] { monitor.start(); }, "SystemMonitor is already running.", "!running()",
                    "SystemMonitor.cpp");
    static_cast<void>(monitor.getProcessMemory(Metric::RESIDENT));
    const std::vector<char> grown(64u << 20, 'x');
    monitor.resetPeak();
    EXPECT_GE(monitor.getProcessPeakMemory(Metric::RESIDENT), std::int64_t(grown.size()));
    EXPECT_GE(monitor.getGlobalMaxHostMemory(Metric::RESIDENT_HWM),
              monitor.getGlobalAccumulatedMemory(Metric::RESIDENT));
    EXPECT_EQ(monitor.getHostMemory(Metric::ADJUSTED_VIRTUAL), monitor.getProcessMemory(Metric::VIRTUAL));
    onExit.notify();
    EXPECT_FALSE(monitor.running());
    monitor.stop();
    EXPECT_GT(monitor.getProcessMemory(Metric::LIB), 0);
}

} // namespace
