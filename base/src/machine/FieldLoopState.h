#pragma once

#include "machine/MachineExport.h"

/// Whether a loop over a field runs: message passing is refused meanwhile. A flag, not a counter.
///
/// Set by the solver around its field loops, on the main thread.
class ORVEX_MACHINE_EXPORT FieldLoopState {
public:
    static void setBusy();
    static void setIdle();
    static bool busy() { return _busy; }

private:
    static bool _busy;
};
