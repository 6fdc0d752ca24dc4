#include "machine/Timer.h"
#include "machine/Communicator.h"
#include "machine/messages/MpiWallTimer.h"

#include "platform/WallTimer.h"

#include "support/ScriptedMpi.h"

#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

class SerialTimer : public testing::Test {
protected:
    SerialTimer() { MachineTestAccess::startAfresh(); }
};

TEST_F(SerialTimer, ClocksRunOrNotByThemselves) {
    Timer timer;
    EXPECT_EQ(timer.getWallTime(), 0.0);
    EXPECT_EQ(timer.getCpuTime(), 0.0);
    const std::pair<void (Timer::*)(), const char*> steps[] = {
        {&Timer::stop, "---"},          {&Timer::startWallTimer, "w--"}, {&Timer::startCpuTimer, "wcb"},
        {&Timer::stopWallTimer, "-c-"}, {&Timer::stopCpuTimer, "---"},   {&Timer::start, "wcb"},
        {&Timer::resetCpuTimer, "w--"}, {&Timer::resetWallTimer, "---"}, {&Timer::start, "wcb"},
        {&Timer::stop, "---"},          {&Timer::start, "wcb"},          {&Timer::reset, "---"}};
    for (const auto& [step, expected] : steps) {
        (timer.*step)();
        EXPECT_EQ(std::string(timer.wallTimerRunning() ? "w" : "-") + (timer.cpuTimerRunning() ? "c" : "-") +
                      (timer.running() ? "b" : "-"),
                  expected);
    }
    timer.setTimes(3.0, 4.0);
    EXPECT_EQ(timer.getCpuTime(), 3.0);
    EXPECT_EQ(timer.getWallTime(), 4.0);
}

TEST_F(SerialTimer, ProcessorTimeOfSeveralIntervalsAddsUp) {
    Timer timer;
    for (const double end : {0.02, 0.04}) {
        timer.startCpuTimer();
        while (timer.getCpuTime() < end) {
        }
        timer.stopCpuTimer();
        EXPECT_GE(timer.getCpuTime(), end);
        EXPECT_EQ(timer.getWallTime(), 0.0);
    }
}

TEST_F(SerialTimer, AnUnknownClockIsTheSystems) {
    testing::internal::CaptureStdout();
    const std::unique_ptr<WallTimer> clock = Timer::createWallTimer(static_cast<WallTimerType>(7));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Unsupported wall timer type.. reverting to system wall timer.\n");
    ASSERT_TRUE(clock);
    EXPECT_EQ(clock->start(), 0);
}

/// Rank 0 of 4 on the scripted driver's clock.
class ParallelTimer : public testing::Test {
protected:
    ParallelTimer() {
        mpi.setWorld(0, 4);
        MachineTestAccess::startAfresh();
        MachineTestAccess::playRole(Machine::MASTER_MODE, 8, 0);
        comm = std::make_unique<Communicator>();
        mpi.setClock(100.0, 1.0);
    }
    ~ParallelTimer() override { MachineTestAccess::startAfresh(); }

    ScriptedMpi& mpi = ScriptedMpi::start();
    std::unique_ptr<Communicator> comm;
};

TEST_F(ParallelTimer, CountsOnTheClockOfTheMessageLayer) {
    Timer timer(comm.get());
    timer.startWallTimer();              // 100
    EXPECT_EQ(timer.getWallTime(), 1.0); // 101
    timer.stopWallTimer();               // 102
    EXPECT_EQ(timer.getWallTime(), 2.0);
    timer.startWallTimer(); // 103
    timer.startWallTimer(); // 104: the interval begins anew
    const Timer copy(timer);
    EXPECT_EQ(copy.getWallTime(), 3.0);  // 105
    EXPECT_EQ(timer.getWallTime(), 4.0); // 106
    timer.reset();
    EXPECT_EQ(timer.getWallTime(), 0.0);
    EXPECT_EQ(copy.getWallTime(), 5.0);
}

} // namespace
