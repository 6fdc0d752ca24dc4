// Commands that fail, wait, print and crash on chosen ranks, so that tests see from outside how a server
// takes it.

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"
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

[[noreturn]] void refuseKind(const std::string& kind) {
    raise(InputError("\"kind\" can't be \"" + kind + "\""));
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
                 "recoverable (the default), input, system, floatingPoint, nonRecoverable, internal, "
                 "standard, unknown, empty (without a message) or null (of what())",
                 false},
                {"message", "text", "its message, to which the rank is added", false}},
               {}}) {}
    std::string getName() const override { return "TestFail"; }
    void execute(const Properties& args) override {
        const std::string kind = args.getOr("kind", "recoverable");
        const std::string message =
            args.getOr("message", "A test failed") + " on rank " + std::to_string(Machine::getPartitionId());
        if (isChosen(args))
            fail(kind, message);
    }

private:
    [[noreturn]] static void fail(const std::string& kind, const std::string& message) {
        if (kind == "recoverable")
            raise(RecoverableError(message));
        if (kind == "input")
            raise(InputError(message));
        if (kind == "system")
            raise(SystemError(message));
        if (kind == "floatingPoint")
            raise(FloatingPointError(message));
        if (kind == "nonRecoverable")
            raise(NonRecoverableError(message));
        if (kind == "internal")
            raiseInternalError(message, "false", __FILE__, __LINE__);
        if (kind == "standard")
            throw std::runtime_error(message);
        if (kind == "unknown")
            throw 42;
        if (kind == "empty")
            raise(InputError(""));
        if (kind == "null")
            throw Silent();
        refuseKind(kind);
    }
};

class TestCrash : public NoResultCommand {
public:
    using NoResultCommand::execute;
    TestCrash()
        : NoResultCommand({"Crashes.",
                           {ranksKey(),
                            {"kind", "text",
                             "segmentation (the default), raise, kill, abort, terminate, thread, overflow, "
                             "deepThread, heap, leave, "
                             "quick, exit or linger (when the process exits)",
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
    static void crash(const std::string& kind) {
        if (kind == "segmentation") {
            int* volatile nowhere = nullptr;
            *nowhere = 1;
        } else if (kind == "raise") {
            std::raise(SIGSEGV);
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
        } else if (kind == "exit") {
            constexpr int STATUS = 5;
            std::_Exit(STATUS);
        } else {
            refuseKind(kind);
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

class TestSynchronise : public NoResultCommand {
public:
    using NoResultCommand::execute;
    TestSynchronise()
        : NoResultCommand(
              {"Synchronises all ranks, which none leaves when one of them stays away.",
               {{"failing", "vector of unsigned", "ranks that raise a non-recoverable error instead", false},
                {"absent", "vector of unsigned", "ranks that return at once", false}},
               {}}) {}
    std::string getName() const override { return "TestSynchronise"; }
    void execute(const Properties& args) override {
        if (holdsThisRank(args, "failing"))
            raise(NonRecoverableError("A test left the others alone on rank " +
                                      std::to_string(Machine::getPartitionId())));
        if (Machine::isParallel() && !holdsThisRank(args, "absent"))
            Machine::globalCommunicator().synchronise();
    }

private:
    static bool holdsThisRank(const Properties& args, const char* key) {
        const std::vector<unsigned> ranks = args.getOr(key, std::vector<unsigned>());
        return std::find(ranks.begin(), ranks.end(), Machine::getPartitionId()) != ranks.end();
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
        if (Machine::isSerial() || Machine::isMaster())
            std::cout << "Restored " << StringHelper::toString(name) << std::endl;
    }
};

} // namespace

ORVEX_MODULE_ENTRY() {
    Controller& controller = Controller::getSingleton();
    controller.registerCommand(new TestFail);
    controller.registerCommand(new TestCrash);
    controller.registerCommand(new TestWait);
    controller.registerCommand(new TestPrint);
    controller.registerCommand(new TestDivideByZero);
    controller.registerCommand(new TestSynchronise);
    controller.registerCommand(new TestEcho);
    controller.registerCommand(new RestoreState);
}
