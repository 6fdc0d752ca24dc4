#include "platform/TickClock.h"

#include "platform/ProcFs.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

/// The system has found that the counters of all processors run alike, and takes the time from them itself.
bool canReadCounter() {
#if defined(__x86_64__)
    const auto source =
        ProcFs::readText("/sys/devices/system/clocksource/clocksource0/current_clocksource", 64);
    return source && source->starts_with("tsc");
#else
    return false;
#endif
}

/// Both clocks at the same moment, when the library is loaded.
struct Origin {
    std::uint64_t ticks;
    Clock::time_point time;
};

} // namespace

bool Platform::TickClock::_isCounter = canReadCounter();

namespace {
const Origin ORIGIN{Platform::TickClock::read(), Clock::now()};
}

std::uint64_t Platform::TickClock::readSystem() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
}

double Platform::TickClock::getTicksPerSecond() {
    constexpr std::chrono::milliseconds SHORTEST{10}; // the readings are 0.1 us apart: an error of 1e-5
    constexpr std::chrono::seconds LONG_ENOUGH{10};
    if (!_isCounter)
        return 1e9;
    static std::atomic<double> settled{0.0};
    if (const double rate = settled.load(std::memory_order_relaxed); rate > 0.0)
        return rate;
    if (const auto age = Clock::now() - ORIGIN.time; age < SHORTEST)
        std::this_thread::sleep_for(SHORTEST - age);
    const std::uint64_t ticks = read() - ORIGIN.ticks;
    const auto age = Clock::now() - ORIGIN.time;
    const double rate = static_cast<double>(ticks) / std::chrono::duration<double>(age).count();
    if (age > LONG_ENOUGH)
        settled.store(rate, std::memory_order_relaxed);
    return rate;
}
