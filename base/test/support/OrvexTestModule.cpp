// Commands that fail, wait, print and crash on chosen ranks, so that tests see from outside how a server
// takes it.

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MachineLocks.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

CommandKey ranksKey() {
    return {"ranks", "vector of unsigned", "where it happens; all ranks by default", false};
}

CommandKey secondsKey(const char* meaning) {
    return {"seconds", "real", meaning, false};
}

/// Whether this rank is one of "ranks".
bool isChosen(const Properties& args) {
    const std::vector<unsigned> ranks = args.getOr("ranks", std::vector{Machine::getPartitionId()});
    return std::find(ranks.begin(), ranks.end(), Machine::getPartitionId()) != ranks.end();
}

struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

class TestFail : public NoResultCommand {
public:
    using NoResultCommand::execute;
    TestFail()
        : NoResultCommand(
              {"Raises an error.",
               {ranksKey(),
                {"kind", "text",
                 "internal, empty (without a message) or null (of what()); recoverable by default", false}},
               {}}) {}
    std::string getName() const override { return "TestFail"; }
    void execute(const Properties& args) override {
        if (isChosen(args))
            fail(args.getOr("kind", "recoverable"),
                 "A test failed on rank " + std::to_string(Machine::getPartitionId()));
    }

private:
    [[noreturn]] static void fail(const std::string& kind, const std::string& message) {
        if (kind == "internal")
            raiseInternalError(message, "false", __FILE__, __LINE__);
        if (kind == "empty")
            raise(InputError(""));
        if (kind == "null")
            throw Silent();
        raise(RecoverableError(message));
    }
};

class TestCrash : public NoResultCommand {
public:
    using NoResultCommand::execute;
    TestCrash()
        : NoResultCommand(
              {"Crashes.",
               {ranksKey(),
                {"kind", "text",
                 "segmentation (the default), kill, abort, terminate, thread, overflow, deepThread, heap, "
                 "leave, quick or linger (when the process exits)",
                 false}},
               {}}) {}
    std::string getName() const override { return "TestCrash"; }
    void execute(const Properties& args) override {
        const std::string kind = args.getOr("kind", "segmentation");
        if (isChosen(args))
            crash(kind);
    }

private:
    [[gnu::noinline]] static int recurse(int depth) {
        volatile char frame[1000] = {};
        frame[static_cast<std::size_t>(depth) % sizeof frame] = 1;
        return depth < 0 ? 0 : recurse(depth + 1) + frame[0];
    }
    /// Writes over what the C library keeps around its blocks, and lets it look.
    static void breakHeap() {
        const volatile std::ptrdiff_t end = 4096;
        volatile char* volatile block = new char[16];
        for (std::ptrdiff_t i = -16; i < end; ++i)
            block[i] = 7;
        delete[] block;
    }
    [[gnu::no_sanitize("undefined")]] static void crash(const std::string& kind) {
        if (kind == "segmentation") {
            // Its end never comes: the fault lifts the lock.
            [[maybe_unused]] static const auto* const region = new Machine::SerialCritical;
            volatile int* volatile nowhere = nullptr;
            *nowhere = 1;
        } else if (kind == "kill") {
            std::raise(SIGKILL);
        } else if (kind == "abort") {
            std::abort();
        } else if (kind == "terminate") {
            std::terminate();
        } else if (kind == "thread") {
            std::thread([] { throw std::runtime_error("lost in a thread"); }).join();
        } else if (kind == "deepThread") {
            std::thread([] { static_cast<void>(recurse(1)); }).join();
        } else if (kind == "overflow") {
            static_cast<void>(recurse(1));
        } else if (kind == "heap") {
            breakHeap();
        } else if (kind == "leave") {
            std::exit(0);
        } else if (kind == "quick") {
            std::quick_exit(0);
        } else if (kind == "linger") {
            std::atexit([] { Platform::time().sleep(1e6); });
        }
    }
};

