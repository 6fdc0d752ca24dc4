#include "client/TopScreen.h"

#include "kernel/profile/LiveJob.h"
#include "support/LiveRanks.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

TopFrame frameOf(unsigned ranks, unsigned perHost, bool withLists = false) {
    TopFrame frame;
    frame.session = "wing.sim";
    frame.clock = "12:03:44";
    frame.job = LiveRanks::jobOf(LiveRanks::make(ranks), perHost, withLists);
    frame.running.set("command", "SolveHeatConduction");
    frame.running.set("client", "ana@desk (orvexctl, process 4711)");
    frame.running.set("seconds", 83.0);
    frame.running.set("progress", 0.45);
    frame.running.set("message", "computing");
    return frame;
}

std::string textOf(const std::vector<TopScreen::Line>& lines) {
    std::string text;
    for (const TopScreen::Line& line : lines)
        text += line.text + "\n";
    return text;
}

std::string draw(const TopFrame& frame, TopView view, unsigned columns, unsigned rows) {
    return textOf(TopScreen::draw(frame, view, columns, rows));
}

TEST(TopScreen, ShowsHosts) {
    EXPECT_EQ(draw(frameOf(48, 12), {}, 80, 24),
              R"(orvexctl top  wing.sim  48 ranks on 4 hosts                             12:03:44
SolveHeatConduction  00:01:23  [#########-----------] 45 %  computing
so far: processor 3840 s, waiting 30 %, 576 k messages, 240 MiB, memory +4.7 GiB
now: 6 compute, 42 wait; processor 97 %, waiting 31 %, memory 50.0 GiB
* rank 24 on node002 waits 2 %, the others 31 %; + rank 36 on node003 has 3.0G
  HOST         RANKS  CPU%    MEM WAIT% LEAST%   RANK   FREE STANDS IN
* node002         12    97  12.0G    29      2     24   120G allReduce 10 of 12
  node000         12    97  12.0G    31     31      0   120G allReduce 10 of 12
  node001         12    97  12.0G    31     31     15   120G allReduce 11 of 12
 +node003         12    97  14.0G    31     31     40   120G allReduce 11 of 12













q quit  h help  r ranks  PMWN sort (W)  R reverse  p pause  d 1 s
)");
}

TEST(TopScreen, ShowsRanks) {
    TopView view;
    view.showsRanks = true;
    EXPECT_EQ(draw(frameOf(4, 2, true), view, 80, 16),
              R"(orvexctl top  wing.sim  4 ranks on 2 hosts                              12:03:44
SolveHeatConduction  00:01:23  [#########-----------] 45 %  computing
so far: processor 320 s, waiting 30 %, 48 k messages, 20.0 MiB, memory +400 MiB
now: 1 compute, 3 wait; processor 97 %, waiting 24 %, memory 6.0 GiB
* rank 2 on node001 waits 2 %, the others 31 %; + rank 3 on node001 has 3.0G
     RANK HOST          CPU%    MEM WAIT% STATE    STANDS IN
*       2 node001         97   1.0G     2 waits    allReduce
        0 node000         97   1.0G    31 computes
        1 node000         97   1.0G    31 waits    allReduce
 +      3 node001         97   3.0G    31 waits    allReduce





q quit  h help  r hosts  PMWN sort (W)  R reverse  p pause  d 1 s
)");
}

TEST(TopScreen, IsShortOnASmallScreen) {
    EXPECT_EQ(draw(frameOf(4, 2), {}, 40, 10), R"(orvexctl top  wing.sim  4 ran~  12:03:44
SolveHeatConduction  00:01:23  [#######~
* rank 2 on node001 waits 2 %, the othe~
  HOST          CPU%    MEM WAIT% LEAST%
*+node001         97   4.0G    17      2
  node000         97   2.0G    31     31



q quit  h help  r ranks  PMWN sort (W) ~
)");
    EXPECT_EQ(draw(frameOf(4, 2), {}, 39, 2), "at least 40 by 10\n\n");
}

TEST(TopScreen, FoldsHostsThatAreAlike) {
    TopFrame frame = frameOf(10000, 50);
    const std::string text = draw(frame, {}, 80, 24);
    EXPECT_NE(text.find("wing.sim  10000 ranks on 200 hosts"), text.npos) << text;
    EXPECT_NE(text.find("\n* node102"), text.npos) << text;
    EXPECT_NE(text.find("\n\xE2\x80\xA6 197 hosts within 3 % of the median (a: all)\n"), text.npos) << text;
    TopView view;
    view.showsAll = true;
    EXPECT_EQ(draw(frame, view, 80, 24).find("within"), text.npos);
    view.showsRanks = true;
    EXPECT_NE(draw(frame, view, 80, 24).find("only ranks that differ"), text.npos);
}

/// No line is too long and none is missing, whatever is shown.
TEST(TopScreen, FillsTheScreen) {
    const std::pair<unsigned, unsigned> sizes[] = {{80, 24},   {200, 60}, {40, 10},
                                                   {400, 100}, {1, 1},    {80, 11}};
    for (const unsigned ranks : {0U, 1U, 48U, 10000U})
        for (const auto& [columns, rows] : sizes)
            for (const bool showsRanks : {false, true})
                for (const bool hasHelp : {false, true}) {
                    TopView view;
                    view.showsRanks = showsRanks;
                    view.showsHelp = hasHelp;
                    const auto lines = TopScreen::draw(frameOf(ranks, 50, true), view, columns, rows);
                    EXPECT_EQ(lines.size(), rows);
                    for (const TopScreen::Line& line : lines)
                        EXPECT_LE(TopTable::widthOf(line.text), columns) << line.text;
                }
}

TEST(TopScreen, SortsAndScrolls) {
    const TopFrame frame = frameOf(10000, 50);
    const auto firstOf = [&](int sort, bool isReversed) {
        TopView view;
        view.setSort(sort);
        view.isReversed = isReversed;
        view.showsAll = true;
        return TopScreen::draw(frame, view, 80, 24).at(6).text.substr(2, 7);
    };
    EXPECT_EQ(firstOf('W', false), "node050") << "with a dead rank";
    EXPECT_EQ(firstOf('M', false), "node150");
    EXPECT_EQ(firstOf('N', false), "node000");
    EXPECT_EQ(firstOf('N', true), "node199");
    TopView view;
    view.setSort('N');
    view.showsAll = true;
    const auto selectedAfter = [&](long lines) {
        TopScreen::move(frame, view, 24, lines);
        const auto screen = TopScreen::draw(frame, view, 80, 24);
        const auto found = std::find_if(screen.begin(), screen.end(),
                                        [](const auto& line) { return line.style == TopStyle::SELECTED; });
        return found == screen.end() ? std::string() : found->text.substr(2, 7);
    };
    EXPECT_EQ(selectedAfter(1), "node000");
    EXPECT_EQ(selectedAfter(40), "node040");
    EXPECT_EQ(selectedAfter(-2), "node038");
    EXPECT_EQ(selectedAfter(100000000), "node199");
    view.setSort('W');
    EXPECT_EQ(selectedAfter(0), "node199") << "the host stays chosen";
    view.enter();
    EXPECT_EQ(view.getRequest(), R"({"ranks":true,"host":"node199"})");
    view.enter();
    EXPECT_EQ(view.getRequest(), R"({"ranks":false})");
}

TEST(TopScreen, TellsTroubles) {
    TopFrame frame = frameOf(4, 2);
    frame.age = 4.2;
    EXPECT_NE(draw(frame, {}, 80, 24).find("last answer 4 s ago\n"), std::string::npos);
    frame.running.clear();
    frame.job.total.command.clear();
    EXPECT_NE(draw(frame, {}, 80, 24).find("\nno command\n"), std::string::npos);
    frame.notice = "The job aborts: \x1b[2J";
    EXPECT_NE(draw(frame, {}, 80, 24).find("\nThe job aborts: ^[[2J\n"), std::string::npos);
    frame.failure = "Nobody answers";
    EXPECT_NE(draw(frame, {}, 80, 24).find("\nNobody answers\n"), std::string::npos);
}

TEST(TopScreen, IsPlainTextForAFile) {
    TopFrame frame = frameOf(3, 3);
    frame.job.hosts[0].name = std::string(70, 'n');
    EXPECT_EQ(textOf(TopScreen::drawPlain(frame, {})), R"(orvexctl top  wing.sim  3 ranks on 1 host  12:03:44
SolveHeatConduction of ana@desk (orvexctl, process 4711)  00:01:23  [#########-----------] 45 %  computing
so far: processor 240 s, waiting 30 %, 36 k messages, 15.0 MiB, memory +300 MiB
now: 1 compute, 2 wait; processor 97 %, waiting 21 %, memory 5.0 GiB
* rank 1 on nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn waits 2 %, the others 31 %; + rank 2 on nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn has 3.0G
  HOST                                                                   RANKS  CPU% MAXCPU    MEM MAXMEM OFRANK WAIT% MAXWAIT LEAST%   RANK   LOAD  CPUS   FREE STANDS IN
*+nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn     3    97     97   5.0G   3.0G      2    21      31      2      1   47.9    48   120G allReduce 2 of 3
)");
}

} // namespace
