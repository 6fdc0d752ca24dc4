#include "parallel/harness/ParallelTest.h"

#include "mpiwrapper/OxmMpi.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

// Tests that must not pass: they prove that the harness sees a failure wherever it is. Each runs by its own,
// and the caller looks for the words of the harness.

namespace {

using ParallelTest::rank;
using ParallelTest::size;

bool isLast() {
    return rank() == size() - 1;
}

TEST(Canary, FailsOnTheLastRank) {
    EXPECT_FALSE(isLast()) << "the last rank sees a fault";
}

TEST(Canary, IsSkippedOnTheLastRank) {
    if (isLast())
        GTEST_SKIP();
}

TEST(Canary, HangsOnTheLastRank) {
    if (isLast())
        std::this_thread::sleep_for(std::chrono::hours(1));
}

TEST(Canary, ThrowsOnTheLastRankWhileTheOthersWait) {
    if (isLast())
        throw std::runtime_error("the last rank gives up");
    EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_SUCCESS);
}

TEST(Canary, AbortsOnTheLastRank) {
    if (isLast())
        OXM_MPI_Abort(OXM_MPI_COMM_SELF, 32); // doesn't come back
    EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_SUCCESS);
}

TEST(Canary, DiesOnTheLastRank) {
    if (isLast())
        std::_Exit(3);
    EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_SUCCESS);
}

/// A test whose name depends on the rank, as the launcher tells it before the message layer starts.
class OwnTest : public testing::Test {
    void TestBody() override {}
};
const bool ownTestIsRegistered = [] {
    const char* rankText = std::getenv("OMPI_COMM_WORLD_RANK");
    if (!rankText)
        rankText = std::getenv("PMI_RANK");
    const std::string name = std::string("OfRank") + (rankText ? rankText : "0");
    testing::RegisterTest("CanaryOfItsOwn", name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                          [] { return new OwnTest; });
    return true;
}();

} // namespace
