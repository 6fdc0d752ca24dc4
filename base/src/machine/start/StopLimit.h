#pragma once

/// Ends this process when its end takes too long: a message layer may wait for a rank for ever, an exit
/// function for a lock.
///
/// The limit counts from the first step of the end in order. A command that is still at work isn't a part of
/// that. When the time is up the process tells why, removes its session record and ends with a failure.
class StopLimit {
public:
    static constexpr int DEFAULT = 60; ///< [s]
    static constexpr int NONE = 0;

    /// For the end in order. @param seconds  NONE: no limit
    static void set(int seconds);
    /// The end in order has come to this step; the first call starts the limit.
    /// @param step  in words for people, in static memory. Main thread
    static void enter(const char* step);
    /// The process takes the job down: only seconds are left. Any thread.
    static void enterAbort();
};
