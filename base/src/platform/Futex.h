#pragma once

#include "platform/PlatformExport.h"

#include <atomic>
#include <cstdint>

/// Waits for a number in memory that processes of this host share. The kernel puts the waiting thread to
/// sleep, and it wakes up some 30 us after it was woken. Any thread. Inside this project.
class ORVEX_PLATFORM_EXPORT Futex {
public:
    /// Sleeps while `word` is `seen`, until wakeAll(), a signal or the end of `seconds`: the caller looks at
    /// the word again, whatever has ended the sleep.
    static void wait(const std::atomic<std::uint32_t>& word, std::uint32_t seen, double seconds);
    /// Wakes all threads that wait for `word`, in all processes.
    static void wakeAll(const std::atomic<std::uint32_t>& word);
};
