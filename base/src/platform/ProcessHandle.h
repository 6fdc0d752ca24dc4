#pragma once

#include "platform/PlatformExport.h"

#include <memory>
#include <optional>

class Pipe;

namespace OS::Process {

/// A child process that this process started. One thread at a time.
///
/// A handle that goes away leaves its child running; what the child still prints is read and dropped, and its
/// end is collected, so it is neither stopped by a full pipe nor left as a zombie.
class ORVEX_PLATFORM_EXPORT ProcessHandle {
public:
    struct Impl;
    explicit ProcessHandle(std::unique_ptr<Impl> impl);
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;
    ~ProcessHandle();

    int getPid() const;
    bool isAlive();
    /// Waits for the end for at most `timeLimit` seconds (negative: without limit). When nobody reads the
    /// child's output, it is read and dropped meanwhile, so that a talkative child comes to its end.
    /// @return the exit status, 128 + the signal's number for a child that a signal ended; nothing when the
    ///         time is up
    std::optional<int> wait(double timeLimit = -1.0);
    /// Asks the child to end, and ends it by force after `grace` seconds. Returns when it has ended.
    void terminate(double grace = 2.0);

    /// The child's output, standard error included unless asked otherwise; null when it isn't for the
    /// caller to read. Owned by the handle.
    Pipe* getOutput();
    /// The child's standard input; null unless the child was started with one. Owned by the handle.
    Pipe* getInput();

private:
    std::unique_ptr<Impl> _impl;
};

} // namespace OS::Process
