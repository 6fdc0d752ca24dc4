#pragma once

#include "platform/PlatformExport.h"

#include <cfenv>
#include <string>

/// Holders may read the floating-point status of their thread. Only the friends can make one.
class FpeStatusReadAccessKey {
    FpeStatusReadAccessKey() {}
    friend class FpuAccess;
    friend class FpuTesting;
    friend class GlobalFloatingPointError;
    friend class IsolatedFpuContext;
    friend class SignalHandler;
    friend class PlatformTestAccess;
};

/// Holders may clear the floating-point status of their thread. Only the friends can make one.
class FpeStatusWriteAccessKey {
    FpeStatusWriteAccessKey() {}
    friend class FpuAccess;
    friend class FpuTesting;
    friend class GlobalFloatingPointError;
    friend class IsolatedFpuContext;
    friend class SignalHandler;
    friend class PlatformTestAccess;
};

/// Holders may change the floating-point environment of their thread. Only the friends can make one.
class FpuEnvironmentAccessKey {
    FpuEnvironmentAccessKey() {}
    friend class FpuAccess;
    friend class IsolatedFpuContext;
    friend class Machine;
    friend class SignalHandler;
    friend class PlatformTestAccess;
};

/// A saved floating-point environment: control modes, traps and status.
class FpuEnvironment {
    friend class FpuHandling;
    std::fenv_t _environment{};
};

/// The floating-point environment of the calling thread. Each operation acts on that thread only.
class ORVEX_PLATFORM_EXPORT FpuHandling {
public:
    /// The faults that count, as bits; inexact and underflow aren't among them.
    enum Fpe : unsigned { DIVISION_BY_ZERO = 1, INVALID_OPERATION = 2, OVERFLOW_FAULT = 4, ALL = 7 };

    /// True when none of the faults stands in the status.
    static bool isFpeStatusClear(FpeStatusReadAccessKey key);
    /// True when any of the faults in `mask` (bits of Fpe) stands in the status.
    static bool testFpeStatus(FpeStatusReadAccessKey key, unsigned int mask);
    /// "Floating-point exception: division by zero, overflow"; "No floating-point exception" when clear.
    static std::string getFpeStatusAsString(FpeStatusReadAccessKey key);
    static void clearFpeStatus(FpeStatusWriteAccessKey key);

    /// Rounding to nearest, no traps, clear status, subnormal numbers kept.
    static void resetEnvironment(FpuEnvironmentAccessKey key);
    /// From now on these faults raise SIGFPE on this thread. The status is cleared first, since a pending
    /// fault would trap at the next operation. @return the faults that trapped before
    static unsigned int enableTraps(FpuEnvironmentAccessKey key, unsigned int mask);
    /// @return the faults that trapped before
    static unsigned int disableTraps(FpuEnvironmentAccessKey key, unsigned int mask);
    static void saveEnvironment(FpuEnvironmentAccessKey key, FpuEnvironment& environment);
    /// Everything as it was saved, status included.
    static void restoreEnvironment(FpuEnvironmentAccessKey key, const FpuEnvironment& environment);
};
