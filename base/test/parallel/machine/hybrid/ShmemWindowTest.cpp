// Memory that the ranks of a host share.

#include "machine/ShmemWindow.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Raise.h"

#include "parallel/harness/ParallelTest.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <numeric>
#include <thread>

namespace {

class ShmemWindows : public testing::Test {
protected:
    void SetUp() override {
        if (Machine::isSerial())
            GTEST_SKIP() << "for a job";
        MachineTestAccess::buildShmemCommunicators();
    }
    void TearDown() override {
        if (Machine::isParallel())
            MachineTestAccess::dropSharedMemCommunicators();
    }
    static Communicator& host() { return Machine::sharedMemCommunicator(Machine::HOST_SCOPE); }

    const unsigned _me = Machine::getPartitionId();
    const unsigned _ranks = Machine::nProcesses();
};

TEST_F(ShmemWindows, EveryRankSeesWhatTheOthersWrote) {
    for (const std::size_t count : {0u, 1u, 7u, 1024u, 100003u}) {
        SCOPED_TRACE(count);
        ShmemWindow<int> window(count, host());
        EXPECT_EQ(window.size(), count);
        EXPECT_EQ(window.getWindowSize(), count * sizeof(int));
        std::size_t total = 0;
        for (unsigned rank = 0; rank < _ranks; ++rank)
            total += window.share(rank).size();
        EXPECT_EQ(total, count);
        std::ranges::fill(window.ownShare(), static_cast<int>(_me) + 1);
        window.fence();
        std::vector<int> expected;
        for (unsigned rank = 0; rank < _ranks; ++rank)
            expected.insert(expected.end(), window.share(rank).size(), static_cast<int>(rank) + 1);
        EXPECT_TRUE(std::ranges::equal(window.span(), expected));
        window.fence();
    }
}

TEST_F(ShmemWindows, SharesHaveTheSizesThatTheRanksWant) {
    struct Cell {
        double volume;
        int zone;
    };
    ShmemWindow<Cell> window(ShmemWindow<Cell>::OwnCount{3 * std::size_t{_me}}, host());
    EXPECT_EQ(window.size(), 3 * _ranks * (_ranks - 1) / 2);
    ASSERT_EQ(window.ownShare().size(), 3 * _me);
    for (Cell& cell : window.ownShare())
        cell = {0.5 * _me, static_cast<int>(_me)};
    window.fence();
    for (unsigned rank = 0; rank < _ranks; ++rank)
        for (const Cell& cell : window.share(rank))
            EXPECT_EQ(std::pair(cell.volume, cell.zone), std::pair(0.5 * rank, static_cast<int>(rank)));
}

TEST_F(ShmemWindows, ARankThatWaitsForACounterIsSeenToWait) {
    ShmemWindow<std::uint64_t> counters(ShmemWindow<std::uint64_t>::OwnCount{2}, host());
    std::ranges::fill(counters.ownShare(), 0);
    counters.fence();
    OperationRecord::Snapshot seen;
    std::thread thread([&] {
        for (int looks = 0; looks < 60000 && seen.operation != "waitForCounter"; ++looks) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (const OperationRecord::Snapshot now = OperationRecord::read(); now.isInside)
                seen = now;
        }
        counters.raiseCounter(counters.share(_me)[0], 7);
    });
    counters.awaitCounter(counters.share(_me)[0], 7, _me);
    thread.join();
    const unsigned before = (_me + _ranks - 1) % _ranks;
    counters.raiseCounter(counters.ownShare()[1], _me + 1);
    counters.awaitCounter(counters.share(before)[1], before + 1, before);
    EXPECT_EQ(seen.operation, "waitForCounter");
    EXPECT_EQ(seen.partner, static_cast<int>(_me));
    EXPECT_TRUE(seen.communicator.find(std::to_string(_ranks) + " rank") != std::string::npos)
        << seen.communicator;
    counters.fence();
}

TEST_F(ShmemWindows, AWindowWithoutRoomIsAnErrorOnAllRanks) {
    const ShmemWindow<double> first(5, host());
    for (const std::size_t count : {std::size_t{1} << 45, std::size_t{1} << 62}) {
        const std::string told =
            messageOf<SystemError>([count] { const ShmemWindow<double> window(count, host()); });
        EXPECT_NE(
            told.find(count == std::size_t{1} << 62
                          ? "A shared-memory window of 4611686018427387904 elements of 8 bytes is larger"
                          : "A shared-memory window of 281474976710656 bytes doesn't fit: /dev/shm of its "
                            "host has "),
            std::string::npos)
            << told;
    }
    ShmemWindow<double> next(5);
    next.fence();
}

} // namespace
