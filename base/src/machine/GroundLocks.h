#pragma once

#include "machine/MachineExport.h"
#include "machine/MachineGround.h"

#include <string>

/// Locks message passing out of the region that the object lives in: code that only some ranks run, where a
/// collective would hang. Nests. Created on another thread than the main one it has no effect.
class ORVEX_MACHINE_EXPORT MachineGround::SerialCritical {
public:
    SerialCritical();
    ~SerialCritical();
    SerialCritical(const SerialCritical&) = delete;
    SerialCritical& operator=(const SerialCritical&) = delete;

    /// Does nothing. A call of it keeps the compiler from warning of an unused object.
    void bye() {}

private:
    friend class MachineGround;
    static void setDepth(unsigned depth);
};

/// Locks message passing out of the region that the object lives in: inner loops that it would ruin. Only a
/// development version with its checks on enforces it. Nests. Created on another thread than the main one it
/// has no effect.
class ORVEX_MACHINE_EXPORT MachineGround::ParallelPerformanceCritical {
public:
    class Exemption;
    class TemporaryExemption;

    ParallelPerformanceCritical();
    ~ParallelPerformanceCritical();
    ParallelPerformanceCritical(const ParallelPerformanceCritical&) = delete;
    ParallelPerformanceCritical& operator=(const ParallelPerformanceCritical&) = delete;

private:
    friend class MachineGround;
    static void setDepth(unsigned depth);
};

/// Lifts the performance-critical lock while the object lives, however deep it is, and then restores it. On
/// another thread than the main one it changes nothing.
class ORVEX_MACHINE_EXPORT MachineGround::ParallelPerformanceCritical::Exemption {
public:
    Exemption();
    virtual ~Exemption();
    Exemption(const Exemption&) = delete;
    Exemption& operator=(const Exemption&) = delete;

private:
    unsigned _lock; ///< the depth that was taken away
};

/// An exemption that is to go once the problem with the given id is solved. Those of the main thread are
/// counted; on another thread it changes nothing, but its id is checked all the same.
class ORVEX_MACHINE_EXPORT MachineGround::ParallelPerformanceCritical::TemporaryExemption : public Exemption {
public:
    /// Prints the number of exemptions at the exit of the machine.
    class ORVEX_MACHINE_EXPORT OnExit : public MachineGround::OnExitObserver {
    public:
        void update(Properties& properties) override;
    };

    /// @param jiraId  "OXMP-" or "OXMP_" and the number of the problem
    /// @throw InternalError in a development version when `jiraId` has another form
    explicit TemporaryExemption(std::string jiraId);

    const std::string& getJiraId() const { return _jiraId; }

    /// Whether each exemption is announced on the standard output.
    static bool verbose() { return _verbose; }
    /// Counts one more; the constructor has done so for its object. Main thread.
    static void addExemption(const TemporaryExemption&) { ++_nExemptions; }
    /// Prints on the standard output how many were granted in this process. Local.
    static void printExemptions();
    /// To be attached to Machine::getOnExitObservable() when verbose().
    static OnExit& getExitObserver() { return _onExitObserver; }

private:
    friend class MachineLocksTestAccess;

    static bool isJiraId(const std::string& id);

    static unsigned _nExemptions;
    static bool _verbose;
    static OnExit _onExitObserver;

    std::string _jiraId;
};
