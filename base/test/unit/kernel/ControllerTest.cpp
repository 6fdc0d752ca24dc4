#include "kernel/Controller.h"

#include "kernel/Command.h"
#include "kernel/MessagingGate.h"
#include "kernel/Observer.h"
#include "kernel/Raise.h"
#include "kernel/Subject.h"
#include "platform/Lock.h"
#include "platform/Semaphore.h"
#include "platform/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Body = std::function<void(const Properties& args, Properties& response)>;

/// A command that does what the test gives it.
class TestCommand : public Command {
public:
    TestCommand(std::string name, Body body, bool threaded = false, CommandHelp help = {},
                Access access = Access::CLIENTS)
        : Command(std::move(help), access), _name(std::move(name)), _body(std::move(body)),
          _threaded(threaded) {}
    void execute(const Properties& args, Properties& response) override { _body(args, response); }
    std::string getName() const override { return _name; }
    bool isThreaded(const Properties& args) const override { return _threaded && !args.hasName("inline"); }
    void onError(const Properties&, Properties& response) override {
        response.set("seen", Error::getMessage(response));
        throw std::runtime_error("in onError");
    }

private:
    std::string _name;
    Body _body;
    bool _threaded;
};

/// An exception that has nothing to say.
struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

/// Writes its letter to a log, and works on demand.
struct LogObserver : Observer {
    LogObserver(std::string& log_, const char* letter_) : log(log_), letter(letter_) {}
    void update(Properties& properties) override {
        log += letter;
        if (work)
            work(properties);
    }
    std::string& log;
    const char* letter;
    std::function<void(Properties&)> work;
};

Properties request(const std::string& name) {
    Properties command;
    command.set(Command::COMMAND_TAG, name);
    return command;
}

} // namespace

class ControllerTest : public testing::Test {
protected:
    ControllerTest() {
        controller.getMasterScatterCommandObservable().attach(scatter);
        controller.getMasterGatherResponseObservable().attach(gather);
        controller.getPostExecuteFloatingPointErrorObservable().attach(floating);
    }
    ~ControllerTest() override { Controller::reset(); }

    void add(const std::string& name, Body body, bool threaded = false) {
        controller.registerCommand(new TestCommand(name, std::move(body), threaded));
    }
    Properties run(const std::string& name) {
        Properties response;
        isFine = controller.executeCommand(request(name), response);
        return response;
    }
    /// Queues a request whose response lands in `responses`.
    void queue(const std::string& name) { queue(request(name)); }
    void queue(const Properties& command) {
        controller.enqueue({command, "somebody", [this](const Controller::Outcome& outcome) {
                                EXPECT_TRUE(Thread::isMain());
                                responses.push_back(outcome.response);
                                lastStatus = outcome.status;
                            }});
    }

    Controller& controller = Controller::getSingleton();
    std::string log;
    LogObserver scatter{log, "s"};
    LogObserver gather{log, "g"};
    LogObserver floating{log, "f"};
    std::vector<Properties> responses;
    Controller::Outcome::Status lastStatus = Controller::Outcome::DONE; ///< of the last answer
    bool isFine = true;                                                 ///< what executeCommand() gave last
};

TEST_F(ControllerTest, ObservablesStandAroundTheCommandButNotAroundNestedOnes) {
    add("Inner", [&](const Properties&, Properties&) { log += "i"; });
    add("Outer", [&](const Properties& args, Properties& response) {
        log += "o";
        response.set("added", args.getBool("added"));
        response.set("inner", run("Inner"));
        log += "p";
    });
    // The command that came back is run.
    scatter.work = [](Properties& command) { command.set("added", true); };
    EXPECT_EQ(run("Outer").toString(), R"({"Command":"Outer","added":true,"inner":{"Command":"Inner"}})");
    EXPECT_EQ(log, "soipgf");
}

TEST_F(ControllerTest, ALoopServedFromWithinACommandTellsTheObservables) {
    add("Queued", [&](const Properties&, Properties&) { log += "q"; });
    add("Long", [&](const Properties&, Properties&) {
        controller.processQueuedCommands();
        controller.execute(request("Queued"));
        run("Queued");
    });
    queue("Queued");
    run("Long");
    EXPECT_EQ(log, "ssqgfsqgfqgf");
}

