#pragma once

#include "kernel/Observer.h"
#include "kernel/Subject.h"
#include "machine/ExitStatus.h"
#include "machine/MachineExport.h"
#include "machine/MachineGround.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

class Communicator;
class Error;
class HostMeeting;
class LauncherWatch;
class MachineHost;
class ParallelConsoleBuf;
class ParallelErrorHandler;
class Properties;
class LiveView;
class RollCall;
class TraceService;
class Serializable;
class StandardStreamManager;
class StuckWatch;
class SystemMonitor;
class Timer;
struct CommandLineOption;
struct ServerHostOptions;

namespace Analytics {
class Event;
class Manager;
} // namespace Analytics

/// The process of a serial run, or one rank of a job: what a solver asks of it beyond MachineGround, which
/// tells role, rank, size, communicators, host and locks.
///
/// One instance for each operating-system process. A solver is a module that the server loads; its commands
/// run on all ranks at the same time:
///
///     double sum = computeOnThisRank();
///     if (Machine::isParallel())
///         Machine::globalCommunicator().allReduce(sum, Communicator::SUM);
///     if (Machine::isSerialOrMaster())
///         std::cout << "total " << sum << " on " << Machine::nProcesses() << " ranks" << std::endl;
class ORVEX_MACHINE_EXPORT Machine : public MachineGround {
public:
    /// Kind of server that the modules above make of this process; only stored here.
    enum ServerType : int { DEFAULT_SERVER_TYPE = 0 };
    /// Notifies its observers near the end of main(), on the main thread of each rank. The communicators
    /// still exist then.
    class ORVEX_MACHINE_EXPORT OnExitObservable : public Subject {
    public:
        void attach(OnExitObserver& observer);
        void detach(OnExitObserver& observer);
    };

    /// Made on first use, without a lock: main() calls it before a second thread exists.
    static Machine& getSingleton();
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // ---- The end of the process.

    OnExitObservable& getOnExitObservable() { return _onExitObservable; }
    const ExitStatus& getExitStatus() const { return _exitStatus; }
    /// Adds `status` to the exit status of this process. Local.
    void updateExitStatus(const ExitStatus& status);
    /// Takes the whole job down with `status` added to the exit status. Any thread. Doesn't return in a
    /// serial process.
    void abort(const ExitStatus& status);
    /// abort() with the status of a server error, for code that can neither continue nor throw.
    static void abortFromAnywhere();

    /// Called with each non-recoverable error that is raised in a parallel process, on the raising thread and
    /// before the error goes on its way. Tells the master and waits: when all ranks met the error together it
    /// returns, and the error fails the command on all of them; otherwise the job ends with the error's
    /// message and stack trace and exit value 32. Returns at once for a collective error, for a recoverable
    /// one, and for one that no other rank can wait for: on the master away from the main thread, outside
    /// a command, or in a command of the master alone. A second error while the first is handled ends the
    /// job.
    void handleParallelError(Error* error);
    /// The channel of the error handling. @throw InternalError in a serial process, with -nothreads, and
    /// when it couldn't be started
    ParallelErrorHandler& getParallelErrorHandler();
    /// Ends the channel. From now on the errors of one rank go their way without the others. Part of main().
    void stopParallelErrorHandler();

    // ---- Times.
    //
    // Operations with `times` are collective over the global communicator, main thread. `times` gets one
    // element for each rank [s] on the serial or master process; other ranks leave it alone.

    /// The asctime text of the start, with its final newline.
    std::string getStartTime() const { return _startTime; }
    /// The asctime text of now.
    std::string getTime() const;
    /// [s] since an arbitrary moment: the message layer's clock in a parallel process, else the wall clock.
    double wallTime() const;
    /// Of the run, since the timer was started in main(). Collective.
    void getElapsedTimes(std::vector<double>& times) const;
    /// The same in processor time. Collective.
    void getCpuTimes(std::vector<double>& times) const;
    /// Switches the timer of the global communicator, and says so on the standard output; nothing in a serial
    /// process. Local.
    void enableCommunicationTimer(bool on);
    bool communicationTimerEnabled() const;
    /// [s] that this rank has spent in communication while the timer was on; 0 in a serial process.
    double getTotalCommunicationTime() const;
    /// The same of all ranks. Collective.
    void getCommunicationTimes(std::vector<double>& times) const;

    // ---- Memory.

    static bool hasSystemMonitor();
    /// On: makes the monitor of this process, which samples `rate` times a second [1/s], and records. Off:
    /// stops it, and the serial or master process writes the history of the job to
    /// "memory-history-<time>.csv" in its folder. Nothing when that is so already. Collective over the job.
    /// @throw InputError on all ranks for a rate that isn't 0.001 to 1000
    /// @throw SystemError on all ranks: one of them has no thread left; or the file can't be written, and the
    /// monitor stays, stopped: switching it off again writes anew, switching it on goes on
    static void enableSystemMonitor(bool enable, float rate);
    /// @throw InternalError while there is none
    SystemMonitor& getSystemMonitor();

