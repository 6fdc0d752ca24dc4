#include "platform/RateLimitedLog.h"

void RateLimitedLog::warn(const OS::Log::Context& context, const std::string& kind, const std::string& text) {
    const Clock::time_point now = Clock::now();
    Kind& state = _kinds[kind];
    if (state.lines == 0 || now - state.begin > PERIOD) {
        if (state.leftOut > 0)
            OS::Log::instance("Default").warning(context, "@0@: @1@ more of these were left out", kind,
                                                 state.leftOut);
        state = Kind{now, 0, 0};
    }
    if (++state.lines <= LINES)
        OS::Log::instance("Default").warning(context, "@0@: @1@", kind, text);
    else
        ++state.leftOut;
}
