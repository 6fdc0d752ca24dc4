#pragma once

#include "machine/MachineExport.h"

/// Interface of the optional recorder that counts and times the operations of all communicators.
///
/// One recorder is installed at a time. Communicator tells it each operation's name (a static text, such as
/// "Communicator::Send") and its size; while none is installed, that costs nothing. Main thread.
class ORVEX_MACHINE_EXPORT CommunicatorStatistics {
public:
    enum Kind { GLOBAL, POINT_TO_POINT };

    virtual ~CommunicatorStatistics();

    /// An operation begins.
    /// @param bytes  of this rank's buffer, in 32 bits
    /// @return what close() gets back; null: this operation isn't counted, and close() isn't called
    virtual void* open(Kind kind, const char* name, unsigned bytes) = 0;
    /// The operation is over, or an exception passes (then with partner 0). Also called for an operation that
    /// began before another recorder was installed.
    /// @param partner  the rank at the other end of a POINT_TO_POINT operation, else 0
    virtual void close(Kind kind, void* event, unsigned partner) noexcept = 0;

    /// Installs `statistics` (null: none) and returns the one before it. It stays the caller's.
    static CommunicatorStatistics* install(CommunicatorStatistics* statistics);
    static CommunicatorStatistics* getInstalled() { return _installed; }

private:
    static CommunicatorStatistics* _installed;
};
