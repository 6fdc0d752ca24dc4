// The collective readings of a timer, against arithmetic of the test's own.

#include "machine/Timer.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "parallel/harness/ParallelTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <vector>

namespace {

double wallTimeOf(unsigned rank) {
    return 1.0 + rank * rank * 0.25;
}
double cpuTimeOf(unsigned rank) {
    return 10.0 - rank;
}

using Reading = double (Timer::*)() const;

/// The readings of one kind of time over a communicator of these ranks of the job.
void check(const Timer& timer, const std::vector<unsigned>& ranks, bool isMaster, double (*timeOf)(unsigned),
           Reading getMaximum, Reading getMinimum, Reading getAverage, Reading getDeviation) {
    constexpr double near = 1e-9;
    std::vector<double> times;
    for (const unsigned rank : ranks)
        times.push_back(timeOf(rank));
    const double sum = std::accumulate(times.begin(), times.end(), 0.0);
    double squares = 0.0;
    for (const double time : times)
        squares += std::pow(time - sum / double(times.size()), 2);
    EXPECT_EQ((timer.*getMaximum)(), *std::max_element(times.begin(), times.end()));
    EXPECT_EQ((timer.*getMinimum)(), *std::min_element(times.begin(), times.end()));
    // The average is over the processes of the whole job, whatever the communicator.
    EXPECT_NEAR((timer.*getAverage)(), sum / Machine::nProcesses(), near);
    EXPECT_NEAR((timer.*getDeviation)(), isMaster ? std::sqrt(squares / double(times.size())) : 0.0, near);
}

void check(const Timer& timer, const std::vector<unsigned>& ranks, bool isMaster) {
    check(timer, ranks, isMaster, wallTimeOf, &Timer::getMaximumWallTime, &Timer::getMinimumWallTime,
          &Timer::getAverageWallTime, &Timer::getStandardDeviationWallTime);
    check(timer, ranks, isMaster, cpuTimeOf, &Timer::getMaximumCpuTime, &Timer::getMinimumCpuTime,
          &Timer::getAverageCpuTime, &Timer::getStandardDeviationCpuTime);
    EXPECT_NEAR(timer.getAccumulatedCpuTime(), timer.getAverageCpuTime() * Machine::nProcesses(), 1e-9);
}

TEST(TimerOfJob, FoldsTheTimesOfTheRanks) {
    const unsigned me = Machine::getPartitionId();
    std::vector<unsigned> all;
    std::vector<unsigned> odd;
    for (unsigned rank = 0; rank < Machine::nProcesses(); ++rank) {
        all.push_back(rank);
        if (rank % 2 == 1)
            odd.push_back(rank);
    }
    Timer timer;
    timer.setTimes(cpuTimeOf(me), wallTimeOf(me));
    check(timer, all, me == 0);

    const std::unique_ptr<Communicator> some = Machine::globalCommunicator().createCommunicator(odd);
    if (some) {
        Timer ofSome(some.get());
        ofSome.setTimes(cpuTimeOf(me), wallTimeOf(me));
        check(ofSome, odd, me == odd.front());
    }

    timer.setTimes(0.1, 0.1); // equal values have no deviation, whatever the rounding
    EXPECT_EQ(timer.getStandardDeviationWallTime(), 0.0);
    EXPECT_EQ(timer.getStandardDeviationCpuTime(), 0.0);
}

} // namespace
