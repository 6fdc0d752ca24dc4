#pragma once

#include "machine/MachineExport.h"
#include "platform/Time.h"

#include <memory>

class Communicator;
class WallTimer;

enum WallTimerType : int {
    DEFAULT_WALL_TIMER = 0, ///< the message layer's clock in a parallel process, else the system's
    SYSTEM_WALL_TIMER = 1
};

/// A stopwatch for one activity: wall-clock and processor time side by side, each running or not by itself,
/// and statistics of both over the ranks of a communicator.
///
/// Times are in seconds: those of the intervals that are over, and that of the running one. Starting a clock
/// that runs begins its interval anew. A value type; belongs to one thread. The collective readers are for
/// the main thread of every rank of the communicator; in a serial process they give the local value.
class ORVEX_MACHINE_EXPORT Timer {
public:
    /// @param communicator  the ranks of the collective readers; null: all processes. Borrowed: it must
    /// outlive the timer and its copies. A serial process doesn't use it
    explicit Timer(Communicator* communicator = nullptr);
    explicit Timer(WallTimerType type, Communicator* communicator = nullptr);
    /// On clocks of the caller's, for example those of a test; both are stopped at first.
    Timer(std::unique_ptr<WallTimer> wallClock, std::unique_ptr<WallTimer> processorClock,
          Communicator* communicator = nullptr);
    Timer(const Timer& other);
    Timer& operator=(const Timer& other);
    ~Timer();

    /// A stopped clock. An unknown type gives the system's, with a line on the standard output.
    static std::unique_ptr<WallTimer> createWallTimer(WallTimerType type);

    void start();
    void startWallTimer();
    void startCpuTimer();
    /// Stopping a stopped clock has no effect.
    /// @throw InternalError "WallTimer error" when the running clock refuses the elapsed time: the
    /// accumulated times and the clock are unchanged then, but stop() has stopped the processor's
    void stop();
    void stopWallTimer();
    void stopCpuTimer();
    /// Stops and forgets all.
    void reset();
    void resetWallTimer();
    void resetCpuTimer();
    /// Overwrites the accumulated times; running intervals go on.
    void setTimes(double cpuTime, double wallTime);

    bool running() const { return cpuTimerRunning() && wallTimerRunning(); }
    bool wallTimerRunning() const;
    bool cpuTimerRunning() const { return _cpuRunning; }

    // ---- Readings. Local; they stop nothing.

    /// @throw InternalError "WallTimer error" as stop() does
    double getWallTime() const;
    double getCpuTime() const;

    // ---- Readings. Collective. @throw InternalError also when a parallel process has no communicator

    double getMaximumWallTime() const;
    double getMaximumCpuTime() const;
    double getMinimumWallTime() const;
    double getMinimumCpuTime() const;
    /// The sum over the ranks.
    double getAccumulatedCpuTime() const;
    /// The sum over the ranks, divided by the number of processes in the whole job.
    double getAverageWallTime() const;
    double getAverageCpuTime() const;
    /// The population's, on the communicator's master; 0 elsewhere and in a serial process.
    double getStandardDeviationWallTime() const;
    double getStandardDeviationCpuTime() const;

private:
    double getElapsedWallTime() const;
    double getElapsedCpuTime() const;
    Communicator& checkCommunicator() const;
    double getMaximum(double value) const;
    double getMinimum(double value) const;
    double getSum(double value) const;
    double getAverage(double value) const;
    double getStandardDeviation(double value) const;

    std::unique_ptr<WallTimer> _wallTimer;
    double _wallTime = 0.0;
    Platform::ProcessorStamp _cpuStamp;
    std::unique_ptr<WallTimer> _cpuTimer; ///< null: the system's processor time
    double _cpuTime = 0.0;
    bool _cpuRunning = false;
    Communicator* _communicator; ///< not owned; null in a serial process
};
