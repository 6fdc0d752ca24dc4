#include "machine/hybrid/TaskSchedulerInit.h"

#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <map>

namespace {

/// Kept to the end of the process: TBB's own data may be gone when statics are destroyed.
tbb::task_arena& getKeptArena(unsigned numThreads) {
    static auto* const arenas = new std::map<unsigned, std::unique_ptr<tbb::task_arena>>;
    std::unique_ptr<tbb::task_arena>& arena = (*arenas)[numThreads];
    if (!arena)
        arena = std::make_unique<tbb::task_arena>(static_cast<int>(numThreads), 1);
    return *arena;
}

} // namespace

struct TaskSchedulerInit::Impl {
    explicit Impl(unsigned numThreads)
        : limit(tbb::global_control::max_allowed_parallelism, numThreads), arena(getKeptArena(numThreads)) {}

    tbb::global_control limit; ///< first: an arena looks at it when it starts
    tbb::task_arena& arena;
};

TaskSchedulerInit::TaskSchedulerInit(unsigned numThreads) : _impl(std::make_unique<Impl>(numThreads)) {}

TaskSchedulerInit::~TaskSchedulerInit() = default;

void TaskSchedulerInit::terminate() {
    _impl.reset();
}

void TaskSchedulerInit::run(const std::function<void()>& work) {
    _impl->arena.execute(work);
}

tbb::task_arena& TaskSchedulerInit::getArena() {
    return _impl->arena;
}
