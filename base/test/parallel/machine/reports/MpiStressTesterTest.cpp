// The results of all patterns, in jobs of any size.

#include "machine/reports/MpiStressTester.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "kernel/Properties.h"

#include "parallel/harness/ParallelTest.h"

#include <gtest/gtest.h>

namespace {

/// 0 and 3 have no word, 10 not a whole number of them.
const std::vector<unsigned> LENGTHS{0, 3, 10, 4000};

Properties run(const std::vector<std::string>& names, std::string& printed) {
    Properties results;
    MpiStressTester tester(Machine::globalCommunicator(), 2, LENGTHS);
    testing::internal::CaptureStdout();
    tester.runStressTests(names, results);
    printed = testing::internal::GetCapturedStdout();
    return results;
}

std::vector<Properties> entriesOf(const Properties& results, const char* key) {
    std::vector<Properties> entries;
    results.get(key, entries);
    return entries;
}

void expectFigures(const Properties& entry) {
    std::vector<double> times;
    std::vector<double> bandwidths;
    entry.get("Average Elapsed Times", times);
    entry.get("Average Bandwidths", bandwidths);
    ASSERT_EQ(times.size(), LENGTHS.size());
    ASSERT_EQ(bandwidths.size(), LENGTHS.size());
    if (!Machine::isMaster() || Machine::nProcesses() == 1)
        return;
    for (const double time : times)
        EXPECT_GT(time, 0.0);
    EXPECT_GT(bandwidths.back(), 0.0);
}

TEST(MpiStressTesterOfJob, MeasuresEachPattern) {
    if (Machine::nProcesses() > 3)
        GTEST_SKIP() << "takes long where ranks wait for processors";
    std::string printed;
    const Properties results = run({}, printed);
    std::vector<unsigned> lengths;
    results.get("Message Lengths", lengths);
    EXPECT_EQ(lengths, LENGTHS);
    EXPECT_EQ(results.getUnsignedInt("Number Samples"), 2u);
    std::vector<std::string> names;
    std::string expected;
    const unsigned ranks = Machine::nProcesses();
    for (const Properties& entry : entriesOf(results, "Results")) {
        const std::string& name = names.emplace_back(entry.getString("Name"));
        if (name != "ISendRecv") {
            expectFigures(entry);
            expected += "\n" + name + " : ....\n";
            continue;
        }
        expected += "\nISendRecv : \n";
        const std::vector<Properties> pairs = entriesOf(entry, "Pt2Pt Results");
        ASSERT_EQ(pairs.size(), ranks * (ranks - 1));
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            const auto from = unsigned(i) / (ranks - 1);
            const auto to = unsigned(i) % (ranks - 1);
            EXPECT_EQ(pairs[i].getUnsignedInt("From Rank"), from);
            EXPECT_EQ(pairs[i].getUnsignedInt("To Rank"), to < from ? to : to + 1);
            expectFigures(pairs[i]);
            expected += "....\n";
        }
    }
    EXPECT_EQ(names, (std::vector<std::string>{"AllGather", "AllReduce", "AsynchExchange", "Broadcast",
                                               "Gather", "ISendRecv", "Reduce", "Scatter"}));
    EXPECT_EQ(printed, expected);
}

TEST(MpiStressTesterOfJob, RunsTheTestsOfTheNames) {
    std::string printed;
    const Properties results = run({"Reduce", "AsyncExchange", "AsynchExchange", "Reduce"}, printed);
    std::string names;
    for (const Properties& entry : entriesOf(results, "Results"))
        names += entry.getString("Name") + " ";
    EXPECT_EQ(names, "Reduce AsynchExchange Reduce ");
    EXPECT_EQ(printed, "\nReduce : ....\n"
                       "Cannot find MPI Stress Test named : AsyncExchange\nAvailable tests are : \n"
                       "AllGather\nAllReduce\nAsynchExchange\nBroadcast\nGather\nISendRecv\nReduce\nScatter\n"
                       "\nAsynchExchange : ....\n\nReduce : ....\n");
}

} // namespace
