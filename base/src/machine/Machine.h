#pragma once

#include "kernel/Observer.h"
#include "kernel/Subject.h"
#include "machine/ExitStatus.h"
#include "machine/MachineExport.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

class Communicator;
class LauncherWatch;
class MachineHost;
class ParallelConsoleBuf;
class Properties;
class Serializable;
class StandardStreamManager;
class Timer;
struct CommandLineOption;
struct ServerHostOptions;

namespace Analytics {
class Event;
class Manager;
} // namespace Analytics

/// How processes are placed on processors.
enum CpuBindingPolicy : int {
    BANDWIDTH_BINDING = 0, ///< spread over sockets and NUMA nodes, each on a core of its own
    LATENCY_BINDING = 1,   ///< packed onto the lowest cores, each on one of its own
    LEAST_LOAD_BINDING = 2 ///< each where the operating system has put it
};

/// The process: what it is in the job, what it owns, how it starts and how it stops.
///
/// One instance for each operating-system process. The static accessors tell the role, size and rank; they
/// work before main() has run and then give a serial process of one rank. They may be called from any thread
/// once main() has fixed the role.
class ORVEX_MACHINE_EXPORT Machine {
public:
    enum SerialParallelMode : int { SERIAL_MODE = 0, MASTER_MODE = 1, WORKER_MODE = 2 };
    enum NodeState : int {
        UNKNOWN_STATE = -1,
        AWAITING_COMMAND = 0,
        GATHERING_RESPONSE = 1,
        HANDLING_ERROR = 2,
        PROCESSING = 3
    };
    /// What kind of server the modules above make of this process; only stored here.
    enum ServerType : int { DEFAULT_SERVER_TYPE = 0 };
    /// The groups of ranks that share memory; indexes the shared-memory and sparse communicators.
    enum ShmemScope : int { NUMA_SCOPE = 0, SOCKET_SCOPE = 1, HOST_SCOPE = 2 };
    static constexpr std::size_t NUMBER_SHMEM_SCOPES = 3;

    /// Told once near the end of main().
    class OnExitObserver : public Observer {};
    class ORVEX_MACHINE_EXPORT OnExitObservable : public Subject {
    public:
        void attach(OnExitObserver& observer);
        void detach(OnExitObserver& observer);
    };

    // Guards that lock messaging out of a region: machine/MachineLocks.h
    class SerialCritical;
    class ParallelPerformanceCritical;

    /// Made on first use, without a lock: main() calls it before a second thread exists.
    static Machine& getSingleton();
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    /// The whole life of the process. Collective over all processes of the job. Main thread.
    /// @throw std::invalid_argument for what the user typed wrong in the options that all roles share
    /// @throw InternalError, NonRecoverableError when the message layer can't be started
    void main(int argc, char** argv);

    OnExitObservable& getOnExitObservable() { return _onExitObservable; }

    // Role and size.
    static bool isSerial() { return _serialParallelMode == SERIAL_MODE; }
    /// Rank 0 of a parallel job; false in a serial process.
    static bool isMaster() { return _serialParallelMode == MASTER_MODE; }
    static bool isParallel() { return _serialParallelMode > SERIAL_MODE; }
    static bool isProxyServer() { return _isProxyServer; }
    static bool isProxySessionDaemon() { return _isProxySessionDaemon; }
    static unsigned nProcesses() { return _np; }
    static unsigned getPartitionId() { return _partition; }

    // Communicators and host. They stay the machine's.
    /// All ranks. A parallel process has it from startCommunicators() until stopCommunicators() or abort();
    /// nobody may ask for it before and after: there is nothing behind the reference then.
    /// @throw InternalError in a serial process
    static Communicator& globalCommunicator();
    /// The ranks that share `scope` with this one. There is none before main() has bound the processes, nor
    /// after stopCommunicators() or abort(), as above.
    /// @throw InternalError in a serial process
    static Communicator& sharedMemCommunicator(ShmemScope scope);
    /// The ranks that are the first in their shared-memory communicator. Null on all others, and while there
    /// are no shared-memory communicators. @throw InternalError in a serial process
    static Communicator* hasSparseCommunicator(ShmemScope scope);
    /// @throw InternalError before startCommunicators() and after stopCommunicators()
    static const MachineHost& getHost();