TEST_F(ControllerTest, ErrorsOfEveryKindEndInTheResponse) {
    const struct {
        const char* name;
        std::function<void()> fail;
        const char* message;
        int severity;
        const char* kind;
    } rows[] = {
        {"Input", [] { raise(InputError("bad input")); }, "bad input", 2, "input"},
        {"System", [] { raise(SystemError("disk full")); }, "disk full", 2, "system"},
        {"Raiser", [] { raise(SystemError("mine", 2, Properties(R"({"Kind":"input"})"))); }, "mine", 2,
         "input"},
        {"Assertion", [] { ORVEX_ASSERT(1 == 2, "odd"); }, "odd", 3, "internal"},
        {"Standard", [] { throw std::out_of_range("beyond"); }, "beyond", 2, "internal"},
        {"Memory", [] { throw std::bad_alloc(); }, "std::bad_alloc", 2, "system"},
        {"Unknown", [] { throw 7; }, "An exception of type int left the command", 3, "internal"},
        {"Empty", [] { raise(InputError("")); }, "An error of type InputError without a message", 2, "input"},
        {"Null", [] { throw Silent(); },
         "An exception of type (anonymous namespace)::Silent without a message", 2, "solver"}};
    for (const auto& row : rows) {
        add(row.name, [&](const Properties&, Properties& response) {
            response.set("half", "done");
            row.fail();
        });
        const Properties response = run(row.name);
        EXPECT_EQ(Error::getMessage(response), row.message);
        EXPECT_EQ(response.getInt(Error::SEVERITY_TAG), row.severity);
        EXPECT_EQ(response.getString(Error::KIND_TAG), row.kind);
        EXPECT_TRUE(response.hasName(Error::ERROR_TAG) && !isFine);
        EXPECT_EQ(response.getString("Command"), row.name);
        EXPECT_EQ(response.getString("seen"), row.message); // onError was called with the error in place
        EXPECT_FALSE(response.hasName("half"));
    }
}

TEST_F(ControllerTest, ResultsHaveWhateverKeysTheyLike) {
    const Properties results(
        R"({"Command":7,"Error":0.5,"Message":"fine","Severity":"3","Rank":[1],"Kind":{}})");
    add("Odd", [&](const Properties&, Properties& response) { response.merge(results); });
    EXPECT_EQ(run("Odd"), results);
    EXPECT_TRUE(isFine);
    queue("Odd");
    controller.processQueuedCommands();
    EXPECT_EQ(responses.back(), results);
    EXPECT_EQ(lastStatus, Controller::Outcome::DONE);
    EXPECT_THROW(controller.getToldOutcome(), InternalError);
    gather.work = [&](Properties&) { controller.getToldOutcome().status = Controller::Outcome::FAILED; };
    run("Odd");
    EXPECT_FALSE(isFine);
}

TEST_F(ControllerTest, ClientsDontReachInternalCommands) {
    controller.registerCommand(new TestCommand(
        "ExitLoop", [&](const Properties&, Properties&) { log += "x"; }, false, {"Ends the loop."},
        Command::Access::SYSTEM));
    queue("ExitLoop");
    controller.processQueuedCommands();
    EXPECT_EQ(Error::getMessage(responses[0]), "Unknown command \"ExitLoop\"");
    EXPECT_EQ(lastStatus, Controller::Outcome::UNKNOWN_COMMAND);
    EXPECT_TRUE(controller.getCommands().empty());
    controller.execute(request("ExitLoop"));
    EXPECT_FALSE(controller.executeScattered(request("ExitLoop")).hasFailed());
    EXPECT_EQ(log, "sxgfsxgf");
}

