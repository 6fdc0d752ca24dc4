#include "machine/failures/RollCallReport.h"

#include "kernel/Error.h"
#include "kernel/profile/RankList.h"
#include "machine/failures/FrameNames.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace {

/// The ranks of "1,3-7".
std::vector<unsigned> ranksOf(const std::string& text) {
    std::vector<unsigned> ranks;
    std::istringstream stream(text);
    for (std::string range; std::getline(stream, range, ',');) {
        const std::size_t dash = range.find('-');
        const auto first = static_cast<unsigned>(std::stoul(range));
        const auto last =
            dash == std::string::npos ? first : static_cast<unsigned>(std::stoul(range.substr(dash + 1)));
        for (unsigned rank = first; rank <= last; ++rank)
            ranks.push_back(rank);
    }
    return ranks;
}

/// "#" and "%" in a value stand for the rank and for its number modulo 3.
std::string valueFor(unsigned rank, std::string value) {
    for (std::size_t at = 0; (at = value.find_first_of("#%")) != std::string::npos;)
        value.replace(at, 1, std::to_string(value[at] == '#' ? rank : rank % 3));
    return value;
}

/// Reads "RANKS key=value; key=value ...". A value is a text where it isn't a number.
void addRanks(const std::string& line, std::vector<RankStanding>& standings) {
    const std::size_t blank = line.find(' ');
    for (const unsigned rank : ranksOf(line.substr(0, blank))) {
        Properties tree;
        tree.set("rank", rank);
        std::istringstream stream(line.substr(blank + 1));
        for (std::string word; std::getline(stream >> std::ws, word, ';');) {
            const std::string key = word.substr(0, word.find('='));
            const std::string value = valueFor(rank, word.substr(word.find('=') + 1));
            std::vector<std::string> frames;
            std::istringstream list(value);
            for (std::string frame; std::getline(list, frame, '|');)
                frames.push_back(frame);
            if (key == "stack")
                tree.set(key, frames);
            else if (key == "processorShare" || key.ends_with("Seconds"))
                tree.set(key, std::stod(value));
            else if (value.find_first_not_of("-0123456789") == std::string::npos)
                tree.set(key, std::stoi(value));
            else
                tree.set(key, value);
        }
        standings.push_back(RankStanding::fromProperties(tree));
    }
}

/// A file of data/rollcalls: the ranks, then, below a line of dashes, the text that is expected.
struct RollCall {
    explicit RollCall(const std::filesystem::path& path) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line) && line != "----";)
            if (!line.empty() && line.front() != '*')
                addRanks(line, standings);
        std::ostringstream rest;
        rest << file.rdbuf();
        expected = rest.str();
    }
    std::vector<RankStanding> standings;
    std::string expected;
};

TEST(RollCallReport, TellsWhereTheRanksStandOnOneScreen) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(ORVEX_TEST_DATA "/rollcalls")) {
        RollCall call(entry.path());
        std::reverse(call.standings.begin(), call.standings.end()); // answers come in any order
        const std::string text = RollCallReport(call.standings).getText();
        EXPECT_EQ(text, call.expected) << entry.path();
        EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 40) << entry.path();
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 100u) << entry.path();
        ++count;
    }
    EXPECT_GE(count, 15u);
}

TEST(RollCallReport, TellsProgramsTheSame) {
    const RollCall call(ORVEX_TEST_DATA "/rollcalls/one-computes.txt");
    const RollCallReport report(call.standings);
    const Properties tree = report.toProperties();
    EXPECT_EQ(tree.getString("text"), call.expected);
    EXPECT_TRUE(call.expected.find("for rank 2") != std::string::npos);
    std::vector<Properties> ranks;
    std::vector<Properties> groups;
    tree.get("ranks", ranks);
    tree.get("groups", groups);
    ASSERT_EQ(ranks.size(), 7u);
    EXPECT_EQ(ranks[2], call.standings.back().toProperties()); // the file names it last
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].getString("ranks"), "0-1,3-6");
    EXPECT_EQ(groups[1].getString("state"), "computes");

    const Properties one = report.toProperties(2u);
    one.get("ranks", ranks);
    ASSERT_EQ(ranks.size(), 1u);
    EXPECT_EQ(ranks[0].getUnsignedInt("rank"), 2u);
    EXPECT_NE(one.getString("text").find("  process 1002\n"), std::string::npos) << one.getString("text");
    EXPECT_NE(one.getString("text").find("    std::sqrt(double) in /lib/libm.so.6\n"), std::string::npos);
    EXPECT_EQ(one.getString("verdict"), tree.getString("verdict"));
    EXPECT_THROW(static_cast<void>(report.toProperties(7u)), InputError);
}

