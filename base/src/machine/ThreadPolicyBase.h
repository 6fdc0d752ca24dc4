#pragma once

#include "machine/AbstractThreadPolicy.h"
#include "machine/MachineExport.h"

#include <memory>
#include <string>
#include <vector>

class AffinityMask;
class CpuTopology;

/// The usual setting: TBB, OpenMP and the mathematical libraries have a number of threads each, and each
/// thread has a processor of its own.
///
/// The threads of TBB and OpenMP are numbered from 0, the main thread, on. Thread i runs on entry i of a list
/// of processors: those of the process, spread over its cores, at most one for each thread. With more threads
/// than processors the list begins anew. Inside a hybrid context, one at a time. Local. Main thread.
class ORVEX_MACHINE_EXPORT ThreadPolicyBase : public AbstractThreadPolicy {
public:
    /// Sets of ThreadCount::ThreadLibrary.
    struct Configuration {
        unsigned threadCountLibraries = 3; ///< those whose thread count is set
        /// Those whose threads are bound, by bindThreads. OpenMP's threads that begin inside the context get
        /// processors also without it; with it they exist from the beginning.
        unsigned bindLibraries = 1;
        unsigned reportLibraries = 0; ///< those in reportThreadAffinities()
    };

    /// With the default configuration.
    ThreadPolicyBase(unsigned numThreads, bool bindThreads);
    /// @param bindThreads  whether each thread gets one processor; else all share those of the process
    /// @throw InternalError as ThreadCount::ScopedInitializer does, and without a host
    ThreadPolicyBase(unsigned numThreads, bool bindThreads, Configuration configuration);
    /// Ends the setting: counts and bindings are as before.
    ~ThreadPolicyBase() override;
    ThreadPolicyBase(const ThreadPolicyBase&) = delete;
    ThreadPolicyBase& operator=(const ThreadPolicyBase&) = delete;

    /// "TBB Thread 0 - Affinity = {...}" for each thread of TBB that took part so far, then the same for each
    /// one of OpenMP; as the configuration says.
    std::vector<std::string> reportThreadAffinities() const override;

private:
    class Placement;
    class TbbThreadObserver;
    class HelperThreads;
    struct Impl;

    static bool setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask);
    static bool setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask, int systemThread);

    std::unique_ptr<Impl> _impl;
};
