#include "client/report/ReportFigures.h"
#include "client/report/ReportText.h"
#include "client/report/ReportVerdict.h"
#include "client/report/SvgPlot.h"

#include <gtest/gtest.h>

#include <numeric>

namespace {

using Values = std::vector<double>;

ReportData job(double seconds, Values waiting, std::size_t hosts = 1) {
    ReportData data;
    data.ranks = waiting.size();
    data.seconds = seconds;
    data.waiting = std::move(waiting);
    for (std::size_t host = 0; host < hosts; ++host)
        data.hosts.push_back({"node" + std::to_string(host), 64.0, 0.0, {}, {}});
    for (std::size_t rank = 0; rank < data.ranks; ++rank)
        data.rankHost.push_back(rank * hosts / data.ranks);
    return data;
}

TEST(ReportFigures, EfficienciesAreThoseOfPop) {
    struct Row {
        double seconds;
        Values waiting;
        double parallel, balance, communication;
        std::array<int, 3> parts;
    };
    for (const Row& row : std::initializer_list<Row>{
             {10.0, {0, 0, 0, 0}, 1.0, 1.0, 1.0, {100, 0, 0}},
             {10.0, {2, 6, 6, 6}, 0.5, 0.625, 0.8, {50, 30, 20}},
             {8.0, {4, 4}, 0.5, 1.0, 0.5, {50, 0, 50}},
             {3.0, {1, 2, 2}, 4.0 / 9, 2.0 / 3, 2.0 / 3, {45, 22, 33}}, // 44.4, 22.2, 33.3
             {10.0, {12, 10}, 0.0, 1.0, 0.0, {0, 0, 100}}, // longer than the span: clocks of ranks
             {0.0, {0, 0}, 1.0, 1.0, 1.0, {100, 0, 0}},
         }) {
        const ReportData data = job(row.seconds, row.waiting);
        const auto all = ReportFigures::efficiencyOf(data.seconds, ReportFigures::usefulTimes(data));
        EXPECT_DOUBLE_EQ(all.getParallel(), row.parallel);
        EXPECT_DOUBLE_EQ(all.getLoadBalance(), row.balance);
        EXPECT_DOUBLE_EQ(all.getCommunication(), row.communication);
        EXPECT_EQ(all.getParts(), row.parts);
    }
}

TEST(ReportFigures, SplitsTheBalanceBetweenHosts) {
    // Useful 8, 4 on the first host and 4, 4 on the second: S = 12.
    const ReportData data = job(10.0, {2, 6, 6, 6}, 2);
    const auto balance = ReportFigures::hostBalanceOf(data, ReportFigures::usefulTimes(data));
    EXPECT_TRUE(balance.valid);
    EXPECT_DOUBLE_EQ(balance.inside, 12.0 * 2 / (8.0 * 4));
    EXPECT_DOUBLE_EQ(balance.between, 20.0 / (12.0 * 2));
    EXPECT_FALSE(
        ReportFigures::hostBalanceOf(job(10.0, {1, 2, 3}, 2), Values{9, 8, 7}).valid); // 2 and 1 ranks
}

TEST(ReportFigures, CellsKeepTheGreatestValue) {
    std::vector<Values> values(450, Values(401, 1.0));
    values[449][400] = 77.0;
    values[7][5] = 50.0;
    const auto cells = ReportFigures::cellsOf(values);
    EXPECT_EQ(std::pair(cells.rows, cells.columns), std::pair(std::size_t(150), std::size_t(134)));
    EXPECT_EQ(cells.max.back(), 77.0);
    EXPECT_DOUBLE_EQ(cells.mean.back(), (77.0 + 5.0) / 6.0); // 3 rows and the last 2 columns
    EXPECT_EQ(cells.max[2 * cells.columns + 1], 50.0);
}

TEST(ReportFigures, SpreadsOverTheRanks) {
    const Values values{4, 1, 7, 1, 7};
    const auto spread = ReportFigures::spreadOf(values);
    EXPECT_EQ(std::tuple(spread.min, spread.minRank, spread.max, spread.maxRank, spread.mean),
              std::tuple(1.0, std::size_t(1), 7.0, std::size_t(2), 4.0));
    EXPECT_DOUBLE_EQ(spread.getImbalance(), 1.75);
    EXPECT_DOUBLE_EQ(spread.quantiles[2], 4.0);
    EXPECT_EQ(ReportFigures::greatest(values, 3), (std::vector<std::size_t>{2, 4, 0}));
    const auto histogram = ReportFigures::histogramOf(values, 3);
    EXPECT_EQ(histogram.counts, (std::vector<std::size_t>{2, 1, 2}));
    Values many(10000);
    std::iota(many.begin(), many.end(), 0.0);
    const Values curve = ReportFigures::quantileCurve(many, 400);
    EXPECT_EQ(std::tuple(curve.size(), curve.front(), curve.back()),
              std::tuple(std::size_t(400), 0.0, 9999.0));
}

TEST(ReportFigures, AddsUpTheCallsOfAnEvent) {
    ReportData data = job(10.0, {0, 0});
    data.events = {{"A::a", -1, {1, 1}, {6, 8}, false},
                   {"B::b", 0, {2, 2}, {1, 2}, false},
                   {"B::b", -1, {1, 0}, {3, 0}, true}};
    const auto events = ReportFigures::eventTotals(data);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].own, (Values{5, 6}));
    EXPECT_EQ(events[1].seconds, (Values{4, 2}));
    EXPECT_EQ(events[1].count, (Values{3, 2}));
    EXPECT_TRUE(events[1].open);
}

