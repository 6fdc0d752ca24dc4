#pragma once

#include "kernel/KernelExport.h"

/// Whether this process works with threads where its ranks would stand.
class ORVEX_KERNEL_EXPORT ThreadParallelContext {
public:
    /// Depth of hybrid contexts: above 0 while their threads are up. The main thread changes it before the
    /// threads start and after they ended, so the threads may read it.
    static unsigned _threadParallelContext;
};