TEST_F(ControllerTest, ArgumentsAreCheckedBeforeAnythingElseHappens) {
    const auto takeCall = [&](const Properties&, Properties&) { log += "x"; };
    controller.registerCommand(new TestCommand("Solve", takeCall, false,
                                               {"Solves.",
                                                {{"nx", "unsigned", "points"},
                                                 {"tolerance", "real", "to reach", false},
                                                 {"weights", "vector of real", "of the points", false}}}));
    controller.registerCommand(
        new TestCommand("Any", takeCall, false, {"Any.", {{"*", "any", "all", false}}}));
    for (const auto& [args, fault] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"command":"Solve","nx":4,"tolerance":1,"weights":[1,0.5]})", ""}, // no fault: it runs
             {R"({"command":"Any","Any":4})", ""},
             {R"({"command":"Solve","tolerence":1e-2})",
              "The command \"Solve\" takes no argument \"tolerence\", did you mean \"tolerance\"?"},
             {R"({"command":"Solve","nx":4,"NX":4})",
              "The command \"Solve\" takes no argument \"NX\", did you "
              "mean \"nx\"? Capital and small letters differ"},
             {R"({"command":"Solve","nx":"4","q":4})", "The command \"Solve\" takes no argument \"q\""},
             {R"({"command":"Solve","tolerance":"small"})",
              "The command \"Solve\" needs the argument \"nx\" (unsigned): points"},
             {R"({"command":"Solve","nx":-1})",
              "The key \"nx\" holds an integer (-1), expected an integer from 0 to 4294967295"}}) {
        const bool isGood = *fault == 0;
        log.clear();
        queue(Properties(args));
        controller.processQueuedCommands();
        EXPECT_EQ(log, isGood ? "sxgf" : "") << args;
        EXPECT_EQ(Error::getMessage(responses.back()), fault);
        EXPECT_EQ(lastStatus, isGood ? Controller::Outcome::DONE : Controller::Outcome::WRONG_ARGUMENTS);
        Properties response; // from inside the same counts
        EXPECT_EQ(controller.executeCommand(Properties(args), response), isGood);
    }
}

TEST_F(ControllerTest, AnObserverThatFailsFailsTheCommand) {
    add("Fine", [&](const Properties&, Properties&) { log += "x"; });
    add("Bad", [&](const Properties&, Properties&) { raise(InputError("its own")); });
    const auto fail = [](Properties&) { raise(FloatingPointError("overflow")); };

    floating.work = fail;
    EXPECT_EQ(Error::getMessage(run("Fine")), "overflow");
    EXPECT_EQ(Error::getMessage(run("Bad")), "its own"); // the first error counts
    floating.work = nullptr;
    gather.work = fail;
    EXPECT_EQ(Error::getMessage(run("Fine")), "overflow");
    log.clear();
    gather.work = nullptr;
    scatter.work = fail;
    EXPECT_EQ(Error::getMessage(run("Fine")), "overflow");
    EXPECT_EQ(log, "s"); // not distributed: neither run nor gathered
}

TEST_F(ControllerTest, UnknownCommandsGetTheNearestName) {
    for (const char* name : {"GetHosts", "GetTimes", "GetNumberOfWorkers"})
        add(name, {});
    EXPECT_THROW(add("GetHosts", {}), InternalError);
    for (const auto& [name, nearest] : {std::pair<std::string, const char*>("gethosts", "GetHosts"),
                                        {"GetHost", "GetHosts"},
                                        {"GetTomes", "GetTimes"},
                                        {"getnum", "GetNumberOfWorkers"},
                                        {"Gt", ""},
                                        {"", ""},
                                        {std::string(1 << 20, 'G'), ""}})
        EXPECT_EQ(controller.getNearestName(name), nearest) << name.substr(0, 20);
    EXPECT_EQ(Error::getMessage(run("GetHost")), "Unknown command \"GetHost\", did you mean \"GetHosts\"?");
    EXPECT_LT(Error::getMessage(run(std::string(1 << 20, '\xC3'))).size(), 1000u);
    Properties response;
    EXPECT_FALSE(controller.executeCommand(Properties("{\"command\":[1]}"), response));
    EXPECT_NE(Error::getMessage(response).find("names no command"), std::string::npos);
    EXPECT_EQ(log, ""); // nothing of this was distributed
}

TEST_F(ControllerTest, TheQueueServesThreadsInTheirOrder) {
    constexpr int EACH = 1000;
    std::vector<int> next(4); // of each thread; the main thread alone answers
    int answered = 0;
    add("Count", [&](const Properties& args, Properties&) {
        EXPECT_EQ(controller.getRunningCommand()->client, "client " + std::to_string(args.getInt("thread")));
    });
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < EACH; ++i) {
                Properties command = request("Count");
                command.set("thread", t);
                controller.enqueue({command, "client " + std::to_string(t), [&, t, i](const auto&) {
                                        EXPECT_EQ(i, next[static_cast<std::size_t>(t)]++);
                                        if (++answered == 4 * EACH)
                                            controller.stopProcessing();
                                    }});
            }
        });
    controller.processCommands();
    EXPECT_EQ(answered, 4 * EACH);
    EXPECT_FALSE(controller.getRunningCommand());
}

