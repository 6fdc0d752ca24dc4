#pragma once

#include <cstddef>

/// Gives the calling thread, for the lifetime of this object, a stack on which fault handlers run: a thread
/// whose own stack is full has no other place to speak. Private to the platform layer.
///
/// A build with sanitizers keeps the alternate stack of its runtime; where the system has no memory the
/// thread does without. Made and destroyed on the same thread.
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