TEST(FrameNames, AreShort) {
    const struct {
        std::string frame;
        std::string name;
    } rows[] = {
        {"(anonymous namespace)::solve(std::vector<int> const&) at /a/b.cpp:3", "solve (b.cpp:3)"},
        {"void Field<double>::sweep<3>(int) const at b.cpp:3", "Field::sweep (b.cpp:3)"},
        {"Loop::run(int)::{lambda(int)#1}::operator()(int) const at b.cpp:3", "Loop::run (b.cpp:3)"},
        {"Solver::operator()(int) in /lib/libsolver.so", "Solver::operator()"},
        {"main at main.cpp:1", "main (main.cpp:1)"}, // nothing else is left
        {"0x7f01 in /lib/libsolver.so", ""},
    };
    for (const auto& row : rows) {
        const std::vector<FrameNames::Frame> frames = FrameNames::pick({row.frame});
        EXPECT_EQ(frames.empty() ? "" : frames.front().describe(), row.name) << row.frame;
    }
}

TEST(FrameNames, EndAtTheOperation) {
    const struct {
        std::vector<std::string> stack; // the innermost frame first
        std::string names;
    } rows[] = {
        {{"sched_yield at ../sysdeps/unix/syscall-template.S:120", "Driver::Test(int) at a/Driver.cpp:9",
          "void Communicator::allReduce<double>(double&) at Communicator.h:9", "reduce(int) at Solver.cpp:3",
          "Solve::execute() at Solver.cpp:9", "runCommand(int) at Controller.cpp:9"},
         "reduce (Solver.cpp:3)|Solve::execute (Solver.cpp:9)"},
        {{"Driver::Test(int) at a/Driver.cpp:9", "Communicator::noSpinSynchronise(double) at C.cpp:81",
          "CommandController::run() at CommandController.cpp:7"},
         "Communicator::noSpinSynchronise (C.cpp:81)|CommandController::run (CommandController.cpp:7)"},
        {{"Machine::endByError(Error const&) at MachineErrors.cpp:9",
          "Machine::handleParallelError(Error*) at MachineErrors.cpp:8", "fail(int) at Solver.cpp:5"},
         "fail (Solver.cpp:5)"},
        {{"futex_wait at ../sysdeps/nptl/futex-internal.h:146", "lll_lock at ./nptl/pthread_mutex_lock.c:48",
          "std::mutex::lock() at /usr/include/c++/12/bits/std_mutex.h:100", "lockField() at Solver.cpp:7"},
         "lockField (Solver.cpp:7)"},
        {{"(no stack: the main thread doesn't answer)"}, ""},
    };
    for (const auto& row : rows) {
        std::vector<std::string> names;
        for (const FrameNames::Frame& frame : FrameNames::pick(row.stack))
            names.push_back(frame.describe());
        EXPECT_EQ(StringHelper::join(names, "|"), row.names) << row.stack.front();
    }
}

TEST(RankList, CutsTheMiddle) {
    const struct {
        std::string ranks;
        std::size_t width;
        std::string text;
    } rows[] = {
        {"", 20, ""},
        {"5", 20, "5"},
        {"0,1,2,3,5", 20, "0-3,5"},
        {"0-3,5-6,8", 9, "0-3,5-6,8"},
        {"0,2,4,6,8,10,12,14,16,18,20,22,24,26", 30, "0,2,4,6,8,10,...,26 (14 ranks)"},
        {"0,2,4,6,8,10,12,14,16,18,20,22,24,26", 29, "0,2,4,6,8,...,26 (14 ranks)"},
        {"0,2,4", 1, "0,...,4 (3 ranks)"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(RankList::describe(ranksOf(row.ranks), row.width), row.text) << row.ranks;
}

} // namespace
