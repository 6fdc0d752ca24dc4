#pragma once

#include "kernel/KernelExport.h"

#include <functional>
#include <string>
#include <string_view>

/// Turns signals into errors, an orderly stop, or an abort.
///
/// A fault that a thread causes itself (segmentation fault, bus error, illegal instruction, floating-point
/// trap) becomes an error on that thread: NonRecoverableError, FloatingPointError for a trap. First the
/// observers of Controller::getSignalRaisedObservable() are told, with the keys "Signal" (name),
/// "SignalNumber" and Error::MESSAGE_TAG. Where no exception can pass, and on a fault while a fault is
/// handled, the stack is printed on the standard error stream and the abort callback ends the process; a
/// fault there ends it at once, and so does a fault whose handling doesn't come to an end within
/// FAULT_TIME_LIMIT, or whose raise hook doesn't come back within HOOK_TIME_LIMIT (see setTimeLimits()).
///
/// When another process sends one of these signals, or the process calls abort(), the signal takes the
/// system's default course behind the last-words callback. A stack overflow is printed with its trace and
/// ends the process through the abort callback.
///
/// SIGTERM, SIGINT and SIGHUP that others send go to the stop callback, on a thread of their own; a process
/// that was started to ignore SIGHUP (nohup) goes on doing so. A broken pipe and a file above the limit of
/// its size are never signals: the write fails.
class ORVEX_KERNEL_EXPORT SignalHandler {
public:
    static constexpr double FAULT_TIME_LIMIT = 10.0; ///< [s]
    /// [s] for the raise hook, which may wait for other ranks with the error of a fault.
    static constexpr double HOOK_TIME_LIMIT = 45.0;

    /// True when floating-point faults arrive as signals. Set by setCatchFpeSignals().
    static bool _catchFpeSignals;
    /// Makes division by zero, overflow and invalid operations trap on the calling thread and on the threads
    /// that it starts from now on, or no longer. Main thread. On also installs the handling of faults.
    static void setCatchFpeSignals(bool on);

    /// Installs the handling of faults and ignores SIGPIPE and SIGXFSZ. A second call does nothing. Main
    /// thread.
    /// @throw std::system_error when the system refuses
    static void install();
    /// The system's default course for all of it. Main thread.
    static void uninstall();
    /// Other time limits than FAULT_TIME_LIMIT and HOOK_TIME_LIMIT, for the faults from now on. Any thread.
    /// @param fault  for the handling of a fault without the hook, and for the end of the process [s]
    /// @param hook   for the raise hook [s]
    static void setTimeLimits(double fault, double hook);

    /// Ends the process, and in a job all of it; called on the thread at fault. None: the process ends with a
    /// core image where the system makes one. Any thread.
    static void setAbortCallback(std::function<void()> callback);
    /// Called with the reason before a fault, an abort() or a signal ends the process, from any sender; on
    /// the thread at fault, in the handler, before anything else: the heap may be what has failed. Any
    /// thread.
    static void setLastWordsCallback(std::function<void(std::string_view reason)> callback);
    /// Calls the last-words callback also for SIGQUIT, SIGXCPU, SIGUSR1 and SIGUSR2, as far as they would end
    /// the process, which they do afterwards. Main thread.
    static void announceEndSignals();
    /// Called for each SIGTERM, SIGINT and SIGHUP with its number and the process that sent it (0: not
    /// known), on a thread of its own. An empty function gives them back to the system. Main thread.
    static void setStopCallback(std::function<void(int signal, int sender)> callback);
};
