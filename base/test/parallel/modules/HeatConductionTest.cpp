// The sandbox's solver: its cutting of the grid, and its answers on any number of ranks against those of one.

#include "modules/OrvexParallelSandbox/HeatConduction.h"

#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

/// Each block's points in x and y, and its neighbours in the west, east, south and north.
std::string tellBlocks(unsigned nx, unsigned ny, unsigned ranks) {
    std::ostringstream told;
    try {
        for (unsigned rank = 0; rank < ranks; ++rank) {
            const GridBlock block(nx, ny, ranks, rank);
            for (const GridBlock::Range& range : {block.x(), block.y()})
                told << range.first << '-' << range.first + range.count - 1 << ' ';
            for (const GridBlock::Side side :
                 {GridBlock::WEST, GridBlock::EAST, GridBlock::SOUTH, GridBlock::NORTH})
                told << (block.neighbour(side) ? std::to_string(*block.neighbour(side)) : "-");
            told << '\n';
        }
    } catch (const InputError& error) {
        told << Error::getMessage(error.getProperties());
    }
    return told.str();
}

TEST(GridBlock, BlocksCoverTheGridAndKnowEachOther) {
    EXPECT_EQ(tellBlocks(5, 4, 1), "0-4 0-3 ----\n");
    EXPECT_EQ(tellBlocks(1, 5, 2), "0-0 0-2 ---1\n0-0 3-4 --0-\n");
    EXPECT_EQ(tellBlocks(100, 3, 3), "0-33 0-2 -1--\n34-66 0-2 02--\n67-99 0-2 1---\n");
    EXPECT_EQ(tellBlocks(7, 5, 6), "0-2 0-2 -1-3\n3-4 0-2 02-4\n5-6 0-2 1--5\n"
                                   "0-2 3-4 -40-\n3-4 3-4 351-\n5-6 3-4 4-2-\n");
    EXPECT_EQ(tellBlocks(3, 3, 11),
              "A grid of 3 by 3 points can't be cut into 11 blocks, one for each rank: give "
              "it more points");
}

void goOn(unsigned, double) {}

Communicator* allRanks() {
    return Machine::isParallel() ? &Machine::globalCommunicator() : nullptr;
}

TEST(HeatConduction, RanksTogetherFindTheSolutionOfOne) {
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
            EXPECT_GT(result.communicationTime, 0.0);
        }
        EXPECT_NEAR(together.iterations, alone.iterations, 2);
        EXPECT_NEAR(together.centre, alone.centre, 1e-10);
        EXPECT_NEAR(together.mean, alone.mean, 1e-10);
        EXPECT_NEAR(together.maximum, alone.maximum, 1e-10);
    }
}

TEST(HeatConduction, TheErrorFallsWithTheSquareOfTheDistance) {
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

TEST(HeatConduction, EndsOnAllRanksAlike) {
    const HeatConduction::Result unfinished = HeatConduction(40, 40, allRanks()).solve(1e-12, 5, goOn);
    EXPECT_EQ(unfinished.iterations, 5u);
    EXPECT_FALSE(unfinished.converged);
    EXPECT_GT(unfinished.residual, 1e-3);

    // The last rank alone cancels: all leave by the same error in the same iteration.
    const bool last = Machine::getPartitionId() + 1 == Machine::nProcesses();
    Task task("heat");
    std::vector<unsigned> iterations;
    const auto solve = [&] {
        HeatConduction(40, 40, allRanks()).solve(1e-12, 70, [&](unsigned iteration, double) {
            if (last && iteration == 3)
                task.cancel();
            iterations.push_back(iteration);
            task.advance(0.5);
        });
    };
    EXPECT_EQ(messageOf<RecoverableError>(solve), "\"heat\" was cancelled");
    EXPECT_TRUE(task.isCancelled());
    std::vector<unsigned> of0 = iterations;
    if (allRanks())
        allRanks()->broadcast(of0, 0);
    EXPECT_EQ(iterations, of0);
}

} // namespace
