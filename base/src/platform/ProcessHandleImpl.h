#pragma once

#include "platform/Pipe.h"
#include "platform/ProcessHandle.h"

#include <memory>
#include <optional>

/// The data of a handle. Private to the platform layer.
struct OS::Process::ProcessHandle::Impl {
    int pid = -1;
    bool ownGroup = false;
    std::unique_ptr<Pipe> output; ///< null when the child prints where we do, or the keeper reads it
    std::unique_ptr<Pipe> input;
    bool outputTaken = false; ///< the caller reads the output
    std::optional<int> exitStatus;

    /// Collects the end if it has come. @return true when it has
    bool poll();
    /// Waits until `until` on the clock of Platform::time(), without limit when it is negative.
    bool waitUntil(double until);
    /// To the child, and to its group when it has one of its own.
    void signal(int number);
    void dropOutput();
};
