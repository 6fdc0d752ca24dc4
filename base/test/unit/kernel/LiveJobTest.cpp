#include "kernel/profile/LiveJob.h"

#include "support/LiveRanks.h"

#include <gtest/gtest.h>

namespace {

TEST(LiveJob, FoldsTenThousandRanks) {
    std::vector<LiveRank> ranks = LiveRanks::make(10000);
    const LiveJob job = LiveJob::fromProperties(LiveRanks::jobOf(ranks, 50).toProperties());
    const LiveHost& total = job.total;
    EXPECT_EQ(job.hosts.size(), 200U);
    EXPECT_EQ(total.ranks, 10000U);
    EXPECT_EQ(total.waitShare.count, 9999U) << "one is dead";
    EXPECT_EQ(total.states[LiveRank::DEAD], 1U);
    EXPECT_EQ(total.getSlowest(), 5100U);
    EXPECT_EQ(total.memory.maxRank, 7500U);
    EXPECT_EQ(total.getMostCommon(), (std::pair<std::string, unsigned>("allReduce", 8749)));
    EXPECT_NEAR(total.waiting.total, 9999 * 25.0, 1e-6);
    EXPECT_EQ(job.hosts[102].odd.at(0).rank, 5100U);
    EXPECT_EQ(job.hosts[50].odd.at(0).state, LiveRank::DEAD);
    EXPECT_TRUE(job.hosts[0].odd.empty());
    const Properties answer = job.toProperties();
    EXPECT_EQ(answer.getProperties("slowest").getUnsignedInt("rank"), 5100U);
    EXPECT_EQ(answer.getProperties("slowest").getString("host"), "node102");
    EXPECT_EQ(answer.getProperties("mostMemory").getString("host"), "node150");
    EXPECT_LT(answer.toString().size(), 1U << 20);
}

TEST(LiveJob, KnowsWhichRankIsTheSlowest) {
    struct {
        std::vector<double> waits; ///< of each rank, in percent
        int slowest;               ///< -1: none
        bool hasCommand = true;
    } const rows[] = {{{30, 31, 2, 33}, 2},
                      {{30, 31, 29, 33}, -1},
                      {{0, 0, 0, 0}, -1},
                      {{40, 3}, 1},
                      {{5}, -1},
                      {{30, 31, 2, 33}, -1, false},
                      {{50, 1, 1}, 1},
                      {{}, -1},
                      {{-100, 80, 60}, 2}};
    for (const auto& row : rows) {
        std::vector<LiveRank> ranks = LiveRanks::make(static_cast<unsigned>(row.waits.size()));
        for (LiveRank& rank : ranks) {
            rank.waitShare = row.waits[rank.rank] / 100.0;
            if (!row.hasCommand)
                rank.command.clear();
        }
        const auto slowest = LiveRanks::jobOf(ranks, 2).total.getSlowest();
        EXPECT_EQ(slowest ? static_cast<int>(*slowest) : -1, row.slowest)
            << testing::PrintToString(row.waits);
    }
}

TEST(LiveJob, TakesAnyTextOfOthers) {
    for (const char* text :
         {"{}", R"({"hosts":5})", R"({"hosts":[{"waitShare":3,"list":[{"rank":"x"}],"states":[]}]})",
          R"({"hosts":[{"ranks":-1,"operations":{"a":"b"},"memory":{"count":2.5}}]})"}) {
        const LiveJob job = LiveJob::fromProperties(Properties(std::string_view(text)));
        EXPECT_EQ(job.total.ranks, 0U) << text;
    }
    const LiveHost silent = LiveHost::makeSilent("b", {3, 4}, "it can't be reached");
    const LiveHost copy = LiveHost::fromProperties(silent.toProperties());
    EXPECT_EQ(copy.silence, "it can't be reached");
    EXPECT_EQ(copy.states[LiveRank::SILENT], 2U);
}

} // namespace
