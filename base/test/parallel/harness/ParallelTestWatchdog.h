#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

/// Ends the process when a step of the run takes too long, and says which step it was.
class ParallelTestWatchdog {
public:
    /// Once they are known.
    void setRank(int rank, int size) {
        const std::lock_guard lock(_mutex);
        _who = "rank " + std::to_string(rank) + " of " + std::to_string(size);
    }
    /// From now on `step` has `seconds`.
    void begin(const std::string& step, double seconds) {
        const std::lock_guard lock(_mutex);
        _step = step;
        _state = "is still inside";
        _failures.clear();
        _seconds = seconds;
        _end = Clock::now() +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        _changed.notify_all();
    }
    /// Place of the process within the step, and its failures so far.
    void setState(const std::string& state) {
        const std::lock_guard lock(_mutex);
        _state = state;
    }
    void addFailure(const std::string& failure) {
        const std::lock_guard lock(_mutex);
        _failures += failure;
    }

private:
    using Clock = std::chrono::steady_clock;

    void watch(const std::stop_token& stop) {
        std::unique_lock lock(_mutex);
        while (!stop.stop_requested()) {
            const Clock::time_point end = _end;
            _changed.wait_until(lock, stop, end, [&] { return _end != end; });
            if (Clock::now() >= _end)
                endProcess();
        }
    }
    [[noreturn]] void endProcess() const {
        std::fprintf(stderr, "[ TIMEOUT  ] %s: %s didn't end within %g s; this rank %s\n%s", _who.c_str(),
                     _step.c_str(), _seconds, _state.c_str(), _failures.c_str());
        // The first process that ends takes the job with it, so it waits for the others' texts.
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        std::_Exit(86);
    }

    std::mutex _mutex;
    std::condition_variable_any _changed;
    std::string _who = "a rank";
    std::string _step;
    std::string _state;
    std::string _failures;
    double _seconds = 0.0;
    Clock::time_point _end = Clock::now() + std::chrono::hours(24);
    std::jthread _thread{[this](const std::stop_token& stop) { watch(stop); }};
};
