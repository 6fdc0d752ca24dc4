// The road of a command through a real job of any number of ranks.

#include "machine/CommandController.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "platform/FloatingPointErrorRecord.h"

#include "parallel/machine/commands/ParallelCommands.h"
#include "support/TestCommand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace {

bool isAmong(const std::vector<unsigned>& ranks) {
    return std::find(ranks.begin(), ranks.end(), Machine::getPartitionId()) != ranks.end();
}

int timesCounted = 0;

/// Fails on the ranks in "ranks", each with its own text or with "text"; elsewhere the results look like an
/// error.
void fail(const Properties& args, Properties& response) {
    response.merge(Properties(R"({"Error":0.5,"Message":"no error","Severity":[]})"));
    const std::string rank = std::to_string(Machine::getPartitionId());
    Properties more;
    for (unsigned depth = args.getOr("depth", 0u); depth != 0; --depth)
        more.set("deeper", Properties(more));
    more.set(Error::STACK_TRACE_TAG, "trace " + rank);
    if (isAmong(args.getOr("ranks", std::vector<unsigned>())))
        throw InputError(args.getOr("text", "failed on rank " + rank), 2, more);
}

/// Answers whether all ranks got the same text, and how long it is.
void compare(const Properties& args, Properties& response) {
    const std::string mine = args.getString("text");
    std::string masters = mine;
    Machine::globalCommunicator().broadcast(masters, Communicator::masterRank());
    std::vector<unsigned> equal;
    Machine::globalCommunicator().allGather(unsigned(mine == masters), equal);
    response.set("equal", std::count(equal.begin(), equal.end(), 1u) == int(Machine::nProcesses()));
    response.set("size", static_cast<unsigned long>(mine.size()));
    EXPECT_EQ(Machine::getState(), Machine::PROCESSING);
}

void count(const Properties&, Properties&) {
    ++timesCounted;
}

/// A running computation that stops at a known point for what the clients want.
void computeAndServe(const Properties&, Properties& response) {
    CommandController::getSingleton().processQueuedCommands();
    std::vector<unsigned> counts;
    Machine::globalCommunicator().allGather(unsigned(timesCounted), counts);
    response.set("counts", counts);
}

/// A fault on the ranks in "ranks", and an error on the last rank if it has a text.
void fault(const Properties& args, Properties&) {
    if (isAmong(args.getOr("ranks", std::vector<unsigned>())))
        FloatingPointErrorRecord::set("a fault");
    if (args.hasName("text") && Machine::getPartitionId() == Machine::nProcesses() - 1)
        throw InputError(args.getString("text"));
}

/// Rank 1 sends rank 0 a message that a later command receives, with the tag of the sleeping synchronisation.
void leaveMessage(const Properties& args, Properties&) {
    constexpr unsigned TAG = 1022;
    Communicator& ranks = Machine::globalCommunicator();
    unsigned value = 7;
    if (args.hasName("receive") && Machine::isMaster() && ranks.size() > 1)
        ranks.recv(value, 1, TAG);
    if (!args.hasName("receive") && ranks.myRank() == 1)
        ranks.send(value, 0, TAG);
    EXPECT_EQ(value, 7u);
}

/// The last rank reduces by another operation; with "text" it fails afterwards.
void reduceDifferently(const Properties& args, Properties&) {
    const bool isLast = Machine::getPartitionId() == Machine::nProcesses() - 1;
    int value = 1;
    Machine::globalCommunicator().allReduce(value, isLast ? Communicator::MAX : Communicator::SUM);
    if (isLast && args.hasName("text"))
        throw InputError(args.getString("text"));
}

void registerTestCommands() {
    Controller& controller = Controller::getSingleton();
    if (controller.findCommand("TestFail"))
        return;
    controller.registerCommand(new TestCommand("TestFail", fail));
    controller.registerCommand(new TestCommand("TestCompare", compare));
    controller.registerCommand(new TestCommand("TestCount", count));
    controller.registerCommand(new TestCommand("TestComputeAndServe", computeAndServe));
    controller.registerCommand(new TestCommand("TestFault", fault));
    controller.registerCommand(new TestCommand("TestLeaveMessage", leaveMessage));
    controller.registerCommand(new TestCommand("TestReduceDifferently", reduceDifferently));
}

