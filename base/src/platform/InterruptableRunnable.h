#pragma once

#include "platform/PlatformExport.h"
#include "platform/Runnable.h"

#include <memory>

/// Does one task again and again until it is stopped.
class ORVEX_PLATFORM_EXPORT InterruptableRunnable : public Runnable {
public:
    InterruptableRunnable();
    ~InterruptableRunnable() override;
    /// Calls runNestedTask() until stop().
    void run() override;
    /// Ends run() behind the task at work, and sleep() at once. Any thread; doesn't wait.
    void stop() override;

    /// Makes ready for another run(). Thread::start() calls it.
    void rearm();

protected:
    virtual void runNestedTask() = 0;

    bool stopRequested() const;
    /// Sleeps, but no longer than until stop(). @return false when stopped
    bool sleep(double seconds);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