class TestWait : public NoResultCommand {
public:
    using NoResultCommand::execute;
    TestWait() : NoResultCommand({"Sleeps.", {ranksKey(), secondsKey("how long [s]; 1 by default")}, {}}) {}
    std::string getName() const override { return "TestWait"; }
    void execute(const Properties& args) override {
        if (isChosen(args))
            Platform::time().sleep(args.getOr("seconds", 1.0));
    }
};

class TestPrint : public NoResultCommand {
public:
    using NoResultCommand::execute;
    TestPrint()
        : NoResultCommand(
              {"Prints lines on the standard output.",
               {ranksKey(),
                {"lines", "unsigned", "how many; 1 by default", false},
                {"text", "text", "what stands before the number of the line; \"line\" by default", false},
                secondsKey("time that it all takes [s]; 0 by default")},
               {}}) {}
    std::string getName() const override { return "TestPrint"; }
    void execute(const Properties& args) override {
        if (!isChosen(args))
            return;
        const unsigned lines = args.getOr("lines", 1u);
        const std::string text = args.getOr("text", "line");
        const double pause = lines > 1 ? args.getOr("seconds", 0.0) / (lines - 1) : 0.0;
        for (unsigned line = 0; line < lines; ++line) {
            if (line > 0 && pause > 0.0)
                Platform::time().sleep(pause);
            std::cout << text << ' ' << line << std::endl;
        }
    }
};

class TestDivideByZero : public Command {
public:
    TestDivideByZero() : Command({"Divides by zero.", {ranksKey()}, {{"x", "real", "the quotient"}}}) {}
    std::string getName() const override { return "TestDivideByZero"; }
    void execute(const Properties& args, Properties& response) override {
        volatile double divisor = isChosen(args) ? 0.0 : 1.0;
        const double x = 2.0 / divisor;
        response.set("x", x);
    }
};

class TestEcho : public QueryCommand {
public:
    TestEcho()
        : QueryCommand({"Answers with its arguments.",
                        {{CommandKey::ANY, "any", "what to answer", false}},
                        {{CommandKey::ANY, "any", "the arguments"}}}) {}
    std::string getName() const override { return "TestEcho"; }
    void execute(const Properties& args, Properties& response) override {
        response.merge(args);
        response.remove(COMMAND_TAG);
    }
};

/// Stands for the command of a solver module that reads a simulation file: a text file whose first line must
/// be "simulation".
class RestoreState : public NoResultCommand {
public:
    using NoResultCommand::execute;
    RestoreState()
        : NoResultCommand({"Restores a simulation.", {{"filename", "text", "the simulation file"}}, {}}) {}
    std::string getName() const override { return "RestoreState"; }
    void execute(const Properties& args) override {
        constexpr std::size_t MAX_SIZE = 1u << 20;
        const std::wstring name = args.getOrvexString("filename");
        std::string content;
        if (!Platform::filesystem().readFile(name, content, MAX_SIZE))
            raise(InputError("There is no simulation file \"" + StringHelper::toString(name) + "\""));
        if (content.substr(0, content.find('\n')) != "simulation")
            raise(InputError("\"" + StringHelper::toString(name) + "\" is no simulation file"));
        if (Machine::isSerialOrMaster())
            std::cout << "Restored " << StringHelper::toString(name) << std::endl;
    }
};

/// Tells that the process comes to its end in order. A worker is silent by then.
class ExitTeller : public Machine::OnExitObserver {
public:
    void update(Properties&) override {
        std::cerr << "Exit of rank " + std::to_string(Machine::getPartitionId()) + '\n';
    }
};

} // namespace

ORVEX_MODULE_ENTRY() {
    static ExitTeller exitTeller;
    Machine::getSingleton().getOnExitObservable().attach(exitTeller);
    Controller& controller = Controller::getSingleton();
    controller.registerCommand(new TestFail);
    controller.registerCommand(new TestCrash);
    controller.registerCommand(new TestWait);
    controller.registerCommand(new TestPrint);
    controller.registerCommand(new TestDivideByZero);
    controller.registerCommand(new TestEcho);
    controller.registerCommand(new RestoreState);
}
