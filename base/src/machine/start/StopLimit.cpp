#include "machine/start/StopLimit.h"

#include "machine/Machine.h"
#include "machine/start/LastWords.h"

#include "platform/Time.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <string>
#include <system_error>
#include <thread>

namespace {

constexpr int ABORT_LIMIT = 10; // [s]

std::atomic<int> limit{StopLimit::DEFAULT};
std::atomic<int> secondsLeft{std::numeric_limits<int>::max()};
std::atomic<const char*> currentStep{""};
std::atomic<bool> isCounting{false};

[[noreturn]] void endProcess() {
    LastWords::say(std::string("its end came to no end: ") + currentStep.load());
    ExitStatus status = Machine::getSingleton().getExitStatus();
    status += ExitStatus(ExitStatus::SERVER_ERROR);
    std::_Exit(int(status));
}

/// Counts the seconds in which this process can run: a suspended job isn't late.
void count() {
    while (secondsLeft-- > 0)
        Platform::time().sleep(1.0);
    endProcess();
}

void leave(int seconds) {
    for (int before = secondsLeft; before > seconds && !secondsLeft.compare_exchange_weak(before, seconds);) {
    }
    if (isCounting.exchange(true))
        return;
    try {
        std::thread(count).detach();
    } catch (const std::system_error&) {
        isCounting = false; // the system gives no thread: the next step tries again
    }
}

} // namespace

void StopLimit::set(int seconds) {
    limit = seconds;
}

void StopLimit::enter(const char* step) {
    currentStep = step;
    if (limit != NONE)
        leave(limit);
}

void StopLimit::enterAbort() {
    currentStep = "the abort of the job";
    leave(ABORT_LIMIT);
}
