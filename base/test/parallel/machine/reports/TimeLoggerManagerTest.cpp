// The profile of a job: each rank has an event of 2 s, and the last one has another that no other rank knows.

#include "machine/TimeLoggerManager.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "parallel/harness/ParallelTest.h"
#include "unit/machine/reports/EventClock.h"
#include "unit/machine/reports/EventReports.h"

#include <gtest/gtest.h>

#include <cstdio>
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
    const std::string rankCell = std::to_string(rank) + "     ";
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
        {7, "          0.7143 |          1.7496 |          7.1429 |"}};
    const std::string common = row(
        "Common::step ", "       2.000 / 0 |       2.000 / 0 |          2.0000 |          0.0000 |         "
                         "20.0000 |");
    const std::string only = row("Last::only   ", "       5.000 / " + std::to_string(ranks - 1) +
                                                      " |       0.000 / 0 |" + averages.at(ranks));
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

} // namespace
