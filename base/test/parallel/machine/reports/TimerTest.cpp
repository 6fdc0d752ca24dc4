// What the collective readings of a timer say, against arithmetic of its own.

#include "machine/Timer.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "parallel/harness/ParallelTest.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

namespace {

double wallTimeOf(unsigned rank) {
    return 1.0 + rank * rank * 0.25;
}
double cpuTimeOf(unsigned rank) {
    return 10.0 - rank;
}

/// What a communicator of these ranks of the job must be told.
struct Expected {
    Expected(const std::vector<unsigned>& ranks, double (*timeOf)(unsigned)) {
        maximum = minimum = timeOf(ranks.front());
        for (const unsigned rank : ranks) {
            maximum = std::max(maximum, timeOf(rank));
            minimum = std::min(minimum, timeOf(rank));
            sum += timeOf(rank);
        }
        const double mean = sum / double(ranks.size());
        double squares = 0.0;
        for (const unsigned rank : ranks)
            squares += (timeOf(rank) - mean) * (timeOf(rank) - mean);
        deviation = std::sqrt(squares / double(ranks.size()));
    }
    double maximum, minimum, sum = 0.0, deviation;
};

void check(const Timer& timer, const std::vector<unsigned>& ranks, bool isMaster) {
    constexpr double near = 1e-9;
    const Expected wall(ranks, wallTimeOf);
    const Expected cpu(ranks, cpuTimeOf);
    EXPECT_EQ(timer.getMaximumWallTime(), wall.maximum);
    EXPECT_EQ(timer.getMinimumWallTime(), wall.minimum);
    EXPECT_EQ(timer.getMaximumCpuTime(), cpu.maximum);
    EXPECT_EQ(timer.getMinimumCpuTime(), cpu.minimum);
    EXPECT_NEAR(timer.getAccumulatedCpuTime(), cpu.sum, near);
    // The average is over the processes of the whole job, whatever the communicator.
    EXPECT_NEAR(timer.getAverageWallTime(), wall.sum / Machine::nProcesses(), near);
    EXPECT_NEAR(timer.getAverageCpuTime(), cpu.sum / Machine::nProcesses(), near);
    EXPECT_NEAR(timer.getStandardDeviationWallTime(), isMaster ? wall.deviation : 0.0, near);
    EXPECT_NEAR(timer.getStandardDeviationCpuTime(), isMaster ? cpu.deviation : 0.0, near);
}

TEST(TimerOfJob, foldsTheTimesOfTheRanks) {
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
