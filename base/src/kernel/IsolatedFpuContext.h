#pragma once

#include "kernel/FriendKey.h"
#include "kernel/KernelExport.h"
#include "platform/FpuHandling.h"

class FpuAccess;

/// Keeps the floating-point faults of a scope private to it: the scope begins with a clear status and without
/// traps, and its end restores the environment of before, status and traps included. Scopes nest. Acts on the
/// calling thread.
class ORVEX_KERNEL_EXPORT IsolatedFpuContext {
public:
    /// @param keepTraps  leaves the traps of SignalHandler::setCatchFpeSignals() on inside, where they are on
    explicit IsolatedFpuContext(bool keepTraps);
    IsolatedFpuContext(const IsolatedFpuContext&) = delete;
    IsolatedFpuContext& operator=(const IsolatedFpuContext&) = delete;
    ~IsolatedFpuContext();

    /// Whether one is alive on this thread.
    static bool isActive(FriendKey<FpuAccess> key);

private:
    FpuEnvironment _environment;
};
