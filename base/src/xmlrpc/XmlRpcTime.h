#pragma once

#include <algorithm>
#include <chrono>

namespace XmlRpc {

/// Times of calls and of the server's work.
class XmlRpcTime {
public:
    using Clock = std::chrono::steady_clock;

    /// Below 0 is 0. So large a time that the clock can't count it is 30 years.
    static Clock::duration toDuration(double seconds) {
        constexpr double MAX_SECONDS = 1e9;
        return std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::clamp(seconds, 0.0, MAX_SECONDS)));
    }
};

} // namespace XmlRpc
