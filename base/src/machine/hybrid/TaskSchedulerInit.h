#pragma once

#include <functional>
#include <memory>

namespace tbb::detail::d1 {
class task_arena;
}

/// Sets TBB up for a number of threads, the calling one among them, while it lives.
///
/// TBB looks once at the processors of the process and remembers them; a process that was bound at its start
/// has room for one thread by that. So the threads work in an arena of their own: only what run() calls has
/// them. The arena, and with it TBB's sleeping threads, is kept for the next object of the same number: to
/// make one takes longer than a short context. Main thread.
class TaskSchedulerInit {
public:
    explicit TaskSchedulerInit(unsigned numThreads);
    ~TaskSchedulerInit();
    TaskSchedulerInit(const TaskSchedulerInit&) = delete;
    TaskSchedulerInit& operator=(const TaskSchedulerInit&) = delete;

    /// Ends the setting. Nothing more to run afterwards.
    void terminate();
    /// Calls `work` on this thread; its loops have the threads. What it throws comes out.
    void run(const std::function<void()>& work);
    tbb::detail::d1::task_arena& getArena();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