TEST(ReportVerdict, NamesTheRankThatHoldsTheOthersUp) {
    ReportData late = job(100.0, {35, 35, 1, 35}, 2);
    EXPECT_EQ(ReportVerdict::sentence(late),
              "Rank 2 on node1 computes 1.3 times the mean; the others wait 35 % of the time. To see in "
              "which event, "
              "turn the time profile on: orvexctl ChangeEventLoggerManager type=timer, then orvexctl "
              "EnableEventLogging enableFlag=true");
    late.hasEvents = true;
    late.events = {{"Solver::assemble", -1, {}, {20, 20, 56, 20}, false},
                   {"Solver::exchange", -1, {}, {35, 35, 1, 35}, false}};
    EXPECT_EQ(
        ReportVerdict::sentence(late),
        "Rank 2 on node1 computes 1.9 times the mean in Solver::assemble; the others wait 35 % of the time.");
    EXPECT_EQ(ReportVerdict::sentence(job(10.0, {1, 1, 6, 6}, 2)).substr(0, 66),
              "The 2 ranks of node0 compute up to 1.4 times the mean; the others ");
    EXPECT_EQ(ReportVerdict::sentence(job(10.0, {1, 1, 1, 0})),
              "Nothing stands out: the 4 ranks compute 92 % of the time, and the load balance is 0.93.");
    EXPECT_EQ(ReportVerdict::sentence(job(10.0, {5, 5})).substr(0, 61),
              "All ranks wait: on average 50 % of the time, and the rank tha");
    EXPECT_EQ(ReportVerdict::sentence(job(0.0, {0, 0})),
              "The profile covers no time: no command has run yet.");
    EXPECT_EQ(ReportVerdict::sentence(job(1.0, {0})),
              "One process runs alone: there is no balance between ranks to look at.");
}

TEST(ReportVerdict, WarnsOfWhatSpoilsTheTimes) {
    ReportData data = job(10.0, {0, 0, 0});
    data.build = "Debug";
    data.hosts[0] = {"node0", 2.0, 0.0, {0, 1, 2}, {{0, 1}, {0, 1}, {0, 0}, {0, 0}, {{1}, {}, {1}}}};
    data.bills.resize(3);
    data.bills[1].failed = true;
    EXPECT_EQ(ReportVerdict::warnings(data),
              (std::vector<std::string>{"The build makes these times longer, and not evenly: Debug",
                                        "Too many ranks: node0 has 3 ranks on 2 cores. The ranks take the "
                                        "cores from each other, so times "
                                        "tell little.",
                                        "Ranks 0 and 2 on node0 are bound to the same processor, 1.",
                                        "1 command failed: the table of commands marks them."}));
    EXPECT_EQ(ReportVerdict::missing(data).size(), 3u);
}

TEST(ReportText, WritesNumbersForPeople) {
    for (const auto& [value, text] :
         std::initializer_list<std::pair<double, const char*>>{{0.0, "0"},
                                                               {0.01234, "0.0123"},
                                                               {1.0, "1.00"},
                                                               {12.345, "12.3"},
                                                               {123456.7, "123457"},
                                                               {1e-9, "0.000000001"}})
        EXPECT_EQ(ReportText::number(value), text);
    EXPECT_EQ(ReportText::seconds(0.0123), "12.3 ms");
    EXPECT_EQ(ReportText::bytes(1.5 * 1048576), "1.50 MiB");
    EXPECT_EQ(ReportText::shorten("äbcdefghij", 7), "äbc…hij");
    EXPECT_EQ(SvgPlot::ticks(0.0, 10.0), (Values{0, 5, 10}));
    EXPECT_EQ(SvgPlot::wholeTicks(2), (std::vector<std::size_t>{0, 1, 2}));
}

} // namespace
