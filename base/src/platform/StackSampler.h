#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Platform {

/// Takes the stack of the main thread when another thread asks, whatever the main thread does.
///
/// The main thread gets a real-time signal and writes down its own return addresses; the asking thread names
/// them. The main thread loses some 0.05 ms, and a sleep or poll of its own may end early by the signal, so
/// one asks only when somebody wants to know. While nobody asks, it costs nothing.
class ORVEX_PLATFORM_EXPORT StackSampler {
public:
    static constexpr double PATIENCE = 0.1; ///< for the answer of the main thread [s]

    /// Prepares the calling thread, which is the one to be sampled. Chooses a signal that nobody has taken.
    /// A second call does nothing. Main thread.
    /// @return false when no signal is free, or the system refuses
    static bool install();
    /// Gives the signal back. No other thread may be sampling. Main thread.
    static void uninstall();
    /// The signal's number, 0 while none is installed.
    static int getSignal();

    /// One text for each frame, as StackTracer::resolve() writes them without the arguments of templates; the
    /// innermost first. Takes at most 3 * PATIENCE, and the time that the names take. Any thread but the main
    /// one; one at a time, the others wait.
    /// @param whyNot  when the answer is empty: the reason in words
    /// @return empty when the main thread doesn't answer in time, or handles a fault
    static std::vector<std::string> sample(std::size_t maxFrames, std::string* whyNot = nullptr);

    /// No sample is taken while one lives: the process handles a fault. Any thread, in a handler too.
    class ORVEX_PLATFORM_EXPORT FaultScope {
    public:
        FaultScope();
        ~FaultScope();
        FaultScope(const FaultScope&) = delete;
        FaultScope& operator=(const FaultScope&) = delete;
    };
};

} // namespace Platform
