#pragma once

#include "platform/PlatformExport.h"

#include <string>

namespace Platform {

/// The work of a thread of this process or of another one on this host, as the system tells it. Local, any
/// thread.
class ORVEX_PLATFORM_EXPORT ThreadState {
public:
    enum State {
        RUNS,    ///< on a processor, or ready for one
        SLEEPS,  ///< waits for a lock, a message, a timer
        STOPPED, ///< by a signal
        TRACED,  ///< by a debugger
        DISK,    ///< waits for a device or a file server, and can't be interrupted
        DEAD     ///< gone, or its number belongs to another process now
    };
    static const char* nameOf(State state);
    /// The state behind the letter of the system's process pages.
    static State toState(char letter);

    struct Look {
        State state = DEAD;
        double processorShare = 0.0; ///< of one processor, while it was looked at
        double waitShare = 0.0;      ///< of that time, ready and without a processor
        std::string waitsIn = {};    ///< the place in the kernel where it sleeps, empty when it isn't told
    };

    /// Looks twice, `seconds` apart.
    /// @param startStamp  of the process, see getStartStamp(); 0: whatever process has the number
    static Look look(int process, int thread, unsigned long long startStamp = 0, double seconds = 0.05);
    /// Tells two processes with the same number apart: the time of the start, in ticks of the system. 0 when
    /// there is no such process.
    static unsigned long long getStartStamp(int process);
};

} // namespace Platform
