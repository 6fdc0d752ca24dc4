#pragma once

#include "machine/MachineExport.h"

#include <cstddef>
#include <functional>

/// Loops over the threads of a hybrid context, for code that doesn't call TBB itself.
class ORVEX_MACHINE_EXPORT ThreadUtility {
public:
    ThreadUtility() = delete;

    /// Calls `work(i)` for each i below `count`, on all threads, in no order; returns when all are done. What
    /// `work` throws comes out; calls that haven't begun by then are left out. Local. Main thread, or within
    /// `work`. The calls may be longer than a microsecond each: this is no loop over cells.
    /// @throw InternalError outside a hybrid context
    static void forEach(std::size_t count, const std::function<void(std::size_t)>& work);
};
