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
#include <utility>
#include <vector>

namespace {

/// Whether this rank is one of "ranks".
bool isChosen(const Properties& args) {
    const std::vector<unsigned> ranks = args.getOr("ranks", std::vector{Machine::getPartitionId()});
    return std::find(ranks.begin(), ranks.end(), Machine::getPartitionId()) != ranks.end();
}

struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

/// A command whose body comes from the table below.
class TestCommand : public Command {
public:
    using Body = void (*)(const Properties& args, Properties& response);
    TestCommand(const char* name, CommandHelp help, Body body)
        : Command(std::move(help)), _name(name), _body(body) {}
    std::string getName() const override { return _name; }
    void execute(const Properties& args, Properties& response) override { _body(args, response); }

private:
    const char* _name;
    Body _body;
};

void compute(double seconds) {
    const double end = Platform::time().getTime() + seconds;
    while (Platform::time().getTime() < end) {
    }
}

/// Fails on the chosen ranks; with "wait" the others stand in a collective of all ranks.
void fail(const Properties& args, Properties&) {
    if (!isChosen(args)) {
        if (args.getOr("busy", Machine::nProcesses()) == Machine::getPartitionId())
            compute(args.getOr("seconds", 0.0));
        if (args.getOr("wait", false))
            Machine::globalCommunicator().synchronise();
        return;
    }
    Platform::time().sleep(args.getOr("seconds", 0.0) * Machine::getPartitionId());
    const std::string kind = args.getOr("kind", "recoverable");
    const std::string message = "A test failed on rank " + std::to_string(Machine::getPartitionId());
    if (kind == "twice") // on another thread first, which then waits for the master
        std::thread([] { raiseInternalError("A thread failed", "false", __FILE__, __LINE__); }).detach();
    if (kind == "twice")
        Platform::time().sleep(0.1);
    if (kind == "internal" || kind == "twice")
        raiseInternalError(message, "false", __FILE__, __LINE__);
    if (kind == "empty")
        raise(InputError(""));
    if (kind == "null")
        throw Silent();
    raise(RecoverableError(message));
}

[[gnu::noinline]] int recurse(int depth) {
    volatile char frame[1000] = {};
    frame[static_cast<std::size_t>(depth) % sizeof frame] = 1;
    return depth < 0 ? 0 : recurse(depth + 1) + frame[0];
}
/// Writes over what the C library keeps around its blocks, and lets it look.
void breakHeap() {
    const volatile std::ptrdiff_t end = 4096;
    volatile char* volatile block = new char[16];
    for (std::ptrdiff_t i = -16; i < end; ++i)
        block[i] = 7;
    delete[] block;
}
__attribute__((no_sanitize("undefined"))) void crash(const std::string& kind) {
    if (kind == "segmentation") {
        // Its end never comes: the fault lifts the lock.
        [[maybe_unused]] static const auto* volatile region = new Machine::SerialCritical;
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

void print(const Properties& args, Properties&) {
    const unsigned lines = isChosen(args) ? args.getOr("lines", 1u) : 0;
    for (unsigned line = 0; line < lines; ++line) {
        if (line > 0)
            Platform::time().sleep(args.getOr("seconds", 0.0) / (lines - 1));
        std::cout << args.getOr("text", "line") << ' ' << line << std::endl;
    }
}

/// Stands for the command of a solver module that reads a simulation file: a text file whose first line must
/// be "simulation".
void restoreState(const Properties& args, Properties&) {
    constexpr std::size_t MAX_SIZE = 1u << 20;
    const std::string name = StringHelper::toString(args.getOrvexString("filename"));
    std::string content;
    if (!Platform::filesystem().readFile(args.getOrvexString("filename"), content, MAX_SIZE) ||
        content.substr(0, content.find('\n')) != "simulation")
        raise(InputError("\"" + name + "\" is no simulation file"));
    if (Machine::isSerialOrMaster())
        std::cout << "Restored " << name << std::endl;
}

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
    const CommandKey ranks = {"ranks", "vector of unsigned", "where it happens; all ranks by default", false};
    const CommandKey seconds = {"seconds", "real", "how long it takes [s]", false};
    const auto add = [](const char* name, CommandHelp help, TestCommand::Body body) {
        Controller::getSingleton().registerCommand(new TestCommand(name, std::move(help), body));
    };
    add("TestFail",
        {"Raises an error.",
         {ranks,
          {"kind", "text",
           "internal, twice (on two threads), empty (without a message) or null (of what()); recoverable by "
           "default",
           false},
          {"busy", "unsigned", "another rank, which computes for some seconds first", false},
          {"wait", "bool", "the other ranks stand in a collective; false by default", false},
          {"seconds", "real", "how much later than the rank before it a rank fails [s]", false}}},
        &fail);
    add("TestCrash",
        {"Crashes.",
         {ranks,
          {"kind", "text",
           "segmentation (the default), kill, abort, terminate, thread, overflow, deepThread, heap, leave, "
           "quick "
           "or linger (when the process exits)",
           false}}},
        [](const Properties& args, Properties&) {
            if (isChosen(args))
                crash(args.getOr("kind", "segmentation"));
        });
    add("TestWait", {"Sleeps.", {ranks, seconds}}, [](const Properties& args, Properties&) {
        if (isChosen(args))
            Platform::time().sleep(args.getOr("seconds", 1.0));
    });
    add("TestPrint",
        {"Prints lines on the standard output.",
         {ranks,
          {"lines", "unsigned", "how many; 1 by default", false},
          {"text", "text", "what stands before the number of the line; \"line\" by default", false},
          seconds}},
        &print);
    add("TestEcho",
        {"Answers with its arguments.",
         {{CommandKey::ANY, "any", "what to answer", false}},
         {{CommandKey::ANY, "any", "the arguments"}}},
        [](const Properties& args, Properties& response) {
            response.merge(args);
            response.remove(Command::COMMAND_TAG);
        });
    add("RestoreState", {"Restores a simulation.", {{"filename", "text", "the simulation file"}}},
        &restoreState);
}
