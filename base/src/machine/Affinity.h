#pragma once

#include "machine/AffinityMask.h"
#include "machine/MachineExport.h"

#include <vector>

class CpuTopology;

/// Reads and changes on which processors the calling thread or process may run.
///
/// The topology is the one of this host; without hardware information in it nothing is read or changed. A
/// call that the operating system refuses never throws: setters answer false and leave the binding as it was,
/// getters answer the empty mask. Local, any thread.
///
/// The setters are for the few classes that place processes and threads; others read.
class ORVEX_MACHINE_EXPORT Affinity {
public:
    static AffinityMask getThreadAffinity(const CpuTopology& topology);
    /// The union over the threads of this process.
    static AffinityMask getProcessAffinity(const CpuTopology& topology);
    /// The same of another process of this host; empty when it has ended or can't be read.
    static AffinityMask getProcessAffinity(const CpuTopology& topology, unsigned pid);
    /// The mask of processors by the operating system's numbers.
    static AffinityMask getMask(const std::vector<unsigned>& processors);
    /// Whether the binding lies within exactly one physical core.
    static bool isThreadBound(const CpuTopology& topology);
    static bool isProcessBound(const CpuTopology& topology);

private:
    friend class AffinityRelaxer;
    friend class AffinityTestAccess;
    friend class CpuBinder;
    friend class Machine;
    friend class MachineHost;
    friend class MachineCommands;
    friend class ThreadPolicyBase;

    static bool setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask);
    /// The same for another thread of this process, by the operating system's number.
    static bool setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask, int systemThread);
    /// Binds to the processor on which the thread runs now.
    static bool setThreadAffinityToCurrentCpuLocation(const CpuTopology& topology);
    /// Lets the thread run on all that this process may use.
    static bool clearThreadAffinity(const CpuTopology& topology);
    /// All threads that the process has; later ones inherit the binding of the thread that makes them.
    static bool setProcessAffinity(const CpuTopology& topology, const AffinityMask& mask);
    static bool setProcessAffinityToCurrentCpuLocation(const CpuTopology& topology);
    static bool clearProcessAffinity(const CpuTopology& topology);
};
