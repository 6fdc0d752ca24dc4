#pragma once

#include "machine/MachineExport.h"

/// Makes the floating-point faults that any rank has recorded one error of all ranks.
class ORVEX_MACHINE_EXPORT GlobalFloatingPointError {
public:
    /// Returns when no rank has a record; faults that nothing has claimed are recorded first. The records are
    /// gone afterwards. Collective over the global communicator in a parallel job. Main thread, outside
    /// serial-critical code and hybrid thread contexts.
    /// @throw FloatingPointError on all ranks, with the distinct records of all ranks, sorted
    /// @throw InternalError when called from where it may not be called
    static void assertNoError();
};
