#pragma once

#include "kernel/Observer.h"
#include "machine/MachineExport.h"

#include <array>
#include <cstddef>
#include <string>

class Communicator;
class MachineHost;
struct MachineOptions;

/// Tells what this process is in its job: its role, rank and size, its communicators and host, and the locks
/// on message passing. Everything in OrvexMachine builds on it; Machine, on top, derives from it and sets it.
///
/// Solvers call these operations by way of Machine. They work before Machine::main() and then tell of a
/// serial process with one rank. Any thread may call them once main() has fixed the role.
class ORVEX_MACHINE_EXPORT MachineGround {
public:
    enum SerialParallelMode : int { SERIAL_MODE = 0, MASTER_MODE = 1, WORKER_MODE = 2 };
    enum NodeState : int {
        UNKNOWN_STATE = -1,
        AWAITING_COMMAND = 0,
        GATHERING_RESPONSE = 1,
        HANDLING_ERROR = 2,
        PROCESSING = 3
    };
    /// The groups of ranks that share memory; indexes the shared-memory and sparse communicators.
    enum ShmemScope : int { NUMA_SCOPE = 0, SOCKET_SCOPE = 1, HOST_SCOPE = 2 };
    static constexpr std::size_t NUMBER_SHMEM_SCOPES = 3;

    /// Is told once near the end of Machine::main().
    class OnExitObserver : public Observer {};

    // Guards that lock messaging out of a region: machine/GroundLocks.h
    class SerialCritical;
    class ParallelPerformanceCritical;

    // ---- Role and size.
    static bool isSerial() { return _ground.mode == SERIAL_MODE; }
    /// Rank 0 of a parallel job; false in a serial process.
    static bool isMaster() { return _ground.mode == MASTER_MODE; }
    static bool isParallel() { return _ground.mode > SERIAL_MODE; }
    /// The one process that talks to the user.
    static bool isSerialOrMaster() { return _ground.mode != WORKER_MODE; }
    static unsigned nProcesses() { return _ground.size; }
    static unsigned getPartitionId() { return _ground.rank; }

    // ---- Communicators and host. They stay the machine's.
    /// All ranks. A parallel process has it from startCommunicators() until stopCommunicators() or abort();
    /// nobody may ask for it before and after: there is nothing behind the reference then.
    /// @throw InternalError in a serial process
    static Communicator& globalCommunicator();
    /// All ranks again, for the messages of the command road alone: what a rank that failed does on the
    /// global communicator can't meet them. The global one in a process that has no other. As above.
    /// @throw InternalError in a serial process
    static Communicator& commandCommunicator();
    /// The ranks that share `scope` with this one. There is none before main() has bound the processes, nor
    /// after stopCommunicators() or abort(), as above.
    /// @throw InternalError in a serial process
    static Communicator& sharedMemCommunicator(ShmemScope scope);
    /// The ranks that are the first in their shared-memory communicator. Null on all others, and while there
    /// are no shared-memory communicators. @throw InternalError in a serial process
    static Communicator* hasSparseCommunicator(ShmemScope scope);
    /// @throw InternalError before startCommunicators() and after stopCommunicators()
    static const MachineHost& getHost();

    static const std::string& getExecutableName() { return _ground.executableName; }
    /// Whether the process summary tells the process identifier of each rank.
    static bool getPrintpids();
    /// The options of this process. Their struct isn't installed: Machine's readers tell them to solvers.
    static const MachineOptions& getOptions() { return _options; }

    // ---- Locks, see machine/GroundLocks.h. Local.

    /// @throw InternalError with the message while a SerialCritical lives, in every version and role
    static void assertNotSerialCritical(const char* message);
    /// In a development version with its checks on; another one goes on.
    /// @throw InternalError while a ParallelPerformanceCritical lives, after an explanation on the console
    static void assertNotParallelPerformanceCritical(const char* message);
    static bool isSerialCritical() { return _ground.serialCriticalLock != 0; }
    static const unsigned& getPerformanceCriticalLock() { return _ground.performanceCriticalLock; }

    /// Whether the collective checks of a development version run.
    static bool hasDevErrorChecking();
    static void setDevErrorChecking(bool on) { _ground.devErrorChecking = on; }

    static NodeState getState() { return _ground.nodeState; }
    static void setState(NodeState state) { _ground.nodeState = state; }
    static std::string getStateString(NodeState state);

protected:
    /// Borrowed pointers: Machine owns what they point to.
    struct State {
        SerialParallelMode mode = SERIAL_MODE;
        unsigned size = 1;
        unsigned rank = 0;
        Communicator* global = nullptr;
        Communicator* command = nullptr;
        std::array<Communicator*, NUMBER_SHMEM_SCOPES> shmem{};
        std::array<Communicator*, NUMBER_SHMEM_SCOPES> sparse{};
        const MachineHost* host = nullptr;
        std::string executableName = {};
        std::wstring executableDirectory = {};
        bool devErrorChecking = true;
        NodeState nodeState = AWAITING_COMMAND;
        unsigned serialCriticalLock = 0;
        unsigned performanceCriticalLock = 0;
    };

    /// Lifts all locks on messaging, for a signal has interrupted the code that held them. Main thread.
    static void liftLocks();

    static State _ground;
    static MachineOptions _options;

private:
    static void handleFailedPerformanceCriticalTest(const char* message);
};
