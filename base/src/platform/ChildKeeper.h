#pragma once

#include "platform/Descriptor.h"

/// Looks after children of this process whose handles are busy elsewhere or gone: reads what they print, so
/// that no full pipe stops them, and collects their ends. One thread for all of them, started with the first.
/// Private to the platform layer. Any thread.
class ChildKeeper {
public:
    /// Reads and drops what comes from `output` until it ends; with `echo`, it goes to our standard output.
    static void drain(Descriptor output, bool echo);
    /// Waits for the end of the child `pid`, which nobody else waits for.
    static void collect(int pid);
};
