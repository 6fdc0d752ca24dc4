#include "kernel/MessagingGate.h"

#include "platform/Thread.h"

constinit std::atomic<MessagingGate::Word*> MessagingGate::_mainWord{nullptr};
constinit thread_local MessagingGate::Word MessagingGate::_word{MessagingGate::NOT_MAIN_THREAD};

void MessagingGate::noteMainThread() {
    if (!Thread::isMain())
        return;
    set(NOT_MAIN_THREAD, false);
    _mainWord.store(&_word, std::memory_order_release);
}

void MessagingGate::setTrace(bool on) {
    if (Word* const word = _mainWord.load(std::memory_order_acquire))
        change(*word, TRACE, on);
}

namespace {

/// The library is loaded by the main thread, before main() as a rule.
[[maybe_unused]] const bool mainThreadNoted = [] {
    MessagingGate::noteMainThread();
    return true;
}();

} // namespace