    static const std::string& getExecutableName() { return _executableName; }
    static const std::wstring& getExecutablePath() { return _executablePath; }
    static bool bindThreads() { return (_threadBindingAttributes & THREAD_BINDING_OFF) == 0; }
    static bool enableThreadBindingVerbosity() {
        return (_threadBindingAttributes & THREAD_BINDING_VERBOSE) != 0;
    }
    static int getIOVerbosityLevel() { return static_cast<int>(_iodebug); }
    static void setIOVerbosityLevel(int level) { _iodebug = static_cast<unsigned>(level); }
    /// Whether main() looks for other servers on the same cores, and moves away from them. On at first;
    /// -cpubindcontentiontest sets it. The same on all ranks, before main() gets there.
    static bool isCpuBindingContentionTestEnabled() { return _cpuBindingContentionTest; }
    static void enableCpuBindingContentionTest(bool on) { _cpuBindingContentionTest = on; }
    static bool getPrintpids() { return _printpids; }
    static ServerType getServerType();
    static void setServerType(ServerType type);
    static std::wstring getPassToDesign();
    static void setPassToDesign(std::wstring text);

    // Locks, see machine/MachineLocks.h. Local.

    /// @throw InternalError with the message while a SerialCritical lives, in every version and role
    static void assertNotSerialCritical(const char* message);
    /// In a development version with its checks on; another one goes on.
    /// @throw InternalError while a ParallelPerformanceCritical lives, after an explanation on the console
    static void assertNotParallelPerformanceCritical(const char* message);
    static const unsigned& getPerformanceCriticalLock() { return _performanceCriticalLock; }

    NodeState getState() const { return _state; }
    void setState(NodeState state) { _state = state; }
    std::string getStateString(NodeState state) const;
    const std::string& getProcessFileName() const { return _processFileName; }
    const std::wstring& getTemporaryDirectory() const { return _temporaryDirectory; }
    std::wstring getJobManagerURL() const { return _jobManagerUrl; }
    int getTaskId() const { return _taskId; }
    bool isParallelIo() const { return _parallelIo; }
    /// Stays false in a serial process.
    void setParallelIo(bool on) { _parallelIo = on && isParallel(); }
    bool isDesignStudy() const { return _designStudy; }
    bool isDesignManager() const { return _designManager; }
    /// Whether the collective checks of a development version run.
    bool hasDevErrorChecking() const;
    void setDevErrorChecking(bool on) { _devErrorChecking = on; }

    const ExitStatus& getExitStatus() const { return _exitStatus; }
    void updateExitStatus(const ExitStatus& status);
    /// Takes the whole job down with `status` added to the exit status. Any thread. Doesn't return in a
    /// serial process.
    void abort(const ExitStatus& status);
    /// abort() with the status of a server error, for whoever can neither go on nor throw.
    static void abortFromAnywhere();
    /// For the program, when main() has thrown: writes `line` on the standard error stream and takes a job
    /// down with `status`, since other ranks may wait for this one; in a process that isn't, or not yet, a
    /// rank of a job it only writes. All ranks fail alike as a rule, so a worker speaks only when the master
    /// hasn't ended the job meanwhile.
    static void endFailedStart(const ExitStatus& status, const std::string& line);

    /// The asctime text of the start, with its final newline.
    std::string getStartTime() const { return _startTime; }
    /// The asctime text of now.
    std::string getTime() const;
    /// [s] since an arbitrary moment: the message layer's clock in a parallel process, else the wall clock.
    double wallTime() const;
    void registerDefaultRootObject(Serializable* root) { _defaultRootObject = root; }

