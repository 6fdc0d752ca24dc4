#include "platform/System.h"
#include "platform/Chip.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/RendererConfig.h"
#include "platform/TickClock.h"
#include "platform/Time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>
#include <vector>

TEST(System, TellsWhoAndWhere) {
    auto& system = Platform::system();
    ::setenv("USER", "somebody-else", 1);
    EXPECT_EQ(system.getUserName() == "root", ::geteuid() == 0);
    if (::seteuid(54321) == 0) { // a number that is no user's; only root may take it
        EXPECT_EQ(system.getUserName(), "54321");
        ASSERT_EQ(::seteuid(0), 0);
    }
    EXPECT_NE(system.getOs().find("Linux"), std::string::npos) << system.getOs();
    EXPECT_EQ(system.getGlibc().find("2."), 0u);
    EXPECT_FALSE(system.getEnvironment("ORVEX_TEST_NOT_SET").has_value());
}

TEST(Chip, TakesTheHighestLevelOfAll) {
    using Platform::Chip;
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(Chip::toVectorizationLevel(i > 0, i > 1, i > 2, i > 3), Chip::SSE2 + i);
    const std::string level = Chip::getVectorizationLevelText(Platform::chip().getVectorizationLevel());
    EXPECT_NE(Platform::chip().getDescription().find(level), std::string::npos);
    EXPECT_EQ(Chip::getVectorizationLevelText(9), "vectorization level 9");
}

TEST(Memory, FollowsWhatTheProcessUses) {
    constexpr std::size_t BLOCK = std::size_t{64} << 20;
    const auto query = Platform::memory().createQuery(::getpid());
    Platform::MemoryUse before, during, sizes;
    ASSERT_TRUE(query->query(before));
    const std::vector<char> block(BLOCK, 1);
    ASSERT_TRUE(query->query(during));
    ASSERT_TRUE(query->querySizes(sizes));
    EXPECT_EQ(sizes.virtualHighWater, 0); // left alone
    const auto most = static_cast<long long>(BLOCK) * 9 / 10;
    EXPECT_GT(during.virtualSize - before.virtualSize, most);
    EXPECT_GT(during.residentSize - before.residentSize, most);
    EXPECT_GT(sizes.residentSize - before.residentSize, most);
    EXPECT_GE(during.virtualHighWater, during.virtualSize);
    EXPECT_GE(during.residentHighWater, during.residentSize);
    EXPECT_GT(during.sharedLibraries, 0);

    const auto child = Platform::process().start({L"sleep", L"30"}, {});
    const auto other = Platform::memory().createQuery(child->getPid());
    EXPECT_TRUE(other->query(before));
    child->terminate();
    EXPECT_FALSE(other->query(during));
    EXPECT_FALSE(other->querySizes(during));
}

TEST(RendererConfig, RefusesUnknownGraphics) {
    auto& config = RendererConfig::getSingleton();
    EXPECT_EQ(config.setGraphics(L"Software"), "");
    EXPECT_EQ(config.setGraphics(L"ray\x20AC"),
              "Unknown graphics \"ray\xE2\x82\xAC\". Expected is native, software or none.");
    EXPECT_EQ(config.getGraphics(), RendererConfig::SOFTWARE);
}

TEST(TickClock, RunsAsTheSystemsClock) {
    const double rate = Platform::TickClock::getTicksPerSecond();
    const double begin = Platform::time().getTime();
    const std::uint64_t ticks = Platform::TickClock::read();
    Platform::time().sleep(0.05);
    const double bySystem = Platform::time().getTime() - begin;
    const double byTicks = Platform::TickClock::toSeconds(Platform::TickClock::read() - ticks);
    EXPECT_GT(rate, 1e6);
    EXPECT_GT(byTicks, 0.05 * 0.999);
    EXPECT_LT(byTicks, bySystem * 1.01 + 0.05); // the thread may lose its processor between two readings
}
