#include "platform/Semaphore.h"

#include <algorithm>
#include <chrono>

Semaphore::Semaphore(unsigned count) : _count(count) {}

Semaphore::~Semaphore() = default;

void Semaphore::post() {
    const std::lock_guard lock(_mutex);
    ++_count;
    _posted.notify_one(); // under the lock: a waiter may destroy the semaphore as soon as it has its one
}

void Semaphore::wait() {
    std::unique_lock lock(_mutex);
    _posted.wait(lock, [this] { return _count > 0; });
    --_count;
}

bool Semaphore::wait(double seconds) {
    constexpr double LONGEST = 1e8; // [s] three years; more would leave the range of the clock
    const auto time = std::chrono::duration<double>(std::clamp(seconds, 0.0, LONGEST));
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(time);
    std::unique_lock lock(_mutex);
    if (!_posted.wait_until(lock, until, [this] { return _count > 0; }))
        return false;
    --_count;
    return true;
}

bool Semaphore::tryWait() {
    const std::lock_guard lock(_mutex);
    if (_count == 0)
        return false;
    --_count;
    return true;
}
