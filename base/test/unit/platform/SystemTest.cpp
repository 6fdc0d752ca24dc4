#include "platform/System.h"
#include "platform/Chip.h"
#include "platform/Io.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/RendererConfig.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include "TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <unistd.h>

TEST(System, TellsWhoAndWhere) {
    auto& system = Platform::system();
    ::setenv("USER", "somebody-else", 1);
    ::setenv("LOGNAME", "somebody-else", 1);
    const auto shown = Platform::process().runCaptured({L"id", L"-un"}, 20.0);
    const std::string expected =
        shown.exitStatus == 0 ? StringHelper::trim(shown.output) : std::to_string(::geteuid());
    EXPECT_EQ(system.getUserName(), expected);
    EXPECT_EQ(system.getUserId(), ::geteuid());
    EXPECT_TRUE(system.getExecutablePath().ends_with(L"/platformTests"));
    EXPECT_NE(system.getOs().find("Linux"), std::string::npos) << system.getOs();
    EXPECT_EQ(system.getGlibc().find("2."), 0u);
    EXPECT_EQ(system.getEnvironment("USER"), "somebody-else");
    EXPECT_FALSE(system.getEnvironment("ORVEX_TEST_NOT_SET").has_value());
    char name[256] = {};
    ASSERT_EQ(::gethostname(name, sizeof name - 1), 0);
    EXPECT_EQ(Platform::io().getHostName(), name);
}

TEST(Chip, Facts) {
    auto& chip = Platform::chip();
    EXPECT_GT(chip.getMemorySize(), 1LL << 26);
    for (const std::string& part : {chip.getModel(), chip.getArchitecture(),
                                    Platform::Chip::getVectorizationLevelText(chip.getVectorizationLevel())})
        EXPECT_NE(chip.getDescription().find(part), std::string::npos) << chip.getDescription();
    EXPECT_EQ(Platform::Chip::getVectorizationLevelText(4), "AVX2");
    EXPECT_EQ(Platform::Chip::getVectorizationLevelText(9), "vectorization level 9");
}

TEST(Memory, FollowsWhatTheProcessUses) {
    constexpr std::size_t BLOCK = std::size_t{64} << 20;
    const auto query = Platform::memory().createQuery(::getpid());
    Platform::MemoryUse before;
    Platform::MemoryUse during;
    Platform::MemoryUse sizes;
    ASSERT_TRUE(query->query(before));
    void* block = std::malloc(BLOCK);
    ASSERT_NE(block, nullptr);
    std::memset(block, 1, BLOCK);
    ASSERT_TRUE(query->query(during));
    ASSERT_TRUE(query->querySizes(sizes));
    EXPECT_EQ(sizes.virtualHighWater, 0); // left alone
    std::free(block);
    const auto most = static_cast<long long>(BLOCK) * 9 / 10;
    EXPECT_GT(during.virtualSize - before.virtualSize, most);
    EXPECT_GT(during.residentSize - before.residentSize, most);
    EXPECT_GT(sizes.residentSize - before.residentSize, most);
    EXPECT_GE(during.virtualHighWater, during.virtualSize);
    EXPECT_GE(during.residentHighWater, during.residentSize);
    EXPECT_GT(during.sharedLibraries, 0);
    EXPECT_GT(Platform::memory().getAvailableMemory(), 0);

    const auto child = Platform::process().start({L"sleep", L"30"}, {});
    const auto other = Platform::memory().createQuery(child->getPid());
    EXPECT_TRUE(other->query(before));
    child->terminate();
    EXPECT_FALSE(other->query(during));
    EXPECT_FALSE(other->querySizes(during));
}

TEST(Time, ClocksAndSleep) {
    auto& time = Platform::time();
    Platform::ProcessorStamp stamp;
    time.stampProcessorTime(stamp);
    const double start = time.getTime();
    time.sleepMilliseconds(30);
    time.sleep(-1.0);
    const double slept = time.getTime() - start;
    EXPECT_GE(slept, 0.03);
    EXPECT_LT(slept, 5.0);
    EXPECT_LT(time.getElapsedProcessorTime(stamp), slept);
    volatile double sum = 0.0;
    while (time.getElapsedProcessorTime(stamp) < 0.02)
        sum = sum + 1.0;
    EXPECT_GT(time.getTime() - start, 0.04);
    EXPECT_NEAR(time.getSecondsSinceEpoch(), static_cast<double>(std::time(nullptr)), 2.0);
    EXPECT_EQ(time.getAscTime().size(), 25u); // "Sun Nov 16 09:12:11 2025\n"
    EXPECT_EQ(time.formatUtc("%Y%m%d%H%M%S").size(), 14u);
}

TEST(WallTimer, StartsStopsAndClones) {
    const auto timer = Platform::time().createWallTimer();
    double elapsed = -1.0;
    EXPECT_EQ(timer->getElapsedTime(elapsed), 1);
    EXPECT_EQ(elapsed, -1.0);
    EXPECT_EQ(timer->stop(), 1);
    EXPECT_EQ(timer->start(), 0);
    Platform::time().sleep(0.02);
    const auto copy = timer->clone();
    EXPECT_EQ(timer->start(), 1); // a new stamp
    double later = 0.0;
    EXPECT_EQ(copy->getElapsedTime(elapsed), 0);
    EXPECT_EQ(timer->getElapsedTime(later), 0);
    EXPECT_GE(elapsed, 0.02);
    EXPECT_LT(later, elapsed);
    EXPECT_EQ(timer->stop(), 0);
    EXPECT_FALSE(timer->isRunning());
    EXPECT_TRUE(copy->isRunning());
}

TEST(RendererConfig, RefusesWhatItDoesNotKnow) {
    auto& config = RendererConfig::getSingleton();
    EXPECT_EQ(config.setGraphics(L"Software"), "");
    EXPECT_EQ(config.setGraphics(L"ray\x20AC"),
              "Unknown graphics \"ray\xE2\x82\xAC\". Expected is native, software or none.");
    EXPECT_EQ(config.getGraphics(), RendererConfig::SOFTWARE);
    config.setNumRenderThreads(-2);
    EXPECT_EQ(config.getNumRenderThreads(), 0);
}
