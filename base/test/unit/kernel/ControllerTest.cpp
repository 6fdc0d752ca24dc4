#include "kernel/Controller.h"

#include "kernel/MessagingGate.h"
#include "kernel/Observer.h"
#include "kernel/Raise.h"
#include "kernel/Subject.h"
#include "platform/Lock.h"
#include "platform/Semaphore.h"
#include "platform/Thread.h"
#include "support/TestCommand.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

/// A command that may run beside others, and fails in the handling of its errors.
struct OddCommand : TestCommand {
    OddCommand(const std::string& name, const Body& body, bool threaded_)
        : TestCommand(name, body), threaded(threaded_) {}
    bool isThreaded(const Properties& args) const override { return threaded && !args.hasName("inline"); }
    void onError(const Properties&, Properties& response) override {
        response.set("seen", Error::getMessage(response));
        throw std::runtime_error("in onError");
    }
    const bool threaded;
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

    void add(const std::string& name, const TestCommand::Body& body, bool threaded = false) {
        controller.registerCommand(new OddCommand(name, body, threaded));
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

TEST_F(ControllerTest, ArgumentsAreCheckedBeforeAnythingElseHappens) {
    const auto takeCall = [&](const Properties&, Properties&) { log += "x"; };
    controller.registerCommand(new TestCommand("Solve", takeCall,
                                               {"Solves.",
                                                {{"nx", "unsigned", "points"},
                                                 {"tolerance", "real", "to reach", false},
                                                 {"weights", "vector of real", "of the points", false}}}));
    controller.registerCommand(new TestCommand("Any", takeCall, {"Any.", {{"*", "any", "all", false}}}));
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

TEST_F(ControllerTest, StopEndsTheLoopAndAnswersTheRest) {
    add("Work", [&](const Properties&, Properties&) {
        std::thread([&] { controller.stopProcessing(); }).join(); // as that which watches signals
        queue("Work");                                            // is refused at once, so it comes first
        EXPECT_EQ(Error::getMessage(responses.at(0)), "The server stops and takes no more commands");
    });
    queue("Work");
    queue("Work");
    controller.processCommands();
    ASSERT_EQ(responses.size(), 3u);
    EXPECT_EQ(responses[1].toString(), "{\"Command\":\"Work\"}");
    EXPECT_EQ(lastStatus, Controller::Outcome::STOPPING);
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
    const auto isFree = [&] {
        return std::async([&] {
                   const bool taken = controller.getLock().tryLock();
                   return taken && (controller.getLock().unlock(), true);
               })
            .get();
    };
    add("Work", [&](const Properties&, Properties&) {
        const Lock again(controller.getLock()); // the command itself may take it
        EXPECT_FALSE(isFree());
    });
    run("Work");
    EXPECT_TRUE(isFree());
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
