#pragma once

#include <cstddef>

#if defined(__has_feature)
#define ORVEX_HAS_FEATURE(name) __has_feature(name)
#else
#define ORVEX_HAS_FEATURE(name) 0
#endif
/// Whether the runtime of a sanitizer gives the threads alternate stacks of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || ORVEX_HAS_FEATURE(address_sanitizer) || \
    ORVEX_HAS_FEATURE(thread_sanitizer)
#define ORVEX_HAS_RUNTIME_STACKS 1
#else
#define ORVEX_HAS_RUNTIME_STACKS 0
#endif

/// Gives the calling thread, for the lifetime of this object, a stack on which fault handlers run: a thread
/// whose own stack is full has no other place to speak. Private to the platform layer.
///
/// Every thread of the process has one (ThreadStacks.cpp), but those of a build with sanitizers, which keeps
/// the alternate stacks of its runtime, and those for which the system has no memory. Made and destroyed on
/// the same thread.
class AlternateStack {
public:
    AlternateStack();
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;
    ~AlternateStack();

    /// Whether handlers are to run on alternate stacks in this build.
    static bool isUsed();
    /// Whether a fault at `address`, with the stack pointer where it was, is the end of the thread's stack.
    /// False on a thread that never had an object of this class. Allowed in the handler of a fault.
    static bool isOverflow(const void* address, std::size_t stackPointer);

private:
    void* _memory = nullptr;
};
