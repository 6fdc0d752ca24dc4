#pragma once

#include "machine/AbstractThreadPolicy.h"
#include "machine/MachineExport.h"

#include <memory>

class HybridMachine;

/// Work that runs in a hybrid context, see HybridMpiThreadContext.
class ORVEX_MACHINE_EXPORT HybridMpiThreadOperation {
public:
    virtual ~HybridMpiThreadOperation();
    /// The setting of threads for run(): a ThreadPolicyBase of the default configuration, which with
    /// -xthreadbindverbose also reports TBB's threads. Called on the processes that take part.
    /// @param nThreads     threads of this process
    /// @param bindThreads  whether each should have a processor of its own
    virtual std::unique_ptr<AbstractThreadPolicy> createThreadPolicy(unsigned nThreads, bool bindThreads);
    /// The work, on the main thread of each process that takes part. Its threads send no messages.
    virtual void run(const HybridMachine& machine) = 0;

protected:
    HybridMpiThreadOperation() = default;
    HybridMpiThreadOperation(const HybridMpiThreadOperation&) = default;
    HybridMpiThreadOperation& operator=(const HybridMpiThreadOperation&) = default;
};
