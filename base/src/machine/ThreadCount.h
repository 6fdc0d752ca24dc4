#pragma once

#include "machine/MachineExport.h"

#include <functional>
#include <memory>

class TaskSchedulerInit;

/// How many threads the threading runtimes of this process use: TBB, OpenMP, and the mathematical libraries.
///
/// Each would start as many threads as the host has cores, on every rank. So a rank begins with one thread in
/// each, and has more inside a hybrid context only. Local. Main thread.
class ORVEX_MACHINE_EXPORT ThreadCount {
public:
    /// Runtimes that the code's own loops use; values to be combined.
    enum ThreadLibrary : unsigned { TBB = 1, OPENMP = 2 };
    /// Runtimes of the mathematical libraries: MKL, which stands for all of them (OpenBLAS, BLIS, FlexiBLAS
    /// too), and their OpenMP.
    enum MathLibrary : unsigned { MKL = 1, MATH_OPENMP = 2 };

    class ScopedInitializer;

    /// Sets all that are named to one thread. @throw InternalError for TBB, whose count belongs to a scope
    static void setThreadCountsToOne(unsigned threadLibraries, unsigned mathLibraries);
    /// Calls `work` on this thread with the threads of the ScopedInitializer that lives, or without any: what
    /// `work` calls of TBB runs on them.
    static void run(const std::function<void()>& work);
};

/// Sets the thread counts while it lives. Inside a hybrid context, one at a time.
class ORVEX_MACHINE_EXPORT ThreadCount::ScopedInitializer {
public:
    /// @param numThreads  of each runtime that is named, above 0
    /// @throw InternalError outside a hybrid context, for 0 threads, and while another one lives; nothing has
    ///        changed then
    ScopedInitializer(unsigned threadLibraries, unsigned mathLibraries, unsigned numThreads);
    ~ScopedInitializer();
    ScopedInitializer(const ScopedInitializer&) = delete;
    ScopedInitializer& operator=(const ScopedInitializer&) = delete;

    /// Null when TBB isn't set up. For the classes that place its threads.
    TaskSchedulerInit* getTaskScheduler() const { return _tbbInit.get(); }

private:
    friend class ThreadCount;

    struct Saved;

    static ScopedInitializer* _open; ///< the one that lives

    unsigned _threadLibraries;
    unsigned _mathLibraries;
    std::unique_ptr<TaskSchedulerInit> _tbbInit;
    std::unique_ptr<Saved> _saved;
};
