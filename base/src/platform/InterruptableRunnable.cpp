#include "platform/InterruptableRunnable.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

struct InterruptableRunnable::Impl {
    std::atomic<bool> stopRequested{false};
    std::mutex mutex;
    std::condition_variable stopped;
};

InterruptableRunnable::InterruptableRunnable() : _impl(std::make_unique<Impl>()) {}

InterruptableRunnable::~InterruptableRunnable() = default;

void InterruptableRunnable::run() {
    while (!stopRequested())
        runNestedTask();
}

void InterruptableRunnable::stop() {
    {
        const std::lock_guard lock(_impl->mutex);
        _impl->stopRequested = true;
    }
    _impl->stopped.notify_all();
}

void InterruptableRunnable::rearm() {
    _impl->stopRequested = false;
}

bool InterruptableRunnable::stopRequested() const {
    return _impl->stopRequested;
}

bool InterruptableRunnable::sleep(double seconds) {
    constexpr double LONGEST = 1e8; // [s] three years; more would leave the range of the clock
    const auto time = std::chrono::duration<double>(std::clamp(seconds, 0.0, LONGEST));
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(time);
    std::unique_lock lock(_impl->mutex);
    return !_impl->stopped.wait_until(lock, until, [this] { return stopRequested(); });
}
