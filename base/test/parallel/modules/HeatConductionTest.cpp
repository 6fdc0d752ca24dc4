// The sandbox's solver: its cutting of the grid, and its answers on any number of ranks against those of one.

#include "modules/OrvexParallelSandbox/HeatConduction.h"

#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

TEST(GridBlock, blocksCoverTheGridAndKnowEachOther) {
    for (const auto& [nx, ny] :
         {std::pair(1u, 16u), std::pair(16u, 16u), std::pair(7u, 5u), std::pair(100u, 3u)})
        for (unsigned ranks = 1; ranks <= 16; ++ranks) {
            SCOPED_TRACE(std::to_string(nx) + " by " + std::to_string(ny) + " on " + std::to_string(ranks));
            std::vector<GridBlock> blocks;
            try {
                for (unsigned rank = 0; rank < ranks; ++rank)
                    blocks.emplace_back(nx, ny, ranks, rank);
            } catch (const InputError&) {
                bool fits = false;
                for (unsigned columns = 1; columns <= ranks; ++columns)
                    fits = fits || (ranks % columns == 0 && columns <= nx && ranks / columns <= ny);
                EXPECT_FALSE(fits);
                continue;
            }
            std::vector<unsigned> owners(nx * ny, 0);
            for (const GridBlock& block : blocks) {
                EXPECT_TRUE(block.x().count > 0 && block.y().count > 0);
                for (unsigned y = 0; y < ny; ++y)
                    for (unsigned x = 0; x < nx; ++x)
                        owners[y * nx + x] += block.x().contains(x) && block.y().contains(y) ? 1 : 0;
            }
            EXPECT_EQ(owners, std::vector<unsigned>(nx * ny, 1));
            for (unsigned rank = 0; rank < ranks; ++rank)
                for (const GridBlock::Side side : GridBlock::SIDES)
                    if (const auto& other = blocks[rank].neighbour(side)) {
                        EXPECT_EQ(blocks[*other].neighbour(GridBlock::opposite(side)), rank);
                        const bool horizontal = side == GridBlock::WEST || side == GridBlock::EAST;
                        EXPECT_EQ(horizontal ? blocks[rank].y().first : blocks[rank].x().first,
                                  horizontal ? blocks[*other].y().first : blocks[*other].x().first);
                    }
        }
}

void goOn(unsigned, double) {}

Communicator* allRanks() {
    return Machine::isParallel() ? &Machine::globalCommunicator() : nullptr;
}

TEST(HeatConduction, ranksTogetherFindWhatOneFindsAlone) {
    constexpr double TOLERANCE = 1e-10;
    for (const auto& [nx, ny] : {std::pair(8u, 8u), std::pair(9u, 21u)}) {
        SCOPED_TRACE(std::to_string(nx) + " by " + std::to_string(ny));
        const HeatConduction::Result alone = HeatConduction(nx, ny, nullptr).solve(TOLERANCE, 1000, goOn);
        const HeatConduction::Result together =
            HeatConduction(nx, ny, allRanks()).solve(TOLERANCE, 1000, goOn);
        for (const HeatConduction::Result& result : {alone, together}) {
            EXPECT_TRUE(result.converged);
            EXPECT_LT(result.residual, 100 * TOLERANCE);
            EXPECT_LT(result.heatImbalance, 1e-9);
        }
        EXPECT_NEAR(together.iterations, alone.iterations, 2);
        EXPECT_NEAR(together.centre, alone.centre, 1e-10);
        EXPECT_NEAR(together.mean, alone.mean, 1e-10);
        EXPECT_NEAR(together.maximum, alone.maximum, 1e-10);
    }
}

TEST(HeatConduction, errorFallsWithTheSquareOfTheDistance) {
    EXPECT_NEAR(HeatConduction::exactCentre(), 0.0736713532814, 1e-12);
    double coarse = 0.0;
    for (const unsigned n : {7u, 15u, 31u}) {
        const HeatConduction::Result result = HeatConduction(n, n, allRanks()).solve(1e-11, 1000, goOn);
        const double error = std::abs(result.centre - HeatConduction::exactCentre());
        EXPECT_DOUBLE_EQ(result.maximum, result.centre);
        EXPECT_NEAR(result.mean, 0.0351442, 0.2 / n);
        if (coarse > 0.0) {
            EXPECT_NEAR(coarse / error, 4.0, 0.2) << n;
        }
        coarse = error;
    }
}

TEST(HeatConduction, endsOnAllRanksAlike) {
    const HeatConduction::Result unfinished = HeatConduction(40, 40, allRanks()).solve(1e-12, 5, goOn);
    EXPECT_EQ(unfinished.iterations, 5u);
    EXPECT_FALSE(unfinished.converged);
    EXPECT_GT(unfinished.residual, 1e-3);

    // The last rank alone has enough of it: all leave by the same error in the same iteration, also a second
    // time. With messages locked out the others hear nothing.
    const bool last = Machine::getPartitionId() + 1 == Machine::nProcesses();
    for (const bool local : {false, true}) {
        MessagingGate::set(MessagingGate::LOCAL_COMMAND, local);
        Task task("heat");
        std::vector<unsigned> iterations;
        for (int time = 0; time < 2; ++time)
            try {
                HeatConduction(40, 40, local ? nullptr : allRanks())
                    .solve(1e-12, 70, [&](unsigned iteration, double) {
                        if (last && iteration == 3)
                            task.cancel();
                        iterations.push_back(iteration);
                        task.advance(0.5);
                    });
            } catch (const RecoverableError& error) {
                EXPECT_STREQ(error.what(), "\"heat\" was cancelled");
                iterations.push_back(1000);
            }
        MessagingGate::set(MessagingGate::LOCAL_COMMAND, false);
        const bool ended = !local || last;
        EXPECT_EQ(task.isCancelled(), ended);
        EXPECT_EQ(std::count(iterations.begin(), iterations.end(), 1000u), ended ? 2 : 0);
        EXPECT_EQ(iterations.back(), ended ? 1000u : 69u);
        if (!local && allRanks()) {
            std::vector<unsigned> of0 = iterations;
            allRanks()->broadcast(of0, 0);
            EXPECT_EQ(iterations, of0);
        }
    }

    if (Machine::nProcesses() > 2) {
        EXPECT_THROW(HeatConduction(1, 2, allRanks()), InputError);
    }
}

} // namespace
