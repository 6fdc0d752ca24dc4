#include "platform/ThreadState.h"

#include "platform/ProcFs.h"
#include "platform/Time.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>

namespace Platform {

namespace {

/// Nanoseconds on a processor, and ready without one, since the thread began.
struct Times {
    double running = 0.0;
    double waiting = 0.0;
};

Times readTimes(const std::string& folder) {
    Times times;
    if (const auto text = ProcFs::readText(folder + "/schedstat", 256)) {
        char* rest = nullptr;
        times.running = std::strtod(text->c_str(), &rest);
        times.waiting = std::strtod(rest, nullptr);
    }
    return times;
}

std::string readPlace(const std::string& folder) {
    const std::string place = ProcFs::readText(folder + "/wchan", 256).value_or("");
    return place == "0" ? std::string() : place;
}

} // namespace

const char* ThreadState::nameOf(State state) {
    switch (state) {
    case RUNS:
        return "runs";
    case SLEEPS:
        return "sleeps";
    case STOPPED:
        return "stopped";
    case TRACED:
        return "traced";
    case DISK:
        return "waits for a device";
    case DEAD:
        break;
    }
    return "dead";
}

ThreadState::State ThreadState::toState(char letter) {
    switch (letter) {
    case 'R':
        return RUNS;
    case 'D':
        return DISK;
    case 'T':
        return STOPPED;
    case 't':
        return TRACED;
    case 'Z':
    case 'X':
    case 'x':
        return DEAD;
    default:
        return SLEEPS;
    }
}

unsigned long long ThreadState::getStartStamp(int process) {
    const std::optional<ProcFs::Stat> stat = ProcFs::readStat(process);
    return stat ? stat->startStamp : 0;
}

ThreadState::Look ThreadState::look(int process, int thread, unsigned long long startStamp, double seconds) {
    using Clock = std::chrono::steady_clock;
    constexpr double NANO = 1e-9;
    const std::string folder = "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread);
    Look look;
    if (startStamp != 0 && getStartStamp(process) != startStamp)
        return look;
    const Clock::time_point start = Clock::now();
    const Times before = readTimes(folder);
    if (seconds > 0.0)
        time().sleep(seconds);
    const Times after = readTimes(folder);
    const double passed = std::chrono::duration<double>(Clock::now() - start).count();
    const std::optional<ProcFs::Stat> stat = ProcFs::readStatAt(folder);
    if (!stat || (startStamp != 0 && getStartStamp(process) != startStamp))
        return look;
    look.state = toState(stat->state);
    if (seconds > 0.0) {
        const auto share = [passed](double from, double to) {
            return std::clamp((to - from) * NANO / passed, 0.0, 1.0);
        };
        look.processorShare = share(before.running, after.running);
        look.waitShare = share(before.waiting, after.waiting);
    }
    look.waitsIn = readPlace(folder);
    return look;
}

} // namespace Platform
