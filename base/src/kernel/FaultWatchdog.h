#pragma once

#include <atomic>
#include <thread>

/// Ends the process when the handling of a fault doesn't come to an end: a fault may strike anywhere, also
/// where the heap's lock is held that the handling needs. Private to the kernel.
class FaultWatchdog {
public:
    FaultWatchdog();
    FaultWatchdog(const FaultWatchdog&) = delete;
    FaultWatchdog& operator=(const FaultWatchdog&) = delete;
    /// Stops.
    ~FaultWatchdog();

    /// Starts the thread that watches; it sleeps until armed.
    void start();
    void stop();

    /// From now on `limit` seconds are left until disarm(). Nested calls count, and the latest end of them
    /// all holds. Allowed in the handler of a fault.
    void arm(int signal, double limit);
    /// From now on at least `limit` seconds are left until disarm(). While armed.
    void extend(double limit);
    void disarm();

private:
    void watch();

    std::thread _thread;
    int _owner = 0; ///< the process that started it
    std::atomic<bool> _stopped{false};
    std::atomic<int> _signal{0};
    std::atomic<double> _end{0.0}; ///< of the time left, as Platform::time() counts
    std::atomic<int> _armed{0};
    /// Changes whenever the thread has something to look at. What it waits on, without a lock.
    std::atomic<int> _bell{0};
};
