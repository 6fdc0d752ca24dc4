#pragma once

#include "platform/PlatformExport.h"

#include <memory>
#include <string>

class Runnable;

/// A thread that runs a Runnable, as often as it is started. One thread at a time uses the object.
class ORVEX_PLATFORM_EXPORT Thread {
public:
    /// @param runnable  borrowed; outlives the thread
    /// @param name      for debuggers; the system keeps 15 characters
    explicit Thread(Runnable& runnable, const std::string& name = std::string());
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    /// Stops the runnable, if it still runs, and waits for its end.
    ~Thread();

    /// Runs the runnable on a new thread. When an earlier run hasn't ended yet, waits for its end first: stop
    /// the runnable before. @throw std::system_error when the system has no thread left
    void start();
    /// Waits for the end of the run; returns at once when there is none.
    void join();
    /// True from start() until the runnable's run() has returned.
    bool isRunning() const;

    /// Whether the calling thread is the one that entered main(). Cheap; right at load time too.
    static bool isMain();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
