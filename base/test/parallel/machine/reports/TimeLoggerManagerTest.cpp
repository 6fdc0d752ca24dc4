// The profile of a job: each rank has an event of 2 s, and the last one has another that no other rank knows.

#include "machine/TimeLoggerManager.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "parallel/harness/ParallelTest.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "unit/machine/reports/EventClock.h"
#include "unit/machine/reports/EventReports.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <malloc.h>
#include <map>
#include <string>

namespace {

std::string rule(char character, std::size_t length) {
    return '|' + std::string(length, character) + "|\n";
}

/// Cells of 16 characters; the first is that of the name.
std::string row(const char* name, const std::string& cells) {
    return std::string("| ") + name + " |" + cells + '\n';
}

std::string processTable(unsigned rank, bool isLast) {
    std::string rankCell = std::to_string(rank);
    rankCell.resize(6, ' ');
    const std::string common = "               1 |          2.0000 |          1.0000 |         20.0000 |";
    const std::string only = "               1 |          5.0000 |          2.5000 |         50.0000 |";
    return rule('=', 87) + "| Proc # " + rankCell +
           " |Event Counter    |Elapsed Time (s) |CPU Time (s)     |% Elapsed Time   |\n" + rule('-', 87) +
           (isLast ? row("Last / only  ", only) : "") + row("Common / step", common) + rule('-', 87);
}

std::string eventTable(unsigned ranks) {
    const std::map<unsigned, std::string> averages = {
        {2, "          2.5000 |          2.5000 |         25.0000 |"},
        {3, "          1.6667 |          2.3570 |         16.6667 |"},
        {4, "          1.2500 |          2.1651 |         12.5000 |"},
        {7, "          0.7143 |          1.7496 |          7.1429 |"},
        {11, "          0.4545 |          1.4374 |          4.5455 |"},
        {16, "          0.3125 |          1.2103 |          3.1250 |"}};
    const std::string first = ranks > 10 ? "/  0 |" : "/ 0 |"; // as wide as the last rank
    const auto cell = [](const std::string& text) { return std::string(18 - text.size(), ' ') + text; };
    const std::string common =
        row("Common::step ", cell("2.000 " + first) + cell("2.000 " + first) +
                                 "          2.0000 |          0.0000 |         20.0000 |");
    const std::string only = row("Last::only   ", cell("5.000 / " + std::to_string(ranks - 1) + " |") +
                                                      cell("0.000 " + first) + averages.at(ranks));
    return rule('=', 105) +
           "| Event Logged  |Max (value/rank) |Min (value/rank) |         Average |          stddev |        "
           " % "
           "total |\n" +
           rule('-', 105) + (ranks == 2 ? only + common : common + only) + rule('-', 105);
}

TEST(TimeProfileOfJob, ShowsEachRankAndAllRanks) {
    ORVEX_NEEDS_RANKS(2);
    const unsigned ranks = Machine::nProcesses();
    const bool isLast = Machine::getPartitionId() + 1 == ranks;
    EventClock::wall = EventClock::processor = 0.0;
    TimeLoggerManager manager(0.01, EventClock::makeTimer);
    manager.switchOn();
    manager.startEventLog("Common", "step");
    EventClock::pass(2.0);
    manager.stopEventLog("Common", "step");
    if (isLast)
        manager.startEventLog("Last", "only");
    EventClock::pass(5.0);
    manager.stopEventLog("Last", "only");
    EventClock::pass(3.0);

    testing::internal::CaptureStdout();
    manager.report();
    const std::string line = testing::internal::GetCapturedStdout();
    ASSERT_EQ(line.rfind("Event Log : /", 0), 0u) << line;
    EXPECT_EQ(manager.getEventLoggers().size(), 2u);
    if (!Machine::isMaster())
        return;
    const std::string path = line.substr(12, line.size() - 13);
    std::string expected =
        headOfReport("Time Profile Output for : ", ranks,
                     "Events that use less than 1% of total sampled time will not be reported.");
    for (unsigned rank = 0; rank < ranks; ++rank)
        expected += processTable(rank, rank + 1 == ranks);
    EXPECT_EQ(readReport(path), expected + eventTable(ranks));
    std::remove(path.c_str());
}

/// [bytes] by which the resident memory of this process has grown at most since the last call.
long long takePeakGrowth(long long& before) {
    ::malloc_trim(0);
    Platform::MemoryUse use;
    EXPECT_TRUE(Platform::memory().createQuery(Platform::process().getPid())->query(use));
    const long long growth = use.residentHighWater - before;
    before = use.residentSize;
    std::ofstream("/proc/self/clear_refs") << 5; // the peak begins anew
    return growth;
}

TEST(TimeProfileOfJob, HoldsTheListOfOneRankAtATime) {
    if (Machine::nProcesses() < 16)
        GTEST_SKIP() << "for many lists";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps memory that was freed";
#endif
    constexpr std::size_t EVENTS = 4000;
    const std::string method(200, 'x');
    const auto list = static_cast<double>(EVENTS * (method.size() + 30)); // names and numbers of a rank
    TimeLoggerManager manager(-1.0, EventClock::makeTimer);
    manager.switchOn();
    for (std::size_t i = 0; i < EVENTS; ++i) {
        manager.startEventLog(std::to_string(i), method);
        EventClock::pass(1.0);
        manager.stopEventLog(std::to_string(i), method);
    }
    testing::internal::CaptureStdout();
    manager.report(); // buffers of the message layer are there from now on
    long long before = 0;
    takePeakGrowth(before);
    manager.report();
    const long long growth = takePeakGrowth(before);
    const std::string line = testing::internal::GetCapturedStdout();
    EXPECT_LT(static_cast<double>(growth), 8.0 * list);
    if (Machine::isMaster())
        std::remove(line.substr(12, line.find('\n') - 12).c_str());
}

} // namespace
