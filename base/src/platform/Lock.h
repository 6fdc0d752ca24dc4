#pragma once

#include "platform/Mutex.h"

/// Holds a Mutex for a scope.
class Lock {
public:
    explicit Lock(Mutex& mutex) : _mutex(mutex) { _mutex.lock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() { _mutex.unlock(); }

private:
    Mutex& _mutex;
};