    // ---- Standard streams.

    /// @throw InternalError before main() has made it
    StandardStreamManager& getStandardStreamManager();
    /// Lets the workers' standard output reach the console, or silences it again; nothing in a serial
    /// process. Collective when `on`. @throw InputError on all ranks once the master's streams were moved to
    /// files
    void enableSlaveCout(bool on);
    bool slaveCoutEnabled() const;
    /// Whether each rank keeps its output in "partition<rank>.log"; nothing in a serial process.
    /// Collective. @throw SystemError on all ranks, with no log left on, when one can't open its file
    void enableSlaveCoutLogFile(bool on);

    // ---- The job.

    /// One name for each rank, on the serial or master process; others leave `hosts` alone. Collective.
    void getHostsOnMaster(std::vector<std::string>& hosts) const;
    /// The hosts of the job with their processes, hardware and software, on the serial or master process;
    /// others get the numbers only. Collective.
    void getSystemInformationOnMaster(Properties& result) const;
    /// Borrowed; main() destroys it under -deleteOnExit.
    void registerDefaultRootObject(Serializable* root) { _defaultRootObject = root; }
    bool isUsageManagerInitialized() const;
    void logUsageEvent(Analytics::Event& event);

    // ---- Options of the command line. Local.

    /// The folder of the program.
    static const std::wstring& getExecutablePath() { return _ground.executableDirectory; }
    static bool isProxyServer();
    static bool isProxySessionDaemon();
    /// Whether threads are bound: not with -xthreadbindoff.
    static bool bindThreads();
    static bool enableThreadBindingVerbosity();
    /// Amount of output of the file operations on their work; 0: none.
    static int getIOVerbosityLevel();
    static void setIOVerbosityLevel(int level);
    /// Whether main() looks for other servers on the same cores, and moves away from them. On at first;
    /// -cpubindcontentiontest sets it. The same on all ranks, before main() gets there.
    static bool isCpuBindingContentionTestEnabled();
    static void enableCpuBindingContentionTest(bool on);
    static ServerType getServerType();
    static void setServerType(ServerType type);
    static std::wstring getPassToDesign();
    static void setPassToDesign(std::wstring text);
    /// Empty when the job writes none, and on workers.
    const std::string& getProcessFileName() const;
    /// Set on all ranks once main() has read the options.
    const std::wstring& getTemporaryDirectory() const;
    /// Empty without a job manager.
    std::wstring getJobManagerURL() const;
    /// -1 without a job manager.
    int getTaskId() const;
    bool isParallelIo() const;
    /// Stays false in a serial process.
    void setParallelIo(bool on);
    bool isDesignStudy() const;
    bool isDesignManager() const;

    // ---- For programs.

    /// The whole life of the process. Collective over all processes of the job. Main thread.
    /// @throw std::invalid_argument for what the user typed wrong in the options that all roles share
    /// @throw InternalError, NonRecoverableError when the message layer can't be started
    void main(int argc, char** argv);
    /// For the program, when main() has thrown: writes `line` on the standard error stream and takes a job
    /// down with `status`, since other ranks may wait for this one; in a process that isn't, or not yet, a
    /// rank of a job it only writes. All ranks fail alike as a rule, so a worker speaks only when the master
    /// hasn't ended the job meanwhile.
    static void endFailedStart(const ExitStatus& status, const std::string& line);
    /// Fixes the role and starts the message layer. Collective. Part of main(), public for programs that are
    /// not a server: they call it first and stopCommunicators() last.
    /// @throw std::invalid_argument for a driver that is missing or unknown, or an option without its value
    /// @throw InternalError when the driver module can't be used, or when there is a host already
    /// @throw NonRecoverableError when MPI doesn't start; the reason is on the standard error stream
    void startCommunicators(int& argc, char*** argv, std::map<std::string, unsigned>& consumed);
    /// Gives the ranks communicators along the hardware, and one thread in OpenMP and the mathematical
    /// libraries: hybrid contexts and shared-memory windows need it. Behind startCommunicators(); part of
    /// main(), where the processes are bound before. Collective over the job; in a serial process local.
    void startSharedMemory();
    /// Destroys the host and the communicators and ends the message layer. Collective over the global
    /// communicator, main thread; a serial process only loses its host, and a second call does nothing there.
    void stopCommunicators();

private:
    friend class MachineTestAccess;

    /// Option word to the number of command-line words that it uses, filled by the passes over the line.
    using ConsumedOptions = std::map<std::string, unsigned>;

