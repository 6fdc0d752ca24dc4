#pragma once

#include "platform/PlatformExport.h"

#include <condition_variable>
#include <mutex>

/// A count that waiters take from and others add to. Any thread.
class ORVEX_PLATFORM_EXPORT Semaphore {
public:
    explicit Semaphore(unsigned count = 0);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    ~Semaphore();

    /// Adds one, which lets one waiter go.
    void post();
    /// Takes one, waiting for it without limit.
    void wait();
    /// Takes one if there is one within `seconds`. @return false when the time is up
    bool wait(double seconds);
    /// Takes one if there is one now.
    bool tryWait();

private:
    std::mutex _mutex;
    std::condition_variable _posted;
    unsigned _count;
};