    StandardStreamManager& getStandardStreamManager();
    bool isUsageManagerInitialized() const;
    void logUsageEvent(Analytics::Event& event);

    // The road of the console and the times; collective over the global communicator where a gather is meant.
    /// Lets the workers' standard output reach the console, or silences it again; nothing in a serial
    /// process. Collective when `on`. @throw InputError on all ranks once the master's streams were moved to
    /// files
    void enableSlaveCout(bool on);
    bool slaveCoutEnabled() const;
    /// Whether each rank keeps what it prints in "partition<rank>.log"; nothing in a serial process.
    /// Collective. @throw SystemError on all ranks, with no log left on, when one can't open its file
    void enableSlaveCoutLogFile(bool on);
    void enableCommunicationTimer(bool on);
    bool communicationTimerEnabled() const;
    double getTotalCommunicationTime() const;
    void getCommunicationTimes(std::vector<double>& times) const;
    void getElapsedTimes(std::vector<double>& times) const;
    void getCpuTimes(std::vector<double>& times) const;
    /// One name for each rank, on the serial or master process; others leave `hosts` alone. Collective.
    void getHostsOnMaster(std::vector<std::string>& hosts) const;
    /// The hosts of the job with their processes, hardware and software, on the serial or master process;
    /// others get the numbers only. Collective.
    void getSystemInformationOnMaster(Properties& result) const;

    /// Fixes the role and starts the message layer. Collective. Part of main(), public for programs that are
    /// not a server: they call it first and stopCommunicators() last.
    /// @throw std::invalid_argument for a driver that is missing or unknown, or an option without its value
    /// @throw InternalError when the driver module can't be used, or when there is a host already
    /// @throw NonRecoverableError when MPI doesn't start; the reason stands on the standard error stream
    void startCommunicators(int& argc, char*** argv, std::map<std::string, unsigned>& consumed);
    /// Destroys the host and the communicators and ends the message layer. Collective over the global
    /// communicator, main thread; a serial process only loses its host, and a second call does nothing there.
    void stopCommunicators();

private:
    friend class Communicator;
    friend class GlobalCondition;
    friend class GlobalFloatingPointError;
    friend class MachineHost;
    friend class MachineTestAccess;

    /// Option word to the number of command-line words that it uses, filled by the passes over the line.
    using ConsumedOptions = std::map<std::string, unsigned>;

    class CommonOptions;

    static constexpr unsigned THREAD_BINDING_OFF = 1u << 0;
    static constexpr unsigned THREAD_BINDING_VERBOSE = 1u << 1;

    /// Lifts all messaging locks when a signal interrupts the code that holds them.
    class SignalRaisedObserver : public Observer {
    public:
        void update(Properties& properties) override;
    };

    Machine();

    static void handleFailedPerformanceCriticalTest(const char* message);

