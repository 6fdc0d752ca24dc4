#pragma once

#include "kernel/KernelExport.h"

/// Destroys the singletons at an orderly end.
class ORVEX_KERNEL_EXPORT SingletonCleaner {
public:
    using Reset = void (*)();

    /// Registers a function that destroys a singleton. Registering it again has no further effect. Any
    /// thread.
    static void registerReset(Reset reset);
    /// Calls the registered functions, the last one first, and forgets them; also those that are registered
    /// meanwhile. What one of them throws is logged. Main thread.
    static void reset();
};
