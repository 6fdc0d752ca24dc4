#pragma once

#include "machine/MachineExport.h"
#include "machine/MpiCore.h"

#include <cstddef>

/// Describes records as datatypes of the wrapper. Only static members, for typed heirs: see StructDatatype.
///
/// Main thread. All raise NonRecoverableError with the wrapper's text when the wrapper fails.
class ORVEX_MACHINE_EXPORT MpiCore::DerivedDatatype {
public:
    DerivedDatatype() = delete;

protected:
    /// @param displacements  of the blocks from the start of the record [bytes]
    /// @return a new handle, not committed yet, which the caller frees
    static int defineMpiStructType(int count, const int* blockLengths, const long long* displacements,
                                   const int* types);
    /// The same of `count` elements of `type`.
    static int defineMpiContiguousType(int count, const int& type);
    /// Makes `size` bytes the step from one record to the next, padding included, and commits the type.
    static void commitMpiType(std::size_t size, int& type);
    static void freeMpiType(int& type);

    /// A committed struct type that lives until the message layer closes.
    /// @throw InternalError while messaging is refused, as Communicator's operations do
    static int makeLastingStructType(std::size_t size, int count, const int* blockLengths,
                                     const long long* displacements, const int* types);
    /// Grows each time the lasting types go: a handle from an earlier epoch is void.
    static unsigned getEpoch() { return _epoch; }

private:
    class Release;
    static unsigned _epoch;
};
