#include "machine/failures/HostWatch.h"
#include "machine/failures/RankSample.h"
#include "platform/Process.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace {

RankSample sampleOf(double processor, double waits, LiveRank::State state = LiveRank::COMPUTES) {
    RankSample sample;
    sample.rank = 3;
    sample.pid = 77;
    sample.state = state;
    sample.processorSeconds = processor;
    sample.memory = 5000;
    sample.hasProfile = true;
    sample.waitSeconds = waits;
    return sample;
}

TEST(RankSample, TellsTheSharesOfAnInterval) {
    struct {
        RankSample before;
        RankSample now;
        double processorShare;
        double waitShare;
        LiveRank::State state;
    } rows[] = {
        {sampleOf(10, 5), sampleOf(11.5, 5.5), 0.75, 0.25, LiveRank::COMPUTES},
        {sampleOf(10, 5), sampleOf(10, 5, LiveRank::SLEEPS), 0, 0, LiveRank::SLEEPS},
        {sampleOf(10, 5), sampleOf(11, 5, LiveRank::SLEEPS), 0.5, 0, LiveRank::COMPUTES}, // seen between work
        {sampleOf(10, 5), sampleOf(10, 7.5, LiveRank::STOPPED), 0, 1, LiveRank::STOPPED},
        {sampleOf(10, 5), sampleOf(9, 4), 0, 0, LiveRank::COMPUTES}, // counters that can't be
        {sampleOf(10, 5), sampleOf(10, 5, LiveRank::DEAD), -1, -1, LiveRank::DEAD},
        {sampleOf(10, 5, LiveRank::DEAD), sampleOf(11, 5), -1, -1, LiveRank::COMPUTES},
    };
    for (const auto& row : rows) {
        const LiveRank live = row.now.toLive(&row.before, 2.0);
        EXPECT_EQ(live.rank, 3U);
        EXPECT_DOUBLE_EQ(live.processorShare, row.processorShare);
        EXPECT_DOUBLE_EQ(live.waitShare, row.waitShare);
        EXPECT_EQ(live.state, row.state);
    }
    EXPECT_EQ(sampleOf(1, 1).toLive(nullptr, 0.0).waitShare, LiveRank::UNKNOWN);
    RankSample other = sampleOf(1, 1);
    other.pid = 78;
    EXPECT_EQ(sampleOf(2, 2).toLive(&other, 1.0).processorShare, LiveRank::UNKNOWN) << "another process";
    other.hasProfile = false;
    other.pid = 77;
    EXPECT_EQ(sampleOf(2, 2).toLive(&other, 1.0).waitShare, LiveRank::UNKNOWN);
}

TEST(RankSample, TellsPlaceAndCosts) {
    RankSample sample = sampleOf(10, 5);
    sample.isInside = true;
    sample.operation = "allReduce";
    sample.operationSeconds = 0.5;
    sample.command = RankSample::Command{"Solve", 4.0, 7.0, 6000, 1.5, 30, 800};
    const LiveRank live = sample.toLive(nullptr, 0.0);
    EXPECT_EQ(live.state, LiveRank::WAITS);
    EXPECT_EQ(live.operation, "allReduce");
    EXPECT_EQ(live.command, "Solve");
    EXPECT_DOUBLE_EQ(live.processor, 3.0);
    EXPECT_DOUBLE_EQ(live.waiting, 1.5);
    EXPECT_EQ(live.addedMemory, -1000);
    sample.state = LiveRank::STOPPED;
    EXPECT_EQ(sample.toLive(nullptr, 0.0).state, LiveRank::STOPPED) << "that is why it stands there";
}

TEST(HostWatch, LooksAtProcessesOfThisHost) {
    HostWatch watch("here", {{0, Platform::process().getPid()}, {1, 1 << 30}});
    EXPECT_EQ(watch.look(false).seconds, 0.0);
    std::optional<LiveHost> host;
    while (!host || host->seconds == 0.0) // uses the processor until a look counts
        host = watch.look(true);
    EXPECT_EQ(host->name, "here");
    EXPECT_EQ(host->states[LiveRank::DEAD], 1U);
    ASSERT_EQ(host->list.size(), 2U);
    EXPECT_GT(host->list[0].processorShare, 0.0);
    EXPECT_GT(host->list[0].memory, 1 << 20);
    EXPECT_GT(host->freeMemory, 1 << 20);
    EXPECT_GT(host->processors, 0U);
}

} // namespace
