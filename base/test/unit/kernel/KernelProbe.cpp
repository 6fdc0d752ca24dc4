// Plays the processes that don't live to tell:
//   kernelProbe version      prints what this build is
//   kernelProbe HOW          ends by a fault; HOW is one of the names below

#include "kernel/Controller.h"
#include "kernel/DynamicLoader.h"
#include "kernel/Observer.h"
#include "kernel/OrvexVersion.h"
#include "kernel/SignalHandler.h"
#include "kernel/Subject.h"
#include "platform/Time.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
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
    explicit FaultObserver(bool hang) : hangs(hang) {}
    void update(Properties&) override {
        while (hangs)
            Platform::time().sleep(1.0);
        touchNowhere();
    }
    bool hangs;
};

int writeToClosedPipe() {
    int ends[2];
    if (::pipe(ends) != 0 || ::close(ends[0]) != 0)
        return 1;
    const bool failed = ::write(ends[1], "x", 1) < 0;
    std::cout << (failed ? "no SIGPIPE" : "written") << std::endl;
    return 0;
}

int writeAboveTheLimit() {
    const rlimit none{0, 0};
    std::FILE* file = std::tmpfile();
    if (file == nullptr || ::setrlimit(RLIMIT_FSIZE, &none) != 0)
        return 1;
    const bool failed = ::write(::fileno(file), "x", 1) < 0;
    return ::write(1, failed ? "no SIGXFSZ" : "it's there", 10) == 10 ? 0 : 1; // a pipe has no size
}

int play(const std::string& how) {
    SignalHandler::setAbortCallback([how] {
        if (how == "abort")
            touchNowhere();
        std::cerr << "aborted" << std::endl;
        std::exit(32);
    });
    SignalHandler::install();
    FaultObserver observer(how == "hang");
    if (how == "observer" || how == "abort" || how == "hang")
        Controller::getSingleton().getSignalRaisedObservable().attach(observer);
    if (how == "pipe")
        return writeToClosedPipe();
    if (how == "size")
        return writeAboveTheLimit();
    std::string reason;
    if (how == "module")
        return DynamicLoader::getSingleton().loadNoAssert("OrvexKernelThrowingModule", reason) ? 1 : 2;
    if (how == "sent")
        return ::kill(::getpid(), SIGSEGV);
    if (how == "terminate") {
        std::set_terminate([] {
            std::cerr << "the handler from before" << std::endl;
            std::_Exit(7);
        });
        try {
            touchNowhere();
        } catch (const std::exception&) {
            throw std::runtime_error("not a fault"); // leaves main
        }
    }
    if (how == "thread")
        std::thread(touchNowhere).join();
    touchWithoutExceptions();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string how = argc > 1 ? argv[1] : "";
    if (how != "version")
        return play(how);
    std::cout << OrvexVersion::isDevelopmentVersion() << "|" << OrvexVersion::getVersionedProductName() << "|"
              << OrvexVersion::_releaseNumber << "|" << OrvexVersion::_releaseDate << "|"
              << OrvexVersion::_buildArch << "|" << OrvexVersion::_buildEnv << "|"
              << OrvexVersion::_machineConfig << std::endl;
    return 0;
}
