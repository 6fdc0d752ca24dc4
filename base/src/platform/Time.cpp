#include "platform/Time.h"

#include <cerrno>
#include <ctime>
#include <limits>

namespace Platform {

namespace {

constexpr std::int64_t NANOSECONDS = 1'000'000'000;

/// The system's clocks fail for a wrong number only, which these aren't.
std::int64_t readClock(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * NANOSECONDS + now.tv_nsec;
}

double toSeconds(std::int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) * 1e-9;
}

class SystemWallTimer : public WallTimer {
public:
    std::unique_ptr<WallTimer> clone() const override { return std::make_unique<SystemWallTimer>(*this); }
    double resolution() const override {
        timespec step{};
        ::clock_getres(CLOCK_MONOTONIC, &step);
        return toSeconds(std::int64_t{step.tv_sec} * NANOSECONDS + step.tv_nsec);
    }
    int start() override {
        const int result = running ? 1 : 0;
        _start = readClock(CLOCK_MONOTONIC);
        running = true;
        return result;
    }
    int stop() override {
        const int result = running ? 0 : 1;
        _start = 0;
        running = false;
        return result;
    }
    int getElapsedTime(double& dt) const override {
        if (!running)
            return 1;
        dt = toSeconds(readClock(CLOCK_MONOTONIC) - _start);
        return 0;
    }

private:
    std::int64_t _start = 0;
};

} // namespace

double Time::getTime() const {
    return toSeconds(readClock(CLOCK_MONOTONIC));
}

double Time::getSecondsSinceEpoch() const {
    return toSeconds(readClock(CLOCK_REALTIME));
}

std::string Time::getAscTime() const {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[64];
    if (::localtime_r(&now, &local) == nullptr || ::asctime_r(&local, text) == nullptr)
        return "\n";
    return text;
}

std::string Time::formatUtc(const std::string& format) const {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char text[256];
    if (::gmtime_r(&now, &utc) == nullptr)
        return {};
    return std::string(text, std::strftime(text, sizeof text, format.c_str(), &utc));
}

void Time::sleep(double seconds) const {
    if (!(seconds > 0.0))
        return;
    constexpr double LONGEST = 1e9; // [s] thirty years; more would leave the range of the clock
    std::int64_t end = readClock(CLOCK_MONOTONIC);
    end += static_cast<std::int64_t>((seconds < LONGEST ? seconds : LONGEST) * 1e9);
    timespec until{};
    until.tv_sec = static_cast<time_t>(end / NANOSECONDS);
    until.tv_nsec = static_cast<long>(end % NANOSECONDS);
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

void Time::sleepMilliseconds(unsigned milliseconds) const {
    sleep(milliseconds * 1e-3);
}

double Time::getProcessorTime() const {
    return toSeconds(readClock(CLOCK_PROCESS_CPUTIME_ID));
}

void Time::stampProcessorTime(ProcessorStamp& stamp) const {
    stamp._nanoseconds = readClock(CLOCK_PROCESS_CPUTIME_ID);
}

double Time::getElapsedProcessorTime(const ProcessorStamp& stamp) const {
    return toSeconds(readClock(CLOCK_PROCESS_CPUTIME_ID) - stamp._nanoseconds);
}

std::unique_ptr<WallTimer> Time::createWallTimer() const {
    return std::make_unique<SystemWallTimer>();
}

Time& time() {
    static Time service;
    return service;
}

} // namespace Platform
