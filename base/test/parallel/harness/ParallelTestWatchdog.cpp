#include "parallel/harness/ParallelTestWatchdog.h"

#include <cstdio>
#include <cstdlib>

namespace {

/// After its own text a process waits for the others' texts: the first that ends takes the job with it.
constexpr std::chrono::milliseconds TIME_FOR_OTHERS(1500);
constexpr int EXIT_VALUE = 86;

std::chrono::duration<double> toSeconds(double seconds) {
    return std::chrono::duration<double>(seconds);
}

} // namespace

ParallelTestWatchdog::ParallelTestWatchdog() : _begin(Clock::now()), _thread([this] { watch(); }) {}

ParallelTestWatchdog::~ParallelTestWatchdog() {
    {
        const std::lock_guard lock(_mutex);
        _isStopping = true;
    }
    _changed.notify_all();
    _thread.join();
}

void ParallelTestWatchdog::setRank(int rank, int size) {
    const std::lock_guard lock(_mutex);
    _who = "rank " + std::to_string(rank) + " of " + std::to_string(size);
}

void ParallelTestWatchdog::begin(const std::string& step, double seconds) {
    {
        const std::lock_guard lock(_mutex);
        _step = step;
        _state.clear();
        _failures.clear();
        _limit = seconds;
        _begin = Clock::now();
    }
    _changed.notify_all();
}

void ParallelTestWatchdog::setState(const std::string& state) {
    const std::lock_guard lock(_mutex);
    _state = state;
}

void ParallelTestWatchdog::addFailure(const std::string& failure) {
    const std::lock_guard lock(_mutex);
    _failures += failure;
}

void ParallelTestWatchdog::watch() {
    std::unique_lock lock(_mutex);
    while (!_isStopping) {
        if (_limit <= 0.0) {
            _changed.wait(lock);
        } else {
            const auto end = _begin + std::chrono::duration_cast<Clock::duration>(toSeconds(_limit));
            if (Clock::now() >= end)
                endProcess();
            _changed.wait_until(lock, end);
        }
    }
}

void ParallelTestWatchdog::endProcess() {
    std::fprintf(stderr, "[ TIMEOUT  ] %s: %s didn't end within %g s; this rank %s\n%s", _who.c_str(),
                 _step.c_str(), _limit, _state.empty() ? "is still inside" : _state.c_str(),
                 _failures.c_str());
    std::this_thread::sleep_for(TIME_FOR_OTHERS);
    std::_Exit(EXIT_VALUE);
}
