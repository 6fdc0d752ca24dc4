#include "platform/Signals.h"

#include "platform/Process.h"
#include "platform/Semaphore.h"
#include "platform/StringHelper.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

using Platform::Signals;
Signals& signals = Platform::signals();

struct Fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void throwFault(int signal, int code, void* address) {
    throw Fault(Signals::getFaultText(signal, code) + " " +
                std::to_string(reinterpret_cast<std::uintptr_t>(address)));
}

volatile std::uintptr_t unmapped = 64;

__attribute__((noinline, no_sanitize("address", "undefined", "thread"))) void store(std::uintptr_t address) {
    *reinterpret_cast<volatile int*>(address) = 1;
}

// Through a pointer that may change: no compiler may conclude that the call can't throw.
void (*volatile touch)(std::uintptr_t) = store;

} // namespace

TEST(Signals, WatchedSignalsComeOnAThreadOfTheirOwn) {
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGUSR1, &ignored, nullptr), 0);

    Semaphore told;
    std::thread::id thread;
    int last = 0;
    int lastSender = 0;
    const auto tell = [&](int signal, int sender) {
        thread = std::this_thread::get_id();
        last = signal;
        lastSender = sender;
        told.post();
    };
    for (int round = 0; round < 2; ++round) { // a watch may follow a watch that ended
        signals.watch({SIGUSR1, SIGUSR2, Signals::TERMINATE}, [](int, int) { FAIL() << "replaced"; });
        signals.watch({SIGUSR1, SIGUSR2, Signals::TERMINATE}, tell);
        for (const int signal : {SIGUSR1, SIGTERM, SIGUSR2}) {
            ASSERT_EQ(::raise(signal), 0);
            ASSERT_TRUE(told.wait(10.0));
            EXPECT_EQ(last, signal);
            EXPECT_EQ(lastSender, getpid());
            EXPECT_NE(thread, std::this_thread::get_id());
        }
        signals.unwatch();
        struct sigaction now {};
        ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &now), 0);
        EXPECT_EQ(now.sa_handler, SIG_IGN); // what was there before is there again
        EXPECT_EQ(::raise(SIGUSR1), 0);
        EXPECT_FALSE(told.wait(0.05));
    }
    // A callback may end the watch.
    signals.watch({SIGUSR1}, [&](int signal, int sender) {
        signals.unwatch();
        tell(signal, sender);
    });
    ASSERT_EQ(::raise(SIGUSR1), 0);
    EXPECT_TRUE(told.wait(10.0));
    EXPECT_THROW(signals.watch({SIGKILL}, tell), std::system_error);
    signals.unwatch();
    ::signal(SIGUSR1, SIG_DFL);
}

TEST(Signals, AFaultBecomesAnException) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer stands between the handler and its thread";
#endif
    signals.installFaultHandler({Signals::SEGMENTATION, Signals::BUS_ERROR}, throwFault);
    for (int round = 0; round < 3; ++round) { // the signal isn't left blocked
        try {
            touch(unmapped);
            FAIL() << "no fault";
        } catch (const Fault& fault) {
            EXPECT_STREQ(fault.what(), "Segmentation fault: address not mapped 64");
        }
    }
    signals.restoreDefaults();
    struct sigaction now {};
    ASSERT_EQ(::sigaction(SIGSEGV, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    EXPECT_THROW(signals.installFaultHandler({SIGKILL}, throwFault), std::system_error);
    EXPECT_THROW(signals.installFaultHandler({0}, throwFault), std::system_error);
}

TEST(Signals, AHandlerThatReturnsLeavesTheDefaultCourse) {
    const auto result =
        Platform::process().runCaptured({StringHelper::toWString(ORVEX_PROBE), L"fault"}, 30.0);
    EXPECT_EQ(result.exitStatus, 128 + SIGSEGV);
    EXPECT_EQ(result.output, "told\n"); // once
}

TEST(Signals, Texts) {
    EXPECT_EQ(Signals::getName(SIGTERM), "SIGTERM");
    EXPECT_EQ(Signals::getName(99), "signal 99");
    for (const auto& [signal, code, text] :
         {std::tuple<int, int, const char*>(SIGSEGV, SEGV_MAPERR, "Segmentation fault: address not mapped"),
          {SIGSEGV, SEGV_ACCERR, "Segmentation fault: no permission for the address"},
          {SIGSEGV, SI_USER, "Segmentation fault: sent by a process"},
          {SIGBUS, BUS_ADRERR, "Bus error: no memory behind the address"},
          {SIGFPE, FPE_FLTDIV, "Floating point exception: division by zero"},
          {SIGFPE, FPE_INTDIV, "Floating point exception: integer division by zero"},
          {SIGFPE, FPE_FLTINV, "Floating point exception: invalid operation"},
          {SIGILL, ILL_ILLOPC, "Illegal instruction"}})
        EXPECT_EQ(Signals::getFaultText(signal, code), text);
}
