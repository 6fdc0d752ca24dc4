#pragma once

#include "platform/PlatformExport.h"

#include <memory>

/// A stopwatch on one clock. Belongs to one thread.
class ORVEX_PLATFORM_EXPORT WallTimer {
public:
    virtual ~WallTimer();
    /// A new timer with the same running flag and start stamp.
    virtual std::unique_ptr<WallTimer> clone() const = 0;
    /// [s] of the clock
    virtual double resolution() const = 0;
    /// Stamps the current time, also on a running timer. @return 1 if it was running already, else 0
    virtual int start() = 0;
    /// @return 1 if it wasn't running, else 0
    virtual int stop() = 0;
    /// @param dt  [s] since the stamp; left alone when the timer isn't running
    /// @return 0, or 1 when the timer isn't running
    virtual int getElapsedTime(double& dt) const = 0;

    bool isRunning() const { return running; }

protected:
    WallTimer() = default;
    WallTimer(const WallTimer&) = default;
    WallTimer& operator=(const WallTimer&) = default;

    bool running = false;
};
