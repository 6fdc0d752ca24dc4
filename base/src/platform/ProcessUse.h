#pragma once

#include "platform/PlatformExport.h"
#include "platform/ThreadState.h"

namespace Platform {

/// The use that a process of this host makes of it at a moment. Reading takes a few microseconds and doesn't
/// disturb the process. Local, any thread.
struct ORVEX_PLATFORM_EXPORT ProcessUse {
    ThreadState::State state = ThreadState::DEAD; ///< of the main thread
    double processorSeconds = 0.0;                ///< of all threads since it began
    long long memory = 0;                         ///< [bytes] resident
    unsigned long long startStamp = 0;            ///< tells it from another process of that number

    /// @param startStamp  of the process, 0: whatever process has the number
    static ProcessUse read(int pid, unsigned long long startStamp = 0);
};

/// The use that all processes make of this host. [bytes]; a value that the system doesn't tell is 0.
struct ORVEX_PLATFORM_EXPORT HostUse {
    double load = 0.0; ///< threads that run or want to, the mean over a minute
    unsigned processors = 0;
    long long memory = 0;
    long long freeMemory = 0; ///< that processes can still get

    static HostUse read();
};

} // namespace Platform
