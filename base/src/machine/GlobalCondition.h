#pragma once

#include "machine/MachineExport.h"

/// A condition that each rank finds for itself, folded over the job so that all ranks take the same branch.
///
/// Building one is collective over the global communicator in a parallel job (ON_ALL_INVARIANT: only where
/// its check runs), from the main thread and outside serial-critical code. In a serial process the result is
/// the local condition for every mode.
class ORVEX_MACHINE_EXPORT GlobalCondition {
public:
    enum ModeEnum : int {
        ON_ALL = 0,          ///< true on every rank
        ON_ANY = 1,          ///< true on one rank at least
        ON_MASTER = 2,       ///< the value of the master
        ON_ALL_INVARIANT = 3 ///< the local value: the caller knows that all ranks agree, at no cost
    };

    /// In a development version with its checks on, jobs of up to this size prove that an ON_ALL_INVARIANT
    /// condition is the same on all ranks.
    static constexpr unsigned MAX_CHECKED_PROCESSES = 12;

    /// @throw InternalError in serial-critical code (a serial process of a release version doesn't mind), and
    /// when the check of ON_ALL_INVARIANT finds that the ranks differ
    GlobalCondition(bool condition, ModeEnum mode);
    virtual ~GlobalCondition();

    operator bool() const { return _result; }

private:
    static bool computeCollectiveCondition(bool condition, ModeEnum mode);

    bool _result;
};
