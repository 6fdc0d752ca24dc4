#pragma once

#include "machine/MachineExport.h"

#include <vector>

/// The steps of the start of this process with their times. Main thread.
class ORVEX_MACHINE_EXPORT StartTimeline {
public:
    struct Step {
        const char* name;     ///< in words for people, in static memory
        double begin = 0.0;   ///< [s] since the first step began
        double seconds = 0.0; ///< 0 while it isn't over
    };

    /// The start has come to this step; the one before is over. Ignored behind end().
    static void enter(const char* name);
    /// The start is over; a second call has no effect.
    static void end();
    static const std::vector<Step>& getSteps() { return _steps; }

private:
    static void close(double now);

    static std::vector<Step> _steps;
    static double _zero; ///< [s] of the system's steady clock
    static bool _isOver;
};
