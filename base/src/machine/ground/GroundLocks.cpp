#include "machine/GroundLocks.h"

#include "machine/FieldLoopState.h"

#include "kernel/MessagingGate.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"
#include "platform/StackTracer.h"
#include "platform/Thread.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <iostream>
#include <utility>

namespace {

/// Prints the calling functions, up to 12 frames.
void printCallers() {
    constexpr std::size_t MAX_FRAMES = 12;
    std::array<const void*, MAX_FRAMES> frames{};
    const std::size_t count = Platform::error().capture(frames.data(), frames.size());
    if (count == 0)
        return;
    std::cout << "Back trace : ";
    for (const std::string& frame : Platform::error().resolve(frames.data(), count))
        std::cout << frame;
    std::cout << std::endl;
}

} // namespace

using PerformanceCritical = MachineGround::ParallelPerformanceCritical;

unsigned PerformanceCritical::TemporaryExemption::_nExemptions = 0;
bool PerformanceCritical::TemporaryExemption::_verbose = false;
PerformanceCritical::TemporaryExemption::OnExit PerformanceCritical::TemporaryExemption::_onExitObserver;

MachineGround::SerialCritical::SerialCritical() {
    if (Thread::isMain())
        setDepth(_ground.serialCriticalLock + 1);
}

MachineGround::SerialCritical::~SerialCritical() {
    if (!Thread::isMain())
        return;
    // The counter was cleared when a signal interrupted the region.
    if (_ground.serialCriticalLock == 0)
        std::cout << "Warning : SerialCritical lock out of synch.." << std::endl;
    else
        setDepth(_ground.serialCriticalLock - 1);
}

void MachineGround::SerialCritical::setDepth(unsigned depth) {
    _ground.serialCriticalLock = depth;
    MessagingGate::set(MessagingGate::SERIAL_CRITICAL, depth != 0);
}

MachineGround::ParallelPerformanceCritical::ParallelPerformanceCritical() {
    if (Thread::isMain())
        setDepth(_ground.performanceCriticalLock + 1);
}

MachineGround::ParallelPerformanceCritical::~ParallelPerformanceCritical() {
    if (!Thread::isMain())
        return;
    if (_ground.performanceCriticalLock == 0)
        std::cout << "Warning : PerformanceCritical lock out of synch.." << std::endl;
    else
        setDepth(_ground.performanceCriticalLock - 1);
}

void MachineGround::ParallelPerformanceCritical::setDepth(unsigned depth) {
    _ground.performanceCriticalLock = depth;
    MessagingGate::set(MessagingGate::PERFORMANCE_CRITICAL, depth != 0);
}

MachineGround::ParallelPerformanceCritical::Exemption::Exemption() : _lock(_ground.performanceCriticalLock) {
    if (Thread::isMain())
        setDepth(_ground.performanceCriticalLock - _lock);
}

MachineGround::ParallelPerformanceCritical::Exemption::~Exemption() {
    if (Thread::isMain())
        setDepth(_ground.performanceCriticalLock + _lock);
}

MachineGround::ParallelPerformanceCritical::TemporaryExemption::TemporaryExemption(std::string jiraId)
    : _jiraId(std::move(jiraId)) {
    if (OrvexVersion::isDevelopmentVersion())
        ORVEX_ASSERT(isJiraId(_jiraId),
                     "Badly constructed JIRA ID passed to ParallelPerformanceCritical::TemporaryExemption!");
    if (!Thread::isMain())
        return;
    if (_verbose)
        std::cout << '[' << _jiraId << "] Granting temporary exemption to parallel lock." << std::endl;
    addExemption(*this);
}

void MachineGround::ParallelPerformanceCritical::TemporaryExemption::printExemptions() {
    std::cout << "A Total of " << _nExemptions
              << " temporary exemptions to the parallel performance critical lock have been granted."
              << std::endl;
}

bool MachineGround::ParallelPerformanceCritical::TemporaryExemption::isJiraId(const std::string& id) {
    constexpr std::size_t PREFIX_LENGTH = 4;
    if (id.empty() || id.compare(0, PREFIX_LENGTH, "OXMP") != 0)
        return false;
    if (id.size() <= PREFIX_LENGTH || (id[PREFIX_LENGTH] != '-' && id[PREFIX_LENGTH] != '_'))
        return false;
    return std::all_of(id.begin() + PREFIX_LENGTH + 1, id.end(),
                       [](unsigned char character) { return std::isdigit(character) != 0; });
}

void MachineGround::ParallelPerformanceCritical::TemporaryExemption::OnExit::update(Properties&) {
    printExemptions();
}

void MachineGround::assertNotSerialCritical(const char* message) {
    ORVEX_ASSERT_AS(_ground.serialCriticalLock == 0, "! _serialCriticalLock", message);
}

void MachineGround::assertNotParallelPerformanceCritical(const char* message) {
    if (_ground.performanceCriticalLock != 0)
        handleFailedPerformanceCriticalTest(message);
}

void MachineGround::handleFailedPerformanceCriticalTest(const char* const message) {
    if (!hasDevErrorChecking() || _ground.performanceCriticalLock == 0)
        return;
    std::cout << "PerformanceCriticalLock detected:\n"
                 "  This message is generated when communication is invoked\n"
                 "  in a performance critical section of code. Critical sections\n"
                 "  include Term::eval(FvBoundary&), Term::eval(FvRegion&).\n"
                 "  Communication should be moved outside the critical section\n"
                 "  using existing patterns such as a two-pass Term."
              << std::endl;
    printCallers();
    ORVEX_ASSERT_AS(_ground.performanceCriticalLock == 0, "!_performanceCriticalLock", message);
}

void MachineGround::liftLocks() {
    SerialCritical::setDepth(0);
    ParallelPerformanceCritical::setDepth(0);
    FieldLoopState::setIdle();
}
