#include "machine/GlobalCondition.h"

#include "machine/Communicator.h"
#include "machine/GroundLocks.h"
#include "machine/MachineGround.h"

#include "kernel/MessagingGate.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"

namespace {

/// Collective: the number of ranks on which the condition holds.
unsigned countTrue(bool condition) {
    unsigned trueCount = condition ? 1u : 0u;
    MachineGround::globalCommunicator().allReduce(trueCount, Communicator::SUM);
    return trueCount;
}

bool checkInvariant(bool condition) {
    if (!MachineGround::hasDevErrorChecking() ||
        MachineGround::nProcesses() > GlobalCondition::MAX_CHECKED_PROCESSES)
        return condition;
    const MachineGround::ParallelPerformanceCritical::Exemption exemption;
    const unsigned trueCount = countTrue(condition);
    ORVEX_ASSERT_AS(trueCount == 0 || trueCount == MachineGround::nProcesses(),
                    "trueCount == 0 || trueCount == Machine::nProcesses()",
                    "Invalid use of ON_ALL_INVARIANT; conditions differ");
    return condition;
}

} // namespace

GlobalCondition::GlobalCondition(bool condition, ModeEnum mode)
    : _result(computeCollectiveCondition(condition, mode)) {}

GlobalCondition::~GlobalCondition() = default;

bool GlobalCondition::computeCollectiveCondition(bool condition, ModeEnum mode) {
    // An open gate says that nothing is locked.
    if (!MessagingGate::isOpen() && (MachineGround::isParallel() || OrvexVersion::isDevelopmentVersion()))
        ORVEX_ASSERT_AS(!MachineGround::isSerialCritical(), "! _serialCriticalLock",
                        "Coding error: GlobalCondition attempted in a serial-critical code section");
    if (MachineGround::isSerial())
        return condition;

    switch (mode) {
    case ON_ALL:
        return countTrue(condition) == MachineGround::nProcesses();
    case ON_ANY:
        return countTrue(condition) > 0;
    case ON_MASTER:
        MachineGround::globalCommunicator().broadcast(condition, Communicator::masterRank());
        return condition;
    case ON_ALL_INVARIANT:
        return checkInvariant(condition);
    }
    return condition;
}
