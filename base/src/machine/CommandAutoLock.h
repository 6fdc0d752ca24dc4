#pragma once

#include "machine/MachineExport.h"

class Mutex;

/// Holds the Controller's lock for a scope, so that no command runs. For threads other than the main thread
/// of a serial or master process. On a worker, which has no such threads, it does nothing. Doesn't nest.
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
