#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Platform {

/// Takes stack traces and turns them into text. Local, any thread.
class ORVEX_PLATFORM_EXPORT StackTracer {
public:
    /// The name of a function or type in C++, for example of what std::type_info::name() gives; `symbol`
    /// itself where it isn't one of the compiler's.
    static std::string demangle(const char* symbol);
    /// Fills `frames` with return addresses, the caller's own frame first. Cheap, and allowed in the handler
    /// of a fault.
    /// @param skip  frames to leave out at the top
    /// @return how many were written, at most `maxFrames`
    std::size_t capture(const void** frames, std::size_t maxFrames, std::size_t skip = 0) const;
    /// One text for each function, also for one that is inlined in the next: "function at file:line", less
    /// where less is known; no line end. Slow: reads debug information.
    std::vector<std::string> resolve(const void* const* frames, std::size_t count) const;
    /// capture() and resolve() of up to `maxFrames` frames, the caller's first.
    std::vector<std::string> getStackTrace(std::size_t maxFrames = 64) const;
    /// Writes the trace of the calling thread to `descriptor` with as little help from the rest of the
    /// process as possible: for a process that ends by a fault. Addresses come first, then names. Should
    /// looking them up never end (the fault may have struck while the heap was locked), the process ends
    /// after 20 seconds.
    void writeStackTrace(int descriptor, std::size_t maxFrames = 64) const;
};

/// The one stack-trace service of the process.
ORVEX_PLATFORM_EXPORT StackTracer& error();

} // namespace Platform
