#pragma once

#include "platform/PlatformExport.h"

#include <mutex>

/// A lock that the thread which holds it may take again; it is free when released as often.
class ORVEX_PLATFORM_EXPORT Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    ~Mutex() = default;

    void lock() { _mutex.lock(); }
    bool tryLock() { return _mutex.try_lock(); }
    void unlock() { _mutex.unlock(); }

private:
    std::recursive_mutex _mutex;
};
