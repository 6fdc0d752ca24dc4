#pragma once

#include "platform/Log.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

/// Warnings that strangers can provoke as often as they like: of each kind, so many lines in so much time;
/// then one line that tells how many were left out. One thread at a time.
class ORVEX_PLATFORM_EXPORT RateLimitedLog {
public:
    static constexpr std::size_t LINES = 10; ///< of one kind in PERIOD
    static constexpr std::chrono::seconds PERIOD{60};

    /// @param context  the full name of the operation that speaks
    void warn(const OS::Log::Context& context, const std::string& kind, const std::string& text);

private:
    using Clock = std::chrono::steady_clock;
    struct Kind {
        Clock::time_point begin;
        std::size_t lines = 0;
        std::size_t leftOut = 0;
    };
    std::map<std::string, Kind> _kinds; ///< the kinds are ours: few
};
