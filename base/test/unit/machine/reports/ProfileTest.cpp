// The parts of a profile that one process makes: which event began in which, the calls and times that are
// kept, and the digits of numbers.

#include "machine/TimeLoggerManager.h"
#include "machine/reports/CallPaths.h"
#include "machine/reports/ProfileCalls.h"
#include "machine/reports/ProfileMemory.h"
#include "machine/reports/ProfileNumbers.h"

#include "kernel/EventTracker.h"
#include "kernel/MessagingGate.h"
#include "kernel/Properties.h"

#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/reports/EventClock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>

namespace {

/// "A>B 2 1.5": the path, its count and its seconds; " open" behind it. In the order of the keys.
std::string describe(const CallPaths& paths) {
    std::map<std::string, std::string> lines;
    for (unsigned i = 0; i < paths.getPaths().size(); ++i) {
        const CallPaths::Path& path = paths.getPaths()[i];
        std::string name = paths.getKey(i);
        std::ranges::replace(name, CallPaths::SEPARATOR, '>');
        std::ostringstream line;
        line << name << ' ' << path.count << ' ' << paths.getSeconds(path) << (path.isOpen ? " open" : "");
        lines[paths.getKey(i)] = line.str();
    }
    std::string all;
    for (const auto& [key, line] : lines)
        all += (all.empty() ? "" : ", ") + line;
    return all;
}

/// "+A" begins A, "*A" begins it inside itself, "-A" ends it; a number lets seconds pass.
void play(CallPaths& paths, const std::string& script) {
    std::istringstream words(script);
    for (std::string word; words >> word;) {
        if (word[0] == '+')
            paths.start(paths.addEvent(word.substr(1)));
        else if (word[0] == '*')
            paths.startAgain(paths.addEvent(word.substr(1)));
        else if (word[0] == '-')
            paths.stop(paths.addEvent(word.substr(1)));
        else
            EventClock::pass(std::stod(word));
    }
}

TEST(CallPaths, TellWhichEventBeganInWhich) {
    constexpr struct {
        const char* script;
        std::size_t maxPaths;
        const char* expected;
    } ROWS[] = {
        {"", 9, ""},
        {"+A 1 -A 1 +A 2 -A", 9, "A 2 3"},
        {"+A 1 +B 2 -B 3 -A", 9, "A 1 6, A>B 1 2"},
        {"+B 1 -B +A +B 2 -B -A +C +B 4 -B -C", 9, "A 1 2, A>B 1 2, B 1 1, C 1 4, C>B 1 4"},
        {"+A +B +C 1 -C -B +C 2 -C +B 4 -B -A", 9, "A 1 7, A>B 2 5, A>B>C 1 1, A>C 1 2"},
        {"+A +B *A 1 +C 1 -C -B -A", 9, "A 2 2, A>B 1 2, A>B>C 1 1"}, // A in A takes no time of its own
        {"+A 1 +B 1 -A 1 +C 1 -C -B +D -D", 9, "A 1 2, A>B 1 3, A>B>C 1 1, D 1 0"}, // not in reverse order
        {"-A +A 1 -A -A *A", 9, "A 1 1"},
        {"+A 1 +B 2", 9, "A 1 3 open, A>B 1 2 open"},
        {"+A 1 +B 2 -B +C 1 +B 4 -B -C -A +B 8 -B +A -A", 2, ">B 2 12, >C 1 5, A 2 8, A>B 1 2"}, // full
    };
    for (const auto& row : ROWS) {
        EventClock::wall = 7.0;
        CallPaths paths(EventClock::makeTimer(), row.maxPaths);
        play(paths, row.script);
        EXPECT_EQ(describe(paths), row.expected) << row.script;
    }
}

TEST(CallPaths, HoldNoControlCharactersInNames) {
    CallPaths paths(EventClock::makeTimer());
    paths.start(paths.addEvent("a\nb"));
    paths.start(paths.addEvent(std::string("c\0d", 3)));
    EXPECT_EQ(paths.getKey(1), "a b\nc d");
}

TEST(ProfileCalls, AreTheTrackedEventsWithTheirTimes) {
    MessagingGate::noteMainThread();
    MachineTestAccess::startAfresh();
    auto* manager = new TimeLoggerManager(0.01, EventClock::makeTimer);
    EventTracker::getSingleton().setEventLoggerManager(manager);
    manager->switchOn();
    {
        const EventTracker::Track outer("Solver", "step");
        EventClock::pass(1.0 / 3.0);
        for (int i = 0; i < 2; ++i) {
            const EventTracker::Track inner("Halo", "");
            const EventTracker::Track again("Solver", "step");
            EventClock::pass(1.0);
        }
    }
    const EventTracker::Track open("Halo", "");
    EventClock::pass(0.5);
    manager->switchOff();
    EXPECT_EQ(ProfileCalls::gather(manager).toString(),
              R"({"on":false,"seconds":2.8333,"list":[)"
              R"({"name":"Halo","parent":-1,"count":[1],"seconds":[0.5],"open":true},)"
              R"({"name":"Solver::step","parent":-1,"count":[3],"seconds":[2.3333],"open":false},)"
              R"({"name":"Halo","parent":1,"count":[2],"seconds":[2.0],"open":false}],"left":0})");
    EXPECT_EQ(
        ProfileCalls::gather(manager, 1).toString(),
        R"({"on":false,"seconds":2.8333,"list":[)"
        R"({"name":"Solver::step","parent":-1,"count":[3],"seconds":[2.3333],"open":false}],"left":2})");
    EXPECT_EQ(ProfileCalls::gather(nullptr).toString(), R"({"on":false,"seconds":0.0,"list":[],"left":0})");
    EventTracker::reset();
}

TEST(ProfileCalls, KeepTheLargestWithTheirParents) {
    const std::vector<std::string> keys{"\nlost", "a", "a\nb", "a\nb\nc", "d", "d\nb"};
    const std::vector<double> sums{1.0, 5.0, 5.0, 4.0, 2.0, 3.0}; // d\nb is longer than its parent
    const std::pair<std::size_t, const char*> ROWS[] = {{0, ""},
                                                        {1, "a/-1"},
                                                        {2, "a/-1 b/0"},
                                                        {3, "a/-1 b/0 c/1"},
                                                        {4, "a/-1 b/0 c/1"},
                                                        {5, "a/-1 b/0 c/1 d/-1 b/3"},
                                                        {9, "lost/-1? a/-1 b/1 c/2 d/-1 b/4"}};
    for (const auto& [limit, expected] : ROWS) {
        std::string text;
        for (const ProfileCalls::Call& call : ProfileCalls::choose(keys, sums, limit))
            text += (text.empty() ? "" : " ") + call.name + '/' + std::to_string(call.parent) +
                    (call.isPlaced ? "" : "?");
        EXPECT_EQ(text, expected) << limit;
    }
}

TEST(ProfileMemory, HasFewTimesOnAGridThatAllRanksHave) {
    constexpr struct {
        double longestStep, shortestEnd;
        std::size_t hosts;
        double step;
        std::size_t rows;
    } ROWS[] = {
        {0.0, 0.0, 1, 0.0, 0},         {0.0, 5.0, 1, 0.0, 0},     {2.0, 1.0, 1, 0.0, 0},
        {0.5, 0.5, 1, 0.5, 1},         {0.5, 4.9, 1, 0.5, 9},     {0.1, 0.3, 1, 0.1, 3},
        {0.5, 200.0, 1, 0.5, 400},     {0.5, 800.0, 1, 2.0, 400}, {0.5, 800.0, 1000, 8.0, 100},
        {0.5, 8.0, 1'000'000, 8.0, 1},
    };
    for (const auto& row : ROWS) {
        const ProfileMemory::Grid grid =
            ProfileMemory::chooseGrid(row.longestStep, row.shortestEnd, row.hosts);
        EXPECT_EQ(grid.step, row.step) << row.shortestEnd;
        EXPECT_EQ(grid.rows, row.rows) << row.shortestEnd;
    }
}

TEST(ProfileNumbers, HaveFewDigits) {
    EXPECT_EQ(ProfileNumbers::round({0.0, 1.0 / 3.0, -123456.7, 9.99996, 1e-300 / 3.0}, 5),
              (std::vector<double>{0.0, 0.33333, -123460.0, 10.0, 3.3333e-301}));
    EXPECT_EQ(ProfileNumbers::round(std::numeric_limits<double>::infinity(), 4),
              std::numeric_limits<double>::infinity());
    EXPECT_EQ(ProfileNumbers::countDigits(1000), 5);
    EXPECT_EQ(ProfileNumbers::countDigits(1001), 4);
    EXPECT_EQ(ProfileNumbers::makeRows("k", {{1, 2}, {}, {3}}).toString(), R"({"k":[[1,2],[],[3]]})");
    EXPECT_EQ(ProfileNumbers::makeRows("k", {}).toString(), R"({"k":[]})");
}

} // namespace
