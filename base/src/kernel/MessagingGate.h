#pragma once

#include "kernel/KernelExport.h"

/// One word for each thread that is zero exactly when a message-passing operation may go ahead without a
/// further look: on the main thread, nothing locked, no timer, no statistics.
///
/// All locks are changed on the main thread only, so the word needs no atomics: another thread's word never
/// becomes zero. Whoever owns a lock or an instrument raises its bit while the lock is held or the instrument
/// is on; who finds the word non-zero looks at the locks themselves, in their order.
class ORVEX_KERNEL_EXPORT MessagingGate {
public:
    enum Reason : unsigned {
        NOT_MAIN_THREAD = 1u << 0,
        SERIAL_CRITICAL = 1u << 1,
        PERFORMANCE_CRITICAL = 1u << 2,
        LOCAL_COMMAND = 1u << 3,
        FIELD_LOOP = 1u << 4,
        COMMUNICATION_TIMER = 1u << 5,
        STATISTICS = 1u << 6
    };

    static bool isOpen() { return _word == 0; }
    static bool has(Reason reason) { return (_word & reason) != 0; }
    /// Main thread only; on another thread it changes nothing that counts.
    static void set(Reason reason, bool on) { _word = on ? (_word | reason) : (_word & ~unsigned(reason)); }
    /// Clears NOT_MAIN_THREAD on the main thread. Called at load time, and where the bit is found set.
    static void noteMainThread();

private:
    static constinit thread_local unsigned _word __attribute__((tls_model("initial-exec")));
};
