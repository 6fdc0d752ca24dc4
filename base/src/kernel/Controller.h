#pragma once

#include "kernel/KernelExport.h"

#include "kernel/Properties.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class Command;
class Mutex;
class Subject;

/// Knows the commands of this process and runs them.
///
/// The main thread runs commands: in processCommands(), processQueuedCommands() or executeCommand(). Other
/// threads only queue requests (see QueuedCommand) and ask what runs.
class ORVEX_KERNEL_EXPORT Controller {
public:
    static Controller& getSingleton();
    static void reset();

    /// Takes ownership. A second command of the same name is an InternalError. Main thread.
    void registerCommand(Command* command);
    /// Null when there is no such command. Internal ones are found as well.
    const Command* findCommand(const std::string& name) const;
    /// The commands that clients may ask for, in the order of their registration.
    std::vector<const Command*> getCommands() const;
    /// The name nearest to `name` (edit distance, ignoring case) of those that clients may ask for, empty
    /// when none is near.
    std::string getNearestName(const std::string& name) const;

    /// How a command ended. `status` alone tells results from errors: a command may give its results any
    /// keys, also those of an error.
    struct Outcome {
        enum Status {
            DONE,
            FAILED,          ///< it ran, and an error stands in the response
            UNKNOWN_COMMAND, ///< it never ran, for one of the reasons that follow
            WRONG_ARGUMENTS,
            STOPPING
        };
        Status status = DONE;
        Properties response;  ///< the results, or else the error
        Properties bill = {}; ///< what the command cost, empty when nobody has told

        bool hasFailed() const { return status != DONE; }
    };

    /// Runs `command`; what it throws, and every fault of the request itself, ends as an error in `response`.
    /// The request is checked against the command's help (see CommandHelp) before the observables are told of
    /// it, as one of a client is. They are told around it, except from within another command, which runs on
    /// all ranks already. Main thread; collective in the sense of the observers attached.
    /// @return false when `response` holds an error
    bool executeCommand(const Properties& command, Properties& response);
    /// The same for a command that another rank has checked and sent. Main thread.
    Outcome executeScattered(const Properties& command);
    /// The same for the loops that serve all ranks, answering with the text of the response: the observables
    /// are told also while a command runs, since such a loop may be served from within one.
    std::string execute(const Properties& command);

    /// A client's request on its way to the main thread.
    struct QueuedCommand {
        Properties command;
        std::string client; ///< on whose behalf, for people
        /// Called on the main thread, once, also when the request was never run.
        std::function<void(const Outcome& outcome)> onDone;
        /// Called when it begins to run, on the thread that runs it. Throws nothing.
        std::function<void()> onBegin = {};
    };
    /// The command at work, for those who ask.
    struct RunningCommand {
        std::string name;
        std::string client;
        std::chrono::system_clock::time_point since;
        std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
        std::thread::id thread = std::this_thread::get_id(); ///< that runs it
        /// The beginning of the command around it, if it runs within another, else its own.
        std::chrono::steady_clock::time_point outermostBegan = began;
    };

    /// Whether queued commands may run on threads of their own: yes unless told otherwise. Without threads a
    /// command that would, runs on the main thread, with messaging locked out. Main thread.
    void setThreadedCommands(bool on);

    /// Appends a request. Any thread. After stopProcessing() it is answered at once with an
    /// error, on the calling thread.
    void enqueue(QueuedCommand request);
    /// Any thread.
    std::optional<RunningCommand> getRunningCommand() const;

    /// Serves the queue until stopProcessing(). Main thread.
    void processCommands();
    /// Runs what stands in the queue and returns. Main thread.
    void processQueuedCommands();
    bool hasQueuedCommands() const { return getNumberQueuedCommands() > 0; }
    /// Requests that wait for the main thread. Any thread.
    std::size_t getNumberQueuedCommands() const;
    /// Ends processCommands() after the command at work; requests still queued are answered with an error.
    /// Any thread, also before processCommands() was entered.
    void stopProcessing();

    /// Told with the command before it runs.
    Subject& getMasterScatterCommandObservable();
    /// Told with the response after it ran. What an observer throws becomes the error of a command that had
    /// none.
    Subject& getMasterGatherResponseObservable();
    /// The same, after the one above.
    Subject& getPostExecuteFloatingPointErrorObservable();
    /// For observers of these two while they are told: the outcome whose response they were given. They may
    /// change it. Main thread.
    /// @throw InternalError when nobody is being told
    Outcome& getToldOutcome();
    /// Told when a signal was raised, on the thread that caused it, before the error is thrown.
    Subject& getSignalRaisedObservable();

    /// True while a command runs that isn't distributed to all ranks: messaging is locked out.
    static bool isSerialCritical() { return _serialCriticalLockCount != 0; }

    /// The lock that keeps other threads out of the Controller while a command runs.
    Mutex& getLock();

private:
    struct Impl;
    Controller();
    ~Controller();

    static unsigned _serialCriticalLockCount;
    std::unique_ptr<Impl> _impl;
};
