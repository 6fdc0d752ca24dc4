// The sleeping barrier and the sleeping broadcast.

#include "parallel/harness/ParallelTest.h"

#include "machine/Communicator.h"

#include "platform/Time.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

TEST(NoSpinSynchronise, NobodyLeavesBeforeAllHaveCome) {
    Communicator comm;
    // Each of the first ranks is the late one once, with and without a time to spin.
    for (unsigned late = 0; late < std::min(comm.size(), 4u); ++late) {
        const double spin = late % 2 == 0 ? 0.0 : 1.0;
        comm.synchronise();
        if (comm.myRank() == late)
            Platform::time().sleep(0.03);
        double came = Platform::time().getTime();
        comm.noSpinSynchronise(spin);
        comm.noSpinSynchronise(1.0 - spin); // two in a row stay apart
        const double left = Platform::time().getTime();
        comm.allReduce(came, Communicator::MAX); // one clock for all: they run on one machine
        EXPECT_GE(left, came) << "late " << late;
    }
}

TEST(NoSpinSynchronise, WaitingRankSleeps) {
    ORVEX_NEEDS_RANKS(2);
    Communicator comm;
    constexpr double late = 0.5;
    std::string text;
    const auto busyTime = [&](unsigned lateRank, auto wait) {
        comm.synchronise();
        Platform::ProcessorStamp stamp;
        Platform::time().stampProcessorTime(stamp);
        if (comm.myRank() == lateRank) {
            Platform::time().sleep(late);
            text = "late";
        }
        wait();
        return Platform::time().getElapsedProcessorTime(stamp);
    };
    // A rank that spins would use all of the time that it gets; a sleeping one looks a hundred times a
    // second.
    EXPECT_LT(busyTime(comm.size() - 1, [&] { comm.noSpinSynchronise(0.0); }), 0.2 * late);
    EXPECT_LT(busyTime(0, [&] { comm.noSpinBroadcast(text); }), 0.2 * late);
    comm.synchronise();
}

TEST(NoSpinSynchronise, TextOfTheFirstReachesAll) {
    Communicator comm;
    for (const std::size_t size : {100000u, 0u, 3u}) {
        std::string text(comm.myRank() == 0 ? size : comm.myRank(), comm.myRank() == 0 ? 'a' : 'b');
        comm.noSpinBroadcast(text);
        EXPECT_EQ(text, std::string(size, 'a'));
    }
}

} // namespace
