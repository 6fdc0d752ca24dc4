#pragma once

#include "platform/PlatformExport.h"
#include "platform/WallTimer.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Platform {

/// The start of an interval of processor time. Opaque; a value.
class ProcessorStamp {
    friend class Time;
    std::int64_t _nanoseconds = 0;
};

/// Clocks and sleep. Local, any thread.
class ORVEX_PLATFORM_EXPORT Time {
public:
    /// [s] of the wall clock since an arbitrary moment. Never goes back.
    double getTime() const;
    /// [s] since 1970. Jumps when the system's clock is set.
    double getSecondsSinceEpoch() const;
    /// The local time in the form of asctime, with its final newline.
    std::string getAscTime() const;
    /// The time of the world (UTC) in the form of strftime.
    std::string formatUtc(const std::string& format) const;

    /// Sleeps for the whole time, also when signals come. A negative time is none.
    void sleep(double seconds) const;
    void sleepMilliseconds(unsigned milliseconds) const;

    /// Starts an interval of this process's processor time, all its threads together.
    void stampProcessorTime(ProcessorStamp& stamp) const;
    /// [s] that this process has worked so far, all its threads together.
    double getProcessorTime() const;
    /// [s] of processor time since the stamp
    double getElapsedProcessorTime(const ProcessorStamp& stamp) const;

    /// A stopped stopwatch on the system's steady clock.
    std::unique_ptr<WallTimer> createWallTimer() const;
};

/// The one time service of the process.
ORVEX_PLATFORM_EXPORT Time& time();

} // namespace Platform
