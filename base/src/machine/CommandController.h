#pragma once

#include "kernel/Controller.h"
#include "kernel/Observer.h"
#include "machine/MachineExport.h"

#include <memory>
#include <string>

class Properties;

/// Runs every command on all ranks of the job.
///
/// On the master it watches the Controller: a command is sent to all workers before it runs, and the errors
/// of all ranks become one afterwards. A worker stands in processCommands() and runs what the master sends.
/// In a serial process it only adds the floating-point check after each command.
///
/// Main thread; what is collective goes over the command communicator, and nothing checks that the ranks
/// call it in step.
class ORVEX_MACHINE_EXPORT CommandController {
public:
    static constexpr const char* COMMAND_KEY = "Command"; ///< in a response: the name of the command
    static constexpr const char* RANK_KEY = "Rank";       ///< in an error: the rank whose error it is
    static constexpr const char* RANKS_KEY = "Ranks"; ///< in an error: all ranks that failed, as in "1,3-7"
    /// In an error: number of different messages on the ranks that failed, when there are several.
    static constexpr const char* MESSAGES_KEY = "DifferentMessages";

    /// Made on first use; the role must be fixed by then.
    static CommandController& getSingleton();
    void reset();
    CommandController(const CommandController&) = delete;
    CommandController& operator=(const CommandController&) = delete;

    /// The loop of the role. On a serial or master process it returns when the server has stopped, and the
    /// master has then released the workers; on a worker when the master releases it. Collective.
    void processCommands();

    /// Runs what stands in the master's queue on all ranks, and returns. Collective, at the same point of a
    /// running computation.
    void processQueuedCommands();

    /// Runs a command outside the loop. Serial or master; the workers stand in processCommands().
    /// @return false when `response` holds an error
    /// @throw InternalError on a worker
    bool masterExecuteCommand(const Properties& command, Properties& response);

    /// Loads a simulation file through the command "RestoreState". Serial or master; the workers stand in
    /// processCommands().
    /// @throw NonRecoverableError when the file can't be loaded, or no module knows how to
    void masterExecuteRestoreState(const std::wstring& filename);

    /// Makes the errors of all ranks one: the error of the lowest rank that has one with a message stands in
    /// `response` on every rank, with all its keys, with RANK_KEY when that isn't rank 0, RANKS_KEY and
    /// MESSAGES_KEY. Other keys of `response` stay. A response with Error::ERROR_TAG is taken for an error.
    /// Collective.
    void parseErrorProperties(Properties& response) const;

    /// Sends the workers of a parallel job out of processCommands(), for a server that ran its commands
    /// without the loop of processCommands(). Does nothing in a serial process. Serial or master.
    void releaseWorkers();

private:
    class ScatterCommandObserver;
    class GatherResponseObserver;
    class SerialBeginObserver;
    class SerialEndObserver;
    class PostExecuteFloatingPointErrorObserver;
    class CommandLoop;
    class SerialMasterCommandLoop;
    class SerialMasterQueuedCommandLoop;
    class SlaveCommandLoop;
    class SpinWaitScope;
    friend class CommandControllerTestAccess;

    CommandController();
    ~CommandController();

    bool getSpinWait() const { return _spinWait; }
    void setSpinWait(bool on) { _spinWait = on; }

    void scatterCommand(Properties& command) const;
    void gatherResponse(Controller::Outcome& outcome) const;
    void postExecuteFloatingPointErrorCheck(Controller::Outcome& outcome) const;

    static CommandController* _singleton;

    bool _spinWait = false; ///< while false, every scatter begins with a sleeping synchronisation
    std::unique_ptr<ScatterCommandObserver> _scatterCommandObserver;
    std::unique_ptr<GatherResponseObserver> _gatherResponseObserver;
    std::unique_ptr<SerialBeginObserver> _serialBeginObserver;
    std::unique_ptr<SerialEndObserver> _serialEndObserver;
    std::unique_ptr<PostExecuteFloatingPointErrorObserver> _postExecuteObserver;
};
