#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

/// Ends the process when a step of the run takes too long, and says which step it was.
class ParallelTestWatchdog {
public:
    ParallelTestWatchdog();
    ~ParallelTestWatchdog();
    ParallelTestWatchdog(const ParallelTestWatchdog&) = delete;
    ParallelTestWatchdog& operator=(const ParallelTestWatchdog&) = delete;

    /// Once they are known.
    void setRank(int rank, int size);
    /// From now on `step` has `seconds`.
    void begin(const std::string& step, double seconds);
    /// Place of the process within the step, and its failures so far.
    void setState(const std::string& state);
    void addFailure(const std::string& failure);

private:
    using Clock = std::chrono::steady_clock;

    void watch();
    [[noreturn]] void endProcess();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::string _who = "a rank";
    std::string _step;
    std::string _state;
    std::string _failures;
    double _limit = 0.0;
    Clock::time_point _begin;
    bool _isStopping = false;
    std::thread _thread;
};