    // The steps of main(), in their order.
    /// Prints the answer to --help or --version. @return whether one of them was asked
    bool answerQuestion(int argc, const char* const* argv);
    static std::string helpText();
    static std::vector<CommandLineOption> listStartOptions();
    static std::vector<CommandLineOption> listCommonOptions();
    static const char* driverModuleName(const std::string& driver);
    static std::string findDriverModule(int argc, const char* const* argv, ConsumedOptions& consumed);
    void optionallyPreloadMpi(const char* module, int argc, const char* const* const* argv,
                              ConsumedOptions& consumed);
    void startMessageLayer(const std::string& module, int& argc, char*** argv);
    void startLauncherWatch();
    /// @param processors  that this process was given at its start
    void startHost(const std::vector<unsigned>& processors);
    void testOverSubscription() const;
    void parseCommonArgvs(int argc, char** argv, ConsumedOptions& consumed);
    void setTemporaryDirectory(const std::wstring& directory);
    void installTerminateHandler();
    void uninstallTerminateHandler();
    void bindProcesses();
    void conformProcessAffinityToMainThreadAffinity();
    void resolveCpuContention(const ConsumedOptions& consumed) const;
    void testForCpuBindingCollisions(int verbosity) const;
    void buildShmemCommunicators();
    /// @param indices  the sockets or NUMA nodes that this process is bound to
    void buildScopeCommunicator(ShmemScope scope, const std::vector<unsigned>& indices);
    /// One communicator of all ranks that are the first in theirs; null on the others.
    static std::unique_ptr<Communicator> createSparseCompanion(const Communicator* communicator);
    void warnOfMixedVectorization() const;
    void startParallelErrorHandler();
    void startTimer();
    void scanForDesignFlags(int argc, const char* const* argv);
    void startUsageManager();
    void startConsole();
    void runRole(int argc, char** argv, ConsumedOptions& consumed);
    void abortRole(const std::string& text, const std::string& reason);
    void stopLogger();
    void stopUsageManager();
    void deleteOnExit();
    void stopTimer();
    void stopHost();
    void stopConsole();

    // The work of a serial or master process.
    void startServerHost(int argc, char** argv, ConsumedOptions& consumed);
    void settleSessionFile(const std::wstring& name, bool createNew);
    [[noreturn]] void refuseSessionFile(const char* key, const std::wstring& name,
                                        const std::string& message);
    void serve(const ServerHostOptions& options);
    void writeProcessFile() const;
    /// Ends the process, or the job when there is one, with `status` as it is.
    [[noreturn]] void leave(const ExitStatus& status);
    static void abortRanks(const ExitStatus& status);

    void gatherOnMaster(double value, std::vector<double>& values) const;
    /// Gives up the communicators without destroying them: other ranks may be anywhere.
    static std::unique_ptr<Communicator> releaseCommunicators();

    static Machine* _singleton;
    static SerialParallelMode _serialParallelMode;
    static unsigned _np;
    static unsigned _partition;
    static bool _threaded;
    static bool _useInternalBinding;
    static CpuBindingPolicy _cpuBindingPolicy;
    static bool _cpuBindingContentionTest;
    static unsigned _threadBindingAttributes;
    static bool _printpids;
    static unsigned _iodebug;
    static bool _isProxyServer;
    static bool _isProxySessionDaemon;
    static std::string _executableName;
    static std::wstring _executablePath;
    static std::unique_ptr<Communicator> _globalComm;
    static std::array<std::unique_ptr<Communicator>, NUMBER_SHMEM_SCOPES> _shmemComm;
    static std::array<std::unique_ptr<Communicator>, NUMBER_SHMEM_SCOPES> _sparseComm;
    static MachineHost* _host;
    static unsigned _serialCriticalLock;
    static unsigned _performanceCriticalLock;

    OnExitObservable _onExitObservable;
    std::string _processFileName;
    NodeState _state = AWAITING_COMMAND;
    std::wstring _jobManagerUrl;
    int _taskId = -1;
    bool _parallelIo = false;
    bool _debuggerAttach = false;
    bool _devErrorChecking = true;
    Timer* _timer = nullptr;
    std::string _startTime;
    bool _deleteOnExit = false;
    std::wstring _temporaryDirectory;
    bool _usageDisabled = false;
    Analytics::Manager* _usageManager = nullptr;
    StandardStreamManager* _standardStreamManager = nullptr;
    ParallelConsoleBuf* _parallelConsoleBuf = nullptr;
    SignalRaisedObserver _signalRaisedObserver;
    std::wstring _passToDesign;
    ServerType _serverType = DEFAULT_SERVER_TYPE;
    ExitStatus _exitStatus;
    Serializable* _defaultRootObject = nullptr;
    bool _designStudy = false;
    bool _designManager = false;
    std::unique_ptr<LauncherWatch> _launcherWatch; ///< in a parallel process
};
