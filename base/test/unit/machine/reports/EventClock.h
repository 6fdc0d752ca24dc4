#pragma once

#include "machine/Timer.h"

#include "platform/WallTimer.h"

#include <memory>

/// A clock that stands where a test sets it.
class EventClock : public WallTimer {
public:
    explicit EventClock(const double& now) : _now(&now) {}
    /// [s]
    static inline double wall = 0.0;
    static inline double processor = 0.0;
    /// A stopped timer on these clocks.
    static Timer makeTimer() {
        return {std::make_unique<EventClock>(wall), std::make_unique<EventClock>(processor)};
    }
    /// Lets `seconds` pass, half of them with the processor at work.
    static void pass(double seconds) {
        wall += seconds;
        processor += seconds / 2;
    }

    std::unique_ptr<WallTimer> clone() const override { return std::make_unique<EventClock>(*this); }
    double resolution() const override { return 0.0; }
    int start() override {
        _start = *_now;
        running = true;
        return 0;
    }
    int stop() override {
        running = false;
        return 0;
    }
    int getElapsedTime(double& dt) const override {
        dt = *_now - _start;
        return running ? 0 : 1;
    }

private:
    const double* _now;
    double _start = 0.0;
};
