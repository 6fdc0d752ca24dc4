#pragma once

#include "machine/MachineExport.h"

#include <string>
#include <vector>

/// The setting of threads that an operation of a hybrid context works under; see HybridMpiThreadOperation.
///
/// The setting lasts from the constructor to the destructor, both on the main thread.
class ORVEX_MACHINE_EXPORT AbstractThreadPolicy {
public:
    virtual ~AbstractThreadPolicy();
    /// One text for each thread, with the processors that it may run on; empty when they aren't known. Main
    /// thread.
    virtual std::vector<std::string> reportThreadAffinities() const;

protected:
    AbstractThreadPolicy() = default;
    AbstractThreadPolicy(const AbstractThreadPolicy&) = default;
    AbstractThreadPolicy& operator=(const AbstractThreadPolicy&) = default;
};