class CommandRoad : public ParallelCommands {
protected:
    void SetUp() override {
        registerTestCommands();
        timesCounted = 0;
    }
};

} // namespace

TEST_F(CommandRoad, MakesTheLowestFailingRankTheErrorOfAllAndKeepsTheWorkers) {
    inCommandLoop([] {
        const unsigned last = Machine::nProcesses() - 1;
        const unsigned two = std::min(2u, last);
        const std::string twoAndFive = last <= 2   ? std::to_string(last)
                                       : last == 3 ? "2-3"
                                                   : "2," + std::to_string(std::min(5u, last));
        const std::tuple<std::vector<unsigned>, unsigned, std::string> rows[] = {
            {{2, 5}, two, twoAndFive},
            {{0, 1}, 0, last == 0 ? "0" : "0-1"},
            {{last}, last, std::to_string(last)},
        };
        for (const auto& [ranks, winner, text] : rows) {
            const Properties response = run("TestFail", ranks);
            EXPECT_EQ(Error::getMessage(response), "failed on rank " + std::to_string(winner));
            EXPECT_EQ(response.getInt(Error::SEVERITY_TAG), 2);
            EXPECT_EQ(response.getString(CommandController::COMMAND_KEY), "TestFail");
            EXPECT_EQ(response.hasName(CommandController::RANK_KEY), winner != 0);
            EXPECT_EQ(response.getOr(CommandController::RANK_KEY, 0u), winner);
            EXPECT_EQ(response.getString(CommandController::RANKS_KEY), text);
            EXPECT_EQ(response.getOr(CommandController::MESSAGES_KEY, 1), text.size() > 1 ? 2 : 1);
            EXPECT_EQ(response.getString(Error::STACK_TRACE_TAG), "trace " + std::to_string(winner));
            EXPECT_EQ(run("TestFail").getReal(Error::ERROR_TAG), 0.5); // results, whatever their keys
        }
        // An error without a message is none the less one; the others don't wait for one too deep to be sent.
        EXPECT_EQ(Error::getMessage(run("TestFail", {last}, Properties(R"({"text":""})"))),
                  "An error of type InputError without a message");
        const Properties deep(R"({"text":"too deep to be sent","depth":70})");
        EXPECT_EQ(Error::getMessage(run("TestFail", {last}, deep)), "too deep to be sent");
    });
    EXPECT_EQ(Machine::getState(), Machine::AWAITING_COMMAND);
}

TEST_F(CommandRoad, EndsWithTheSameErrorOnEveryRank) {
    // An error that says nothing doesn't win; without any error nothing changes.
    const unsigned last = Machine::nProcesses() - 1;
    Properties silent(R"({"kept":1,"Message":"none","Rank":9})");
    if (Machine::isMaster())
        silent.merge(Properties(R"({"Error":7,"Message":""})"));
    if (Machine::getPartitionId() == last && last != 0)
        silent.merge(InputError("loud").getProperties());
    CommandController::getSingleton().parseErrorProperties(silent);
    EXPECT_EQ(Error::getMessage(silent), last == 0 ? "" : "loud");
    EXPECT_EQ(silent.getUnsignedInt(CommandController::RANK_KEY), last == 0 ? 9 : last);
    EXPECT_EQ(silent.getInt("kept"), 1);
    Properties fine;
    fine.set("a", 1);
    const Properties before = fine;
    CommandController::getSingleton().parseErrorProperties(fine);
    EXPECT_EQ(fine, before);
}

