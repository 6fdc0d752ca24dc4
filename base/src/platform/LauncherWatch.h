#pragma once

#include "platform/PlatformExport.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Ends this process when the launcher of its job, or any process between the two, is gone: an orphan would
/// spin in a message that never comes.
///
/// start() notes the ancestors of this process up to the launcher (mpirun, mpiexec, hydra's proxy, srun and
/// their like); when it knows none of them, the direct parent alone. A thread waits for the end of any of
/// them, without processor time. Then it calls the callback, once, on its own thread; when the process still
/// lives after a grace, it ends it with _exit. A process started without a parent to lose (the parent is
/// process 1) is not watched.
class ORVEX_PLATFORM_EXPORT LauncherWatch {
public:
    /// An ancestor, by a number that stays unique although pids are used again.
    struct Ancestor {
        int pid;
        unsigned long long startStamp;
        std::string name;
    };
    /// @param reason  one sentence for people, which names the process that is gone
    using Callback = std::function<void(const std::string& reason)>;

    /// @param callback    tells whom it concerns; it may end the process itself
    /// @param grace       [s] from the callback's call to the end
    /// @param exitStatus  of that end
    explicit LauncherWatch(Callback callback, double grace = 1.0, int exitStatus = 1);
    LauncherWatch(const LauncherWatch&) = delete;
    LauncherWatch& operator=(const LauncherWatch&) = delete;
    /// Stops.
    ~LauncherWatch();

    /// Notes the ancestors and starts the thread. @return false when there is nobody to watch
    bool start();
    /// Ends the watch; this process may outlive its launcher from now on.
    void stop();
    /// The processes that this watch watches, the parent first.
    const std::vector<Ancestor>& getAncestors() const;

    /// Whether a process of this name starts the ranks of jobs.
    static bool isLauncherName(const std::string& name);
    /// The name of the process `pid` when it is a launcher that passes no wish of the user on: its SIGTERM
    /// says that it takes the job down, and SIGKILL follows within seconds whatever the process does (Open
    /// MPI's). Else empty.
    static std::string getKillingLauncher(int pid);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
