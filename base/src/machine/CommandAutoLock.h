#pragma once

#include "machine/MachineExport.h"

class Mutex;

/// Keeps the Controller of a serial or master process from working while it lives: for other threads than the
/// main one. On a worker, which has no such threads, it does nothing. Doesn't nest.
class ORVEX_MACHINE_EXPORT CommandAutoLock {
public:
    CommandAutoLock();
    ~CommandAutoLock();
    CommandAutoLock(const CommandAutoLock&) = delete;
    /// Takes over which lock is meant, without acquiring or releasing any.
    CommandAutoLock& operator=(const CommandAutoLock& other);

private:
    Mutex* _lock = nullptr;
};
