// The places of the ranks of a real job. A thread of each rank tells it while the main thread waits for the
// last rank. one.

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/messages/OperationRecord.h"

#include "platform/StackSampler.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

/// Until `condition` holds, for a minute at most.
bool waitFor(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// The view of another thread on a rank that waits.
struct Seen {
    OperationRecord::Snapshot snapshot;
    bool stands = false;
    std::vector<std::string> stack;
    std::string whyNot;
};

Seen lookAtMainThread() {
    Seen seen;
    seen.stands = waitFor([&seen] {
        seen.snapshot = OperationRecord::read();
        return seen.snapshot.isInside && seen.snapshot.operation == "synchronise";
    });
    const std::uint64_t generation = OperationRecord::getGeneration();
    seen.stack = Platform::StackSampler::sample(100, &seen.whyNot);
    seen.stands = seen.stands && OperationRecord::getGeneration() == generation;
    return seen;
}

bool names(const std::vector<std::string>& stack, const std::string& function) {
    return std::ranges::any_of(
        stack, [&](const std::string& frame) { return frame.find(function) != std::string::npos; });
}

} // namespace

TEST(Standing, IsToldWithTheStackWhileRanksWaitInACollective) {
    Communicator& ranks = Machine::globalCommunicator();
    const unsigned last = ranks.size() - 1;
    TemporaryDirectory own;
    std::string folder = std::filesystem::path(own.getPath()).string();
    ranks.broadcast(folder, last);
    ASSERT_TRUE(Platform::StackSampler::install());
    Seen seen;
    std::thread thread;
    if (ranks.myRank() != last) {
        thread = std::thread([&] {
            seen = lookAtMainThread();
            std::ofstream(folder + "/" + std::to_string(ranks.myRank())); // the last rank may come now
        });
    } else {
        EXPECT_TRUE(waitFor([&] {
            const auto files = std::filesystem::directory_iterator(folder);
            return std::distance(std::filesystem::begin(files), std::filesystem::end(files)) ==
                   std::ptrdiff_t(last);
        }));
    }
    ranks.synchronise();
    if (thread.joinable()) {
        thread.join();
        EXPECT_TRUE(seen.stands);
        EXPECT_EQ(seen.snapshot.communicator, "global, " + std::to_string(ranks.size()) + " ranks");
        for (const char* function : {"MPI_Barrier", "Driver::Barrier", "main"})
            EXPECT_TRUE(names(seen.stack, function))
                << function << seen.whyNot << testing::PrintToString(seen.stack);
    }
    Platform::StackSampler::uninstall();
    ranks.synchronise(); // the folder goes now
}
