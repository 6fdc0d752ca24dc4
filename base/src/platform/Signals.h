#pragma once

#include "platform/PlatformExport.h"

#include <functional>
#include <string>
#include <vector>

namespace Platform {

/// Signals of the system, in two kinds: those that others send and those that a thread causes itself.
class ORVEX_PLATFORM_EXPORT Signals {
public:
    /// Numbers of the signals that are asked for by name.
    static const int TERMINATE;      ///< SIGTERM
    static const int INTERRUPT;      ///< SIGINT
    static const int HANG_UP;        ///< SIGHUP
    static const int SEGMENTATION;   ///< SIGSEGV
    static const int BUS_ERROR;      ///< SIGBUS
    static const int FLOATING_POINT; ///< SIGFPE
    static const int ILLEGAL;        ///< SIGILL
    static const int ABORT;          ///< SIGABRT

    /// @param sender  the process that sent the signal; 0 for the system (a terminal) or when it can't be
    /// seen
    using WatchCallback = std::function<void(int signal, int sender)>;
    /// A fault handler gets the signal, its code (the reason, see getFaultText()) and the address concerned.
    using FaultCallback = void (*)(int signal, int code, void* address);

    /// Tells `callback` of each of these signals, on a thread of its own and not in a handler, so that it may
    /// do anything but throw. A later watch replaces the callback of an earlier one for the same signals. Any
    /// thread. @throw std::system_error when the system refuses
    void watch(const std::vector<int>& signals, const WatchCallback& callback);
    /// Ends all watching: the dispositions from before come back and the thread ends. When this returns no
    /// callback runs, unless it is called from one.
    void unwatch();

    /// Calls `callback` on the faulting thread, within the handler, with the signal unblocked: it may throw,
    /// and the exception passes through code compiled for that; the thread's floating-point modes and traps
    /// stay, its floating-point status is clear. The callback runs on a stack of its own.
    /// When it returns, the fault takes the system's default course. A fault within the callback comes to the
    /// callback again.
    /// @throw std::system_error when the system refuses
    void installFaultHandler(const std::vector<int>& signals, FaultCallback callback);
    /// Whether the fault being handled is the end of the thread's stack, which no exception can leave. Within
    /// a fault callback.
    static bool isStackOverflow();
    /// Whether this process was started, or told by ignore(), to ignore a signal.
    bool isIgnored(int signal) const;
    /// The system's default course for these signals; with an empty list for all that were installed here.
    void restoreDefaults(const std::vector<int>& signals = {});
    /// Ignores a signal, for example of a broken pipe.
    void ignore(int signal);

    /// "Segmentation fault"; from the system's memory, so allowed in the handler of a fault.
    static const char* getDescription(int signal);
    /// "SIGSEGV"; "signal 99" for one without a name.
    static std::string getName(int signal);
    /// In words: "Segmentation fault: address not mapped", "Floating-point exception: division by zero".
    static std::string getFaultText(int signal, int code);
};

/// The one signals service of the process.
ORVEX_PLATFORM_EXPORT Signals& signals();

} // namespace Platform
