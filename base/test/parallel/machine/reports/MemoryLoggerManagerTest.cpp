// The memory profile of a job: each rank adds 10 MB and one more for each lower rank, in an event of its own
// name.

#include "machine/MemoryLoggerManager.h"
#include "machine/Machine.h"

#include "parallel/harness/ParallelTest.h"
#include "unit/machine/reports/EventReports.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

TEST(MemoryProfileOfJob, AddsUpTheRanks) {
    ORVEX_NEEDS_RANKS(2);
    const unsigned ranks = Machine::nProcesses();
    long long resident = 0;
    MemoryLoggerManager manager(
        1.0, [&](Platform::MemoryUse& use) { use.residentSize = use.residentHighWater = resident; });
    manager.switchOn();
    manager.startEventLog("Field", "grow");
    resident = (10LL + Machine::getPartitionId()) << 20;
    manager.stopEventLog("Field", "grow");

    testing::internal::CaptureStdout();
    manager.report();
    const std::string line = testing::internal::GetCapturedStdout();
    if (!Machine::isMaster())
        return;
    const std::string path = line.substr(13, line.size() - 14);
    const std::string text = readReport(path);
    std::remove(path.c_str());
    for (unsigned rank = 0; rank < ranks; ++rank) {
        const std::string added = std::to_string(10 + rank);
        const std::string blanks(rank < 10 ? 4 : 3, ' ');
        EXPECT_NE(text.find("| Proc # " + std::to_string(rank) + blanks + " |Event Counter |"),
                  std::string::npos);
        EXPECT_NE(text.find("| Field / grow |            1 |                      " + added +
                            " |                        " + added + " |                            " + added +
                            " |\n"),
                  std::string::npos);
    }
    const std::string total = std::to_string(10 * ranks + ranks * (ranks - 1) / 2);
    const std::string row = (ranks < 11 ? "| Field::grow  |          " : "| Field::grow  |         ") +
                            std::to_string(9 + ranks) + " / " + std::to_string(ranks - 1) +
                            (ranks < 11 ? " |          10 / 0 |" : " |         10 /  0 |");
    const std::size_t place = text.find(row);
    ASSERT_NE(place, std::string::npos) << text << row;
    EXPECT_EQ(text.substr(text.find('\n', place) - total.size() - 2, total.size() + 2), total + " |");
}

} // namespace
