#include "kernel/MessagingGate.h"

#include "platform/Thread.h"

constinit thread_local unsigned MessagingGate::_word = MessagingGate::NOT_MAIN_THREAD;

void MessagingGate::noteMainThread() {
    if (Thread::isMain())
        set(NOT_MAIN_THREAD, false);
}

namespace {

/// The library is loaded by the main thread, before main() as a rule.
[[maybe_unused]] const bool mainThreadNoted = [] {
    MessagingGate::noteMainThread();
    return true;
}();

} // namespace
