#pragma once

#include "kernel/Observer.h"
#include "kernel/Subject.h"
#include "machine/CpuBinder.h"
#include "machine/ExitStatus.h"
#include "machine/MachineExport.h"
#include "machine/MachineGround.h"

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

/// The process: what it owns, how it starts and how it stops. Its role, rank, communicators and locks stand
/// in MachineGround.
///
/// One instance for each operating-system process.
class ORVEX_MACHINE_EXPORT Machine : public MachineGround {
public:
    /// What kind of server the modules above make of this process; only stored here.
    enum ServerType : int { DEFAULT_SERVER_TYPE = 0 };
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

    /// The whole life of the process. Collective over all processes of the job. Main thread.
    /// @throw std::invalid_argument for what the user typed wrong in the options that all roles share
    /// @throw InternalError, NonRecoverableError when the message layer can't be started
    void main(int argc, char** argv);

    OnExitObservable& getOnExitObservable() { return _onExitObservable; }

    static bool isProxyServer() { return _isProxyServer; }
    static bool isProxySessionDaemon() { return _isProxySessionDaemon; }
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
    static ServerType getServerType();
    static void setServerType(ServerType type);
    static std::wstring getPassToDesign();
    static void setPassToDesign(std::wstring text);

    const std::string& getProcessFileName() const { return _processFileName; }
    const std::wstring& getTemporaryDirectory() const { return _temporaryDirectory; }
    std::wstring getJobManagerURL() const { return _jobManagerUrl; }
    int getTaskId() const { return _taskId; }
    bool isParallelIo() const { return _parallelIo; }
    /// Stays false in a serial process.
    void setParallelIo(bool on) { _parallelIo = on && isParallel(); }
    bool isDesignStudy() const { return _designStudy; }
    bool isDesignManager() const { return _designManager; }
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
    std::unique_ptr<Communicator> createSparseCompanion(const Communicator* communicator) const;
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
    /// @return that of all ranks, null when there is none
    static Communicator* releaseCommunicators();

    static Machine* _singleton;
    static bool _threaded;
    static bool _useInternalBinding;
    static CpuBindingPolicy _cpuBindingPolicy;
    static bool _cpuBindingContentionTest;
    static unsigned _threadBindingAttributes;
    static unsigned _iodebug;
    static bool _isProxyServer;
    static bool _isProxySessionDaemon;
    static std::wstring _executablePath;

    OnExitObservable _onExitObservable;
    std::string _processFileName;
    std::wstring _jobManagerUrl;
    int _taskId = -1;
    bool _parallelIo = false;
    bool _debuggerAttach = false;
    std::string _startTime;
    bool _deleteOnExit = false;
    std::wstring _temporaryDirectory;
    bool _usageDisabled = false;
    SignalRaisedObserver _signalRaisedObserver;
    std::wstring _passToDesign;
    ServerType _serverType = DEFAULT_SERVER_TYPE;
    ExitStatus _exitStatus;
    Serializable* _defaultRootObject = nullptr;
    bool _designStudy = false;
    bool _designManager = false;

    // Its own, each from a start step to a stop step. The last goes first.
    std::unique_ptr<LauncherWatch> _launcherWatch; ///< in a parallel process
    std::unique_ptr<Communicator> _globalComm;
    std::array<std::unique_ptr<Communicator>, NUMBER_SHMEM_SCOPES> _shmemComm;
    std::array<std::unique_ptr<Communicator>, NUMBER_SHMEM_SCOPES> _sparseComm;
    std::unique_ptr<MachineHost> _host;
    std::unique_ptr<Timer> _timer;
    std::unique_ptr<Analytics::Manager> _usageManager;
    std::unique_ptr<ParallelConsoleBuf> _parallelConsoleBuf;
    std::unique_ptr<StandardStreamManager> _standardStreamManager;
};
