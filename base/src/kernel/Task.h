#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Subject.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>

/// Work that takes long enough for people to want to see how far it is, and to end it.
///
/// Each rank that takes part in the work makes a Task of its own on the stack, and calls advance() in each
/// iteration:
///
///     Task task("Smooth the mesh");
///     for (unsigned i = 0; i < iterations; ++i) {
///         task.advance(double(i) / iterations); // all ranks, in the same iteration
///         ...
///     }
///
/// A client's wish to cancel reaches the master only. advance() carries it to the other ranks, and all leave
/// the work by the same error, thrown in the same call. To test isCancelled() or to throw on one rank alone
/// would leave the other ranks in their next collective for good.
///
/// Tasks may be nested. A cancel by a client ends the innermost task and those around it: a caller that
/// catches the error gets it again from its own next advance(). A task that begins after the cancel isn't
/// touched, so that for example a result can be saved.
///
/// A command that isn't distributed to all ranks runs on one rank, in a thread of its own or on the main
/// thread. There advance() sends no messages and concerns this rank alone.
class ORVEX_KERNEL_EXPORT Task {
public:
    static constexpr const char* NAME_TAG = "Task";
    static constexpr const char* PROGRESS_TAG = "Progress"; ///< real, 0 to 1
    static constexpr const char* MESSAGE_TAG = "Message";
    static constexpr const char* STATE_TAG =
        "State"; ///< "started", "running", "finished", "cancelled", "failed"
    /// By which the message of the error of a cancelled task ends.
    static constexpr const char* WAS_CANCELLED = "was cancelled";

    /// Local. The thread that does the work.
    explicit Task(std::string name);
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    /// Tells the end: "finished", or when an exception passes, "cancelled" or "failed". Local.
    ~Task();

    const std::string& getName() const { return _name; }

    /// setProgress(), and the end of the work on all ranks alike when a cancel was asked for on one of them.
    ///
    /// Collective over all ranks of the job in a command that runs on all of them; else local. Main thread,
    /// or the thread of a command that has its own. The ranks meet in one reduction of one number in the
    /// first call. In each meeting they agree after how many further calls they meet again: so many that a
    /// tenth of a second passes, 32 at most. The calls between cost some nanoseconds. So a cancel is heard
    /// within a tenth of a second or so, and within one call where a call takes longer.
    ///
    /// In a server without threads (-nothreads) nobody listens to clients while a command runs; there the
    /// master serves them in these meetings, without running their commands.
    /// @param fraction  see setProgress(); may differ from rank to rank
    /// @throw RecoverableError on all ranks in the same call, when a cancel was asked for
    /// @throw InternalError where message passing is locked, at the latest in the first call
    void advance(double fraction, const std::string& message = std::string());

    /// Tells how far the work is. Observers hear of it when the fraction grew by a hundredth or the message
    /// changed. Local, throws nothing of its own: also for work of one rank alone within a command of all.
    /// @param fraction  0 to 1; what lies outside is cut, NaN changes nothing
    void setProgress(double fraction, const std::string& message = std::string());

    /// Asks the work to end in its next advance(). On one rank is enough. Any thread.
    void cancel() { _cancelled.store(true, std::memory_order_relaxed); }
    /// Whether this rank knows of a cancel. When advance() has thrown for one, all ranks do. Any thread.
    bool isCancelled() const { return _cancelled.load(std::memory_order_relaxed); }

    /// The last words of a task.
    struct Report {
        std::string name;
        std::string message;
        double progress = 0.0;
        std::thread::id thread; ///< that does the work
    };
    /// Of the current task of this process: the innermost of the main thread, else the latest of the other
    /// threads. Any thread.
    static std::optional<Report> getCurrent();
    /// Cancels the current task and those around it. Any thread.
    /// @return false when there is none
    static bool cancelCurrent();
    /// Cancels the tasks on `thread` that have begun at `begin` or later. Any thread.
    /// @return false when there is none
    static bool cancelOn(std::thread::id thread, std::chrono::steady_clock::time_point begin);

    /// Told of each step of every task of this process: NAME_TAG, PROGRESS_TAG, MESSAGE_TAG, STATE_TAG; on
    /// the thread that does the work.
    static Subject& getObservable();

    // ---- For the floors above, which install what a task needs of them. Main thread.

    /// Gives all ranks the smallest of their values. Collective, called on the main thread.
    using Agreement = std::function<unsigned(unsigned)>;
    static void setAgreement(Agreement agreement);
    /// Called on the main thread in the meetings, before the ranks agree. Returns soon.
    static void setServing(std::function<void()> serving);

private:
    using Clock = std::chrono::steady_clock;

    void meet();
    unsigned proposeInterval(Clock::time_point now) const;
    void tell(const char* state);
    static Task* findCurrent();

    const std::string _name;
    const std::thread::id _thread;
    const bool _onMainThread;
    const Clock::time_point _began = Clock::now();
    std::string _message;
    double _progress = 0.0;
    double _toldProgress = 0.0;
    Report _told; ///< read by other threads
    int _nExceptions;
    std::atomic<bool> _cancelled{false};
    unsigned _interval = 1; ///< calls from the last meeting to the next
    unsigned _callsLeft = 1;
    Clock::time_point _lastMeeting = Clock::now();
};
