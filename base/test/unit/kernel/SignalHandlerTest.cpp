#include "kernel/SignalHandler.h"

#include "kernel/Controller.h"
#include "kernel/Observer.h"
#include "kernel/Raise.h"
#include "kernel/Subject.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "support/TestCommand.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <future>
#include <thread>

namespace {

volatile int* volatile nowhere = reinterpret_cast<int*>(16);
volatile double zero = 0.0;
volatile double quotient = 0.0;

__attribute__((noinline, no_sanitize("address", "undefined"))) void touchNowhere() {
    *nowhere = 1;
}
__attribute__((noinline, no_sanitize("undefined"))) void divide(double x) {
    quotient = x / zero;
}

// A compiler that believes that a memory access or a division never throws would leave out the handlers of a
// direct call.
void (*volatile fault)() = touchNowhere;
void (*volatile trap)(double) = divide;

struct FaultObserver : Observer {
    void update(Properties& properties) override { last = properties; }
    Properties last;
};

/// Runs a command with this body; its response.
Properties runFaulty(const std::function<void()>& body) {
    Controller::reset();
    Controller::getSingleton().registerCommand(
        new TestCommand("Faulty", [body](const Properties&, Properties&) { body(); }));
    Properties command, response;
    command.set(Command::COMMAND_TAG, "Faulty");
    Controller::getSingleton().executeCommand(command, response);
    Controller::reset();
    return response;
}

/// The thread sanitizer stands between a signal and its thread: no error passes there.
struct SignalHandlerTest : testing::Test {
    void SetUp() override {
        if (!ORVEX_PASSES_FAULTS)
            GTEST_SKIP();
    }
};

} // namespace

TEST_F(SignalHandlerTest, AFaultInACommandIsItsError) {
    for (const int ignored : {SIGPIPE, SIGXFSZ}) // whatever started the test
        std::signal(ignored, SIG_DFL);
    SignalHandler::install();
    for (const int ignored : {SIGPIPE, SIGXFSZ})
        std::raise(ignored);
    for (int round = 0; round < 3; ++round) {
        const Properties response = runFaulty(touchNowhere);
        EXPECT_EQ(Error::getMessage(response), "Segmentation fault: address not mapped");
        EXPECT_TRUE(NonRecoverableError::isNonRecoverableErrorIn(response));
        EXPECT_EQ(response.getString("Signal"), "SIGSEGV");
        EXPECT_NE(response.getString(Error::STACK_TRACE_TAG).find("touchNowhere"), std::string::npos);
    }

    FaultObserver observer;
    Controller::getSingleton().getSignalRaisedObservable().attach(observer);
    static int announced = 0;
    const RaiseHook before = setRaiseHook([](Error& error) {
        ++announced;
        EXPECT_EQ(error.getProperties().getString("Address"), "0x10");
        EXPECT_NE(error.getProperties().getString(Error::STACK_TRACE_TAG).find("touchNowhere"),
                  std::string::npos);
    });
    std::thread([&] { EXPECT_THROW(fault(), NonRecoverableError); }).join(); // that thread's error
    setRaiseHook(before);
    EXPECT_EQ(announced, 1);
    EXPECT_EQ(observer.last.getString(Error::MESSAGE_TAG), "Segmentation fault: address not mapped");
    Controller::reset();
    SignalHandler::uninstall();
}

TEST_F(SignalHandlerTest, TrapsAreOnWhenAskedFor) {
    EXPECT_FALSE(Error::isErrorIn(runFaulty([] { divide(1.0); })));
    SignalHandler::setCatchFpeSignals(true);
    for (int round = 0; round < 2; ++round) { // the traps are on again behind a trap
        EXPECT_EQ(Error::getMessage(runFaulty([] { divide(1.0); })),
                  "Floating point exception: division by zero");
        EXPECT_EQ(Error::getMessage(runFaulty([] { divide(0.0); })),
                  "Floating point exception: invalid operation");
    }
    EXPECT_EQ(Error::getMessage(runFaulty(touchNowhere)), "Segmentation fault: address not mapped");
    EXPECT_THROW(trap(1.0), FloatingPointError); // and behind another fault
    SignalHandler::setCatchFpeSignals(false);
    EXPECT_FALSE(Error::isErrorIn(runFaulty([] { divide(1.0); })));
    SignalHandler::uninstall();
}

TEST_F(SignalHandlerTest, WhatCannotPassEndsTheProcess) {
    const struct {
        const wchar_t* how; ///< told by KernelProbe.cpp
        int exitStatus;
        std::vector<const char*> output;
    } rows[] = {
        {L"noexcept", 32, {"Fault where no error can pass: Segmentation fault", "touchNowhere", "aborted"}},
        {L"thread", 32, {"Fault where no error can pass: Segmentation fault", "touchNowhere", "aborted"}},
        {L"observer", 32, {"Fault in the handling of a fault: Segm", "tellObservers", "aborted"}},
        {L"abort", 128 + SIGSEGV, {"Fault in the handling of a fault: Segmentation fault"}},
        {L"hang", 128 + SIGSEGV, {"The handling of a fault came to no end"}},
        {L"hook", 128 + SIGSEGV, {"waits still", "The handling of a fault came to no end"}},
        {L"hookFault", 32, {"Fault in the handling of a fault: Segmentation fault", "aborted"}},
        {L"module", 128 + SIGABRT, {"ThrowingModule.so can't be loaded: an initialiser of its static obj"}},
        {L"sent", 128 + SIGSEGV, {""}}};
    using Result = Platform::Process::RunResult;
    std::vector<std::future<Result>> results; // some wait for a time limit
    for (const auto& row : rows)
        results.push_back(std::async(std::launch::async, [&row] {
            return Platform::process().runCaptured({StringHelper::toWString(ORVEX_KERNEL_PROBE), row.how},
                                                   60.0);
        }));
    auto next = results.begin();
    for (const auto& row : rows) {
        const Result result = next++->get();
        EXPECT_EQ(result.exitStatus, row.exitStatus) << result.output;
        for (const char* text : row.output)
            EXPECT_NE(result.output.find(text), std::string::npos) << text << "\n" << result.output;
    }
}