TEST_F(ControllerTest, StopEndsTheLoopAndAnswersTheRest) {
    std::thread stopper; // as the thread that watches signals does it
    add("Work", [&](const Properties&, Properties&) {
        log += "w";
        stopper = std::thread([&] { controller.stopProcessing(); });
        stopper.join();
        queue("Work");
    });
    queue("Work");
    queue("Work");
    controller.processCommands();
    EXPECT_EQ(lastStatus, Controller::Outcome::STOPPING);
    EXPECT_EQ(log, "swgf");
    ASSERT_EQ(responses.size(), 3u); // the one queued after the stop was refused at once, so it comes first
    EXPECT_TRUE(Error::isErrorIn(responses[0]));
    EXPECT_EQ(responses[1].toString(), "{\"Command\":\"Work\"}");
    EXPECT_EQ(Error::getMessage(responses[2]), "The server stops and takes no more commands");
    controller.processCommands(); // stopped before it is entered
    EXPECT_FALSE(controller.hasQueuedCommands());
}

TEST_F(ControllerTest, ThreadedCommandsRunBesideTheMainThread) {
    Semaphore entered, leave;
    const auto runBeside = [&](const Properties&, Properties& response) {
        response.set("done", !MessagingGate::isOpen() && !Thread::isMain());
        entered.post();
        leave.wait();
    };
    add("Beside", runBeside, true);
    add("Main", [&](const Properties&, Properties&) {
        entered.wait();
        EXPECT_EQ(controller.getRunningCommand()->name, "Main");
        leave.post();
    });
    queue("Beside");
    queue("Main");
    while (responses.size() < 2)
        controller.processQueuedCommands();
    EXPECT_EQ(responses[0].getString("Command"), "Main"); // the threaded one held nobody up
    EXPECT_TRUE(responses[1].getBool("done"));
    EXPECT_EQ(log, "sgf"); // the threaded one wasn't distributed

    queue("Beside"); // the end of the loop waits for it
    std::thread helper([&] {
        entered.wait();
        EXPECT_EQ(controller.getRunningCommand()->name, "Beside");
        controller.stopProcessing();
        leave.post();
    });
    controller.processCommands();
    helper.join();
    EXPECT_EQ(responses.size(), 3u);
}

TEST_F(ControllerTest, WithoutThreadsALocalCommandLocksMessagingOut) {
    MessagingGate::noteMainThread();
    bool wasLocked = false;
    const auto note = [&](const Properties&, Properties&) {
        wasLocked = Controller::isSerialCritical() && MessagingGate::has(MessagingGate::LOCAL_COMMAND) &&
                    Thread::isMain();
        throw std::runtime_error("and the lock is lifted all the same");
    };
    add("Local", note, true);
    controller.setThreadedCommands(false);
    queue("Local");
    controller.processQueuedCommands();
    EXPECT_TRUE(wasLocked);
    EXPECT_FALSE(Controller::isSerialCritical());
    EXPECT_TRUE(MessagingGate::isOpen());
    EXPECT_EQ(log, "f");
    run("Local"); // executed as such, it is a command like any other
    EXPECT_FALSE(wasLocked);
}

TEST_F(ControllerTest, TheLockIsHeldWhileACommandRuns) {
    bool taken = true;
    const auto tryFromOutside = [&] {
        std::thread([&] {
            taken = controller.getLock().tryLock();
            if (taken)
                controller.getLock().unlock();
        }).join();
    };
    add("Work", [&](const Properties&, Properties&) {
        const Lock again(controller.getLock()); // the command itself may take it
        tryFromOutside();
    });
    run("Work");
    EXPECT_FALSE(taken);
    tryFromOutside();
    EXPECT_TRUE(taken);
    std::thread([&] { EXPECT_THROW(run("Work"), InternalError); }).join();
}

TEST_F(ControllerTest, AForkedChildThatComesBackEnds) {
    pid_t child = -1;
    add("Fork", [&](const Properties&, Properties&) { child = ::fork(); });
    run("Fork");
    if (child == 0)
        ::_exit(77); // it came back
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 1);
}
