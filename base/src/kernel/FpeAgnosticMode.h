#pragma once

#include "kernel/KernelExport.h"

/// While active, nobody looks at the floating-point status flags. Main thread.
class ORVEX_KERNEL_EXPORT FpeAgnosticMode {
public:
    static bool isActive() { return _active; }
    static void activate() { _active = true; }
    static void deactivate() { _active = false; }

private:
    static bool _active;
};
