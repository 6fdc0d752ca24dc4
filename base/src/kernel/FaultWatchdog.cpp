#include "kernel/FaultWatchdog.h"

#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/Time.h"

#include <cstdlib>
#include <string_view>

FaultWatchdog::FaultWatchdog() = default;

FaultWatchdog::~FaultWatchdog() {
    stop();
}

void FaultWatchdog::start() {
    _stopped = false;
    _owner = Platform::process().getPid();
    _thread = std::thread([this] { watch(); });
}

void FaultWatchdog::stop() {
    if (!_thread.joinable())
        return;
    if (_owner != Platform::process().getPid()) { // a fork has no threads but the one that forked
        _thread.detach();
        return;
    }
    _stopped = true;
    ++_bell;
    _bell.notify_one();
    _thread.join();
}

void FaultWatchdog::arm(int signal, double limit) {
    _signal = signal;
    extend(limit);
    ++_armed; // only now: the thread must not see an end that is over
    ++_bell;
    _bell.notify_one();
}

void FaultWatchdog::extend(double limit) {
    const double end = Platform::time().getTime() + limit;
    double before = _end;
    while (before < end && !_end.compare_exchange_weak(before, end)) {
    }
}

void FaultWatchdog::disarm() {
    --_armed;
}

void FaultWatchdog::watch() {
    constexpr double STEP = 0.02; // [s]
    constexpr std::string_view MESSAGE = "\nThe handling of a fault came to no end: the process ends.\n";
    while (!_stopped) {
        const int bell = _bell;
        if (_armed == 0) {
            _bell.wait(bell);
            continue;
        }
        if (Platform::time().getTime() < _end) {
            Platform::time().sleep(STEP);
            continue;
        }
        if (_armed == 0 || _stopped)
            continue;
        // Nothing is left to do when this can't be written.
        static_cast<void>(Platform::io().write(2, MESSAGE.data(), MESSAGE.size()));
        std::_Exit(128 + _signal);
    }
}
