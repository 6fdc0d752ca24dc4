// Plays the processes that don't live to tell:
//   kernelProbe HOW          ends by a fault:
//     noexcept   in a function that lets no exception out: the abort callback ends the process
//     thread     in a thread that nobody guards
//     observer   and an observer faults as well
//     abort      and the abort callback faults as well
//     hang       and an observer never returns
//     hook       and the raise hook never returns
//     hookFault  and the raise hook faults as well
//     module     while a module loads
//     sent       by a signal from outside

#include "kernel/Controller.h"
#include "kernel/DynamicLoader.h"
#include "kernel/Observer.h"
#include "kernel/Raise.h"
#include "kernel/SignalHandler.h"
#include "kernel/Subject.h"
#include "platform/Time.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

volatile int* volatile nowhere = nullptr;

__attribute__((noinline, no_sanitize("address", "undefined"))) void touchNowhere() {
    *nowhere = 1;
}

void touchWithoutExceptions() noexcept {
    touchNowhere();
}

struct FaultObserver : Observer {
    void update(Properties&) override {
        while (hangs)
            Platform::time().sleep(1.0);
        touchNowhere();
    }
    bool hangs = false;
};

int play(const std::string& how) {
    SignalHandler::setAbortCallback([how] {
        if (how == "abort")
            touchNowhere();
        std::cerr << "aborted" << std::endl;
        std::exit(32);
    });
    SignalHandler::install();
    FaultObserver observer;
    observer.hangs = how == "hang";
    if (how == "observer" || how == "abort" || how == "hang")
        Controller::getSingleton().getSignalRaisedObservable().attach(observer);
    constexpr double LIMIT = 1.0, HOOK_LIMIT = 4.0; // [s]
    if (how == "hang" || how == "hook")
        SignalHandler::setTimeLimits(LIMIT, HOOK_LIMIT);
    if (how == "hook")
        setRaiseHook([](Error&) {
            Platform::time().sleep(1.5 * LIMIT);
            std::cerr << "waits still" << std::endl;
            Platform::time().sleep(1e6);
        });
    if (how == "hookFault")
        setRaiseHook([](Error&) { touchNowhere(); });
    std::string reason;
    if (how == "module")
        return DynamicLoader::getSingleton().loadNoAssert("OrvexKernelThrowingModule", reason) ? 1 : 2;
    if (how == "sent")
        return ::kill(::getpid(), SIGSEGV);
    if (how == "thread")
        std::thread(touchNowhere).join();
    touchWithoutExceptions();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    return play(argc > 1 ? argv[1] : "");
}