TEST_F(CommandRoad, BringsTheCommandToAllRanksWhole) {
    inCommandLoop([] {
        for (const std::size_t size : {std::size_t(0), std::size_t(1), std::size_t(2) << 20}) {
            std::string text(size, 'x');
            if (size > 3)
                text.replace(size / 2, 3, std::string("\0\n\"", 3));
            Properties args;
            args.set("text", text);
            const Properties response = run("TestCompare", args);
            EXPECT_EQ(Error::getMessage(response), "");
            EXPECT_TRUE(response.getBool("equal")) << size;
            EXPECT_EQ(response.getUnsignedLong("size"), size);
        }
        EXPECT_EQ(Error::getMessage(run("NoSuchCommand")).find("Unknown command"), 0u);
    });
}

TEST_F(CommandRoad, NeverMeetsAMessageThatACommandLeftOnTheGlobalCommunicator) {
    inCommandLoop([] {
        EXPECT_FALSE(Error::isErrorIn(run("TestLeaveMessage")));
        EXPECT_FALSE(Error::isErrorIn(run("TestLeaveMessage", Properties(R"({"receive":true})"))));
    });
}

TEST_F(CommandRoad, FailsWhenTheRanksCalledDifferentCollectives) {
    inCommandLoop([] {
        const Properties response = run("TestReduceDifferently");
        EXPECT_EQ(Error::isErrorIn(response), Machine::nProcesses() != 1);
        if (Error::isErrorIn(response)) {
            EXPECT_EQ(
                Error::getMessage(response).find("The ranks did not call the same collective operations in "
                                                 "\"TestReduceDifferently\": from call 1 on, rank "),
                0u)
                << Error::getMessage(response);
            EXPECT_EQ(response.getString(Error::KIND_TAG), Error::INTERNAL_KIND);
            EXPECT_EQ(response.getString(CommandController::COMMAND_KEY), "TestReduceDifferently");
            EXPECT_EQ(response.getInt(Error::SEVERITY_TAG), Error::RECOVERABLE_SEVERITY);
            EXPECT_FALSE(response.hasName(CommandController::RANKS_KEY));
        }
        // The error of a rank explains why it called less; and the next command starts afresh.
        const Properties why(R"({"text":"the reason"})");
        EXPECT_EQ(Error::getMessage(run("TestReduceDifferently", why)), "the reason");
        EXPECT_FALSE(Error::isErrorIn(run("TestCount")));
    });
}

TEST_F(CommandRoad, FailsWithoutARankForAFloatingPointFaultOfAnyRank) {
    inCommandLoop([] {
        const Properties response = run("TestFault", {Machine::nProcesses() - 1});
        EXPECT_NE(Error::getMessage(response).find("\n  a fault\n"), std::string::npos);
        EXPECT_FALSE(response.hasName(CommandController::RANK_KEY));
        EXPECT_EQ(response.getString(CommandController::COMMAND_KEY), "TestFault");
        EXPECT_FALSE(Error::isErrorIn(run("TestFault")));
        const Properties args(R"({"text":"why it overflowed"})");
        EXPECT_EQ(Error::getMessage(run("TestFault", {0}, args)), "why it overflowed");
    });
}

TEST_F(CommandRoad, RunsQueuedCommandsOnAllRanksInTheMiddleOfACommand) {
    inCommandLoop([] {
        int answers = 0;
        const auto enqueue = [&answers](const std::string& name) {
            Properties command;
            command.set(Command::COMMAND_TAG, name);
            command.set("ranks", std::vector<unsigned>{Machine::nProcesses() - 1});
            Controller::getSingleton().enqueue(
                {command, "a test", [&answers](const Controller::Outcome&) { ++answers; }});
        };
        enqueue("TestCount");
        enqueue("TestFail");
        enqueue("TestCount");
        for (const int served : {3, 3}) { // the second time the queue is empty
            std::vector<unsigned> counts;
            run("TestComputeAndServe").get("counts", counts);
            EXPECT_EQ(counts, std::vector<unsigned>(Machine::nProcesses(), 2));
            EXPECT_EQ(answers, served);
        }
    });
}
