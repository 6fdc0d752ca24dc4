#include "machine/ThreadCount.h"

#include "machine/hybrid/MathLibraries.h"
#include "machine/hybrid/TaskSchedulerInit.h"

#include "kernel/Raise.h"
#include "kernel/ThreadParallelContext.h"

#include <omp.h>

#include <optional>
#include <stdexcept>

ThreadCount::ScopedInitializer* ThreadCount::ScopedInitializer::_open = nullptr;

namespace {

void setOpenMpThreads(int number) {
    if (number == 0)
        throw std::invalid_argument("Invalid number of threads");
    omp_set_num_threads(number);
}

} // namespace

/// The counts before.
struct ThreadCount::ScopedInitializer::Saved {
    int threadOmp = 1;
    int mathOmp = 1;
    std::optional<MathLibraries::Saved> math = {};
};

void ThreadCount::setThreadCountsToOne(unsigned threadLibraries, unsigned mathLibraries) {
    if ((threadLibraries & TBB) != 0)
        raiseInternalError(
            "TBB must not be initialized here. TBB thread counts need to be dealt with locally.", "false",
            __FILE__, __LINE__);
    if ((threadLibraries & OPENMP) != 0)
        setOpenMpThreads(1);
    if ((mathLibraries & MKL) != 0)
        MathLibraries::getSingleton().setThreads(1);
    if ((mathLibraries & MATH_OPENMP) != 0)
        setOpenMpThreads(1);
}

void ThreadCount::run(const std::function<void()>& work) {
    const ScopedInitializer* const open = ScopedInitializer::_open;
    if (open && open->_tbbInit)
        open->_tbbInit->run(work);
    else
        work();
}

ThreadCount::ScopedInitializer::ScopedInitializer(unsigned threadLibraries, unsigned mathLibraries,
                                                  unsigned numThreads)
    : _threadLibraries(threadLibraries), _mathLibraries(mathLibraries) {
    ORVEX_ASSERT(ThreadParallelContext::_threadParallelContext,
                 "ThreadCount::ScopedInitializer can only be used in hybrid MPI/thread contexts.");
    ORVEX_ASSERT(numThreads > 0u, "Invalid number of threads.");
    ORVEX_ASSERT_AS(!_open, "!_scopeOpen", "Instances of ThreadCount::ScopedInitializer must not be nested!");
    const auto number = static_cast<int>(numThreads);
    _saved = std::make_unique<Saved>();
    if ((_threadLibraries & OPENMP) != 0)
        _saved->threadOmp = omp_get_max_threads();
    if ((_mathLibraries & MKL) != 0)
        _saved->math.emplace();
    if ((_mathLibraries & MATH_OPENMP) != 0)
        _saved->mathOmp = omp_get_max_threads();
    if ((_threadLibraries & TBB) != 0)
        _tbbInit = std::make_unique<TaskSchedulerInit>(numThreads);
    if ((_threadLibraries & OPENMP) != 0)
        setOpenMpThreads(number);
    if ((_mathLibraries & MKL) != 0)
        MathLibraries::getSingleton().setThreads(number);
    if ((_mathLibraries & MATH_OPENMP) != 0)
        setOpenMpThreads(number);
    _open = this;
}

ThreadCount::ScopedInitializer::~ScopedInitializer() {
    if (((_threadLibraries & OPENMP) | (_mathLibraries & MATH_OPENMP)) != 0)
        omp_pause_resource_all(omp_pause_soft); // ends OpenMP's threads, which would go on looking for work
    if ((_mathLibraries & MATH_OPENMP) != 0)
        omp_set_num_threads(_saved->mathOmp);
    if ((_mathLibraries & MKL) != 0)
        _saved->math->restore();
    if ((_threadLibraries & OPENMP) != 0)
        omp_set_num_threads(_saved->threadOmp);
    _open = nullptr;
    if (_tbbInit)
        _tbbInit->terminate();
}
