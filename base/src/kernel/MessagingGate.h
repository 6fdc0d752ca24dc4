#pragma once

#include "kernel/KernelExport.h"

#include <atomic>

/// One word for each thread that is zero exactly when a message-passing operation may go ahead without a
/// further look: on the main thread, nothing locked, no timer, no statistics.
///
/// All locks are changed on the main thread only; another thread's word never becomes zero. The owner of a
/// lock or an instrument raises its bit while the lock is held or the instrument is on; code that finds the
/// word non-zero looks at the locks themselves, in their order. A trace alone is switched by another thread:
/// the main thread notices it at its next operation.
class ORVEX_KERNEL_EXPORT MessagingGate {
public:
    enum Reason : unsigned {
        NOT_MAIN_THREAD = 1u << 0,
        SERIAL_CRITICAL = 1u << 1,
        PERFORMANCE_CRITICAL = 1u << 2,
        LOCAL_COMMAND = 1u << 3,
        FIELD_LOOP = 1u << 4,
        COMMUNICATION_TIMER = 1u << 5,
        STATISTICS = 1u << 6,
        TRACE = 1u << 7 ///< by setTrace() alone
    };

    static bool isOpen() { return _word.load(std::memory_order_relaxed) == 0; }
    static bool has(Reason reason) { return (_word.load(std::memory_order_relaxed) & reason) != 0; }
    /// Main thread only; on another thread it changes nothing that counts.
    static void set(Reason reason, bool on) { change(_word, reason, on); }
    /// The bit TRACE of the main thread's word. Any thread.
    static void setTrace(bool on);
    /// Clears NOT_MAIN_THREAD on the main thread. Called at load time, and where the bit is found set.
    static void noteMainThread();

private:
    using Word = std::atomic<unsigned>;
    static void change(Word& word, Reason reason, bool on) {
        if (on)
            word.fetch_or(reason, std::memory_order_relaxed);
        else
            word.fetch_and(~unsigned(reason), std::memory_order_relaxed);
    }

    static constinit std::atomic<Word*> _mainWord;
    static constinit thread_local Word _word __attribute__((tls_model("initial-exec")));
};
