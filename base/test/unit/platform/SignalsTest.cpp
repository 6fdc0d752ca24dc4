#include "platform/Signals.h"

#include "platform/Semaphore.h"

#include <gtest/gtest.h>

#include <csignal>
#include <system_error>
#include <thread>

namespace {

using Platform::Signals;
Signals& signals = Platform::signals();

} // namespace

TEST(Signals, WatchedSignalsComeOnAThreadOfTheirOwn) {
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGUSR1, &ignored, nullptr), 0);

    Semaphore told;
    int last = 0;
    const auto tell = [&, main = std::this_thread::get_id()](int signal, int sender) {
        EXPECT_NE(std::this_thread::get_id(), main);
        EXPECT_EQ(sender, getpid());
        last = signal;
        told.post();
    };
    for (int round = 0; round < 2; ++round) { // a watch may follow a watch that ended
        signals.watch({SIGUSR1, SIGUSR2, Signals::TERMINATE}, [](int, int) { FAIL() << "replaced"; });
        signals.watch({SIGUSR1, SIGUSR2, Signals::TERMINATE}, tell);
        for (const int signal : {SIGUSR1, SIGTERM, SIGUSR2}) {
            ASSERT_EQ(::raise(signal), 0);
            ASSERT_TRUE(told.wait(10.0));
            EXPECT_EQ(last, signal);
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

TEST(Signals, NamesSignalsAndTheirReasons) {
    EXPECT_EQ(Signals::getName(SIGTERM), "SIGTERM");
    EXPECT_EQ(Signals::getName(99), "signal 99");
    for (const auto& [signal, code, text] :
         {std::tuple<int, int, const char*>(SIGSEGV, SEGV_MAPERR, "Segmentation fault: address not mapped"),
          {SIGSEGV, SEGV_ACCERR, "Segmentation fault: no permission for the address"},
          {SIGSEGV, SI_USER, "Segmentation fault: sent by a process"},
          {SIGBUS, BUS_ADRERR, "Bus error: no memory behind the address"},
          {SIGFPE, FPE_INTDIV, "Floating point exception: integer division by zero"},
          {SIGFPE, FPE_FLTINV, "Floating point exception: invalid operation"},
          {SIGILL, ILL_ILLOPC, "Illegal instruction"}})
        EXPECT_EQ(Signals::getFaultText(signal, code), text);
}
