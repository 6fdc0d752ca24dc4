#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Subject.h"

#include <atomic>
#include <string>

/// Work that takes long enough for people to want to see how far it is, and to end it.
///
/// The code at work makes a Task on the stack and tells its progress; the observers of getObservable() hear
/// of it. Main thread, but for cancel(), isCancelled() and cancelCurrent().
class ORVEX_KERNEL_EXPORT Task {
public:
    static constexpr const char* NAME_TAG = "Task";
    static constexpr const char* PROGRESS_TAG = "Progress"; ///< real, 0 to 1
    static constexpr const char* MESSAGE_TAG = "Message";
    static constexpr const char* STATE_TAG =
        "State"; ///< "started", "running", "finished", "cancelled", "failed"

    explicit Task(std::string name);
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    /// Tells the end: "finished", "cancelled", or "failed" when an exception passes.
    ~Task();

    const std::string& getName() const { return _name; }
    /// From 0 to 1.
    double getProgress() const { return _progress; }

    /// Tells how far the work is. Observers hear of it when the fraction grew by a hundredth or the message
    /// changed.
    /// @param fraction  0 to 1; what lies outside is cut
    /// @throw RecoverableError when the task was cancelled
    void setProgress(double fraction, const std::string& message = std::string());

    /// Asks the work to end at its next setProgress(). Any thread.
    void cancel() { _cancelled.store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return _cancelled.load(std::memory_order_relaxed); }

    /// Cancels the innermost task at work, if there is one. Any thread.
    /// @return false when there is none
    static bool cancelCurrent();
    /// Told of each step of every task: NAME_TAG, PROGRESS_TAG, MESSAGE_TAG, STATE_TAG.
    static Subject& getObservable();

private:
    void tell(const char* state);

    std::string _name;
    std::string _message;
    double _progress = 0.0;
    double _toldProgress = 0.0;
    int _nExceptions;
    std::atomic<bool> _cancelled{false};
};