    /// Lifts all messaging locks when a signal interrupts the code that holds them.
    class SignalRaisedObserver : public Observer {
    public:
        void update(Properties& properties) override;
    };

    Machine();

    // ---- The steps of main(), in their order.

    /// Prints the answer to --help or --version. @return whether one of them was asked
    bool answerQuestion(int argc, const char* const* argv);
    static std::string helpText();
    static std::vector<CommandLineOption> listStartOptions();
    static std::vector<CommandLineOption> listCommonOptions();
    void startMessageLayer(const std::string& module, int& argc, char*** argv);
    void startLauncherWatch();
    /// @param processors  that this process was given at its start
    void startHost(const std::vector<unsigned>& processors);
    void testOverSubscription() const;
    static void parseCommonArgvs(int argc, char** argv, ConsumedOptions& consumed);
    void installTerminateHandler();
    void uninstallTerminateHandler();
    void bindProcesses();
    void conformProcessAffinityToMainThreadAffinity();
    void resolveCpuContention() const;
    void testForCpuBindingCollisions(unsigned verbosity) const;
    void buildShmemCommunicators();
    /// @param indices  the sockets or NUMA nodes that this process is bound to
    void buildScopeCommunicator(ShmemScope scope, const std::vector<unsigned>& indices);
    /// One communicator of all ranks that are the first in theirs; null on the others.
    std::unique_ptr<Communicator> createSparseCompanion(const Communicator* communicator) const;
    void warnOfMixedVectorization() const;
    void startParallelErrorHandler();
    void startRollCall();
    void prepareStuckWatch();
    void endStuckJob(const std::string& text);
    void endLostRank();
    void dropParallelErrorHandler();
    void startTimer();
    static void scanForDesignFlags(int argc, const char* const* argv);
    void startUsageManager();
    void startConsole();
    void runRole(int argc, char** argv, ConsumedOptions& consumed);
    void abortRole(const std::string& text, const std::string& reason);
    void stopLogger();
    void endSystemMonitor();
    void stopUsageManager();
    void deleteOnExit();
    void stopTimer();
    void stopHost();
    void stopConsole();

    // ---- The work of a serial or master process.
    void startServerHost(int argc, char** argv, ConsumedOptions& consumed);
    void settleSessionFile(const std::wstring& name, bool createNew);
    [[noreturn]] void refuseSessionFile(const char* key, const std::wstring& name,
                                        const std::string& message);
    void serve(const ServerHostOptions& options);
    void writeProcessFile() const;
    /// Ends the process, or the job when there is one, with `status` as it is.
    [[noreturn]] void leave(const ExitStatus& status);
    /// Prints the error with its trace and takes the job down.
    [[noreturn]] void endByError(const Error& error);
    static void abortRanks(const ExitStatus& status);

    void startSystemMonitor(float rate);
    void stopSystemMonitor();

    void gatherOnMaster(double value, std::vector<double>& values) const;
    /// Gives up the communicators without destroying them: other ranks may be anywhere.
    /// @return that of all ranks, null when there is none
    static Communicator* releaseCommunicators();

    static Machine* _singleton;

    OnExitObservable _onExitObservable;
    std::string _startTime;
    SignalRaisedObserver _signalRaisedObserver;
    ServerType _serverType = DEFAULT_SERVER_TYPE;
    ExitStatus _exitStatus;
    Serializable* _defaultRootObject = nullptr;

    // ---- Its own, each from a start step to a stop step. The last goes first.
    std::unique_ptr<LauncherWatch> _launcherWatch; ///< in a parallel process
    std::unique_ptr<Communicator> _globalComm;
    std::unique_ptr<Communicator> _commandComm;
    std::array<std::unique_ptr<Communicator>, NUMBER_SHMEM_SCOPES> _shmemComm;
    std::array<std::unique_ptr<Communicator>, NUMBER_SHMEM_SCOPES> _sparseComm;
    std::unique_ptr<HostMeeting> _hostMeeting; ///< null in a serial process
    std::unique_ptr<MachineHost> _host;
    std::unique_ptr<RollCall> _rollCall;                         ///< null with -nothreads
    std::unique_ptr<LiveView> _liveView;                         ///< null with -nothreads
    std::unique_ptr<TraceService> _traceService;                 ///< the same
    std::unique_ptr<ParallelErrorHandler> _parallelErrorHandler; ///< null in a serial process, too
    std::unique_ptr<StuckWatch> _stuckWatch;                     ///< on the master
    std::unique_ptr<Timer> _timer;
    std::unique_ptr<Analytics::Manager> _usageManager;
    std::unique_ptr<ParallelConsoleBuf> _parallelConsoleBuf;
    std::unique_ptr<StandardStreamManager> _standardStreamManager;
    std::unique_ptr<SystemMonitor> _systemMonitor;
};
