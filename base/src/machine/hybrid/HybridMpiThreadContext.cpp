#include "machine/HybridMpiThreadContext.h"

#include "machine/Affinity.h"
#include "machine/AffinityRelaxer.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/FieldLoopState.h"
#include "machine/MachineHost.h"
#include "machine/ThreadCount.h"
#include "machine/ground/MachineOptions.h"
#include "machine/hybrid/HostMeeting.h"
#include "machine/hybrid/ThreadBindingReport.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/EventTracker.h"
#include "kernel/Raise.h"
#include "kernel/ThreadParallelContext.h"
#include "platform/StackTracer.h"
#include "platform/TickClock.h"

#include <exception>

namespace {

constexpr MessageOperation LEAVE{"HybridMpiThreadContext::leaveHybridContext", CommunicatorStatistics::GLOBAL,
                                 true, Collective::LEAVE_HYBRID_CONTEXT};

/// The error of a rank that waited for one that failed. In a response it has no message of its own: the rank
/// that failed has it.
class OtherProcessFailed : public RecoverableError {
public:
    explicit OtherProcessFailed(const std::string& text)
        : RecoverableError("", RECOVERABLE_SEVERITY, Properties(), DEFAULT_ERROR_TYPE, true), _text(text) {}
    const char* what() const noexcept override { return _text.c_str(); }

private:
    std::string _text;
};

/// Threads are up, or may be.
class ThreadsUp {
public:
    ThreadsUp() { ++ThreadParallelContext::_threadParallelContext; }
    ~ThreadsUp() { --ThreadParallelContext::_threadParallelContext; }
    ThreadsUp(const ThreadsUp&) = delete;
    ThreadsUp& operator=(const ThreadsUp&) = delete;
};

std::string describe(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "an error of unknown type";
    }
}

/// Returns when all ranks are here. Collective.
/// @param failure  what left the work on this rank
/// @param hasLent  this rank has left its processor to the threads of another one
void leave(const std::exception_ptr& failure, const std::string& name, bool hasLent) {
    Communicator& ranks = MachineGround::globalCommunicator();
    const std::uint64_t begin = Platform::TickClock::read();
    const bool hasFailed = HostMeeting::meet(ranks, LEAVE, failure != nullptr, 0.0);
    if (hasLent)
        OperationRecord::noteLent(Platform::TickClock::read() - begin);
    if (!hasFailed)
        return;
    unsigned failed = failure ? ranks.myRank() : ranks.size();
    ranks.allReduce(failed, Communicator::MIN);
    std::string text;
    if (failed == ranks.myRank())
        text = describe(failure);
    ranks.broadcast(text, failed);
    if (failure)
        std::rethrow_exception(failure);
    raise(OtherProcessFailed("The hybrid operation " + name + " failed on rank " + std::to_string(failed) +
                             ": " + text));
}

} // namespace

void HybridMpiThreadContext::execute(MachineGround::ShmemScope scope, HybridMpiThreadOperation& operation) {
    run(scope, operation, nameOf(typeid(operation)));
}

std::string HybridMpiThreadContext::nameOf(const std::type_info& type) {
    return Platform::StackTracer::demangle(type.name());
}

void HybridMpiThreadContext::run(MachineGround::ShmemScope scope, HybridMpiThreadOperation& operation,
                                 const std::string& name) {
    ORVEX_ASSERT(!FieldLoopState::busy(), "Cannot start hybrid thread context inside FieldLoops!");
    ORVEX_ASSERT(!ThreadParallelContext::_threadParallelContext,
                 "Cannot start hybrid thread context inside another one!");
    const bool wasBound = Affinity::isProcessBound(MachineGround::getHost().getCpuTopology());
    const bool bindThreads = wasBound && MachineGround::getOptions().threadBinding;
    const AffinityRelaxer relaxer(scope, AffinityRelaxer::Key());
    const EventTracker::Track track("HybridMpiThreadContext", name);
    if (MachineGround::isSerial())
        return runThreads(scope, operation, name, bindThreads);
    std::exception_ptr failure;
    const bool hasThreads = MachineGround::hasSparseCommunicator(scope) != nullptr;
    try {
        if (hasThreads)
            runThreads(scope, operation, name, bindThreads);
    } catch (...) { // the other ranks wait for this one
        failure = std::current_exception();
    }
    leave(failure, name, !hasThreads);
}

void HybridMpiThreadContext::runThreads(MachineGround::ShmemScope scope, HybridMpiThreadOperation& operation,
                                        const std::string& name, bool bindThreads) {
    const ThreadsUp threadsUp;
    const HybridMachine machine(scope);
    const std::unique_ptr<AbstractThreadPolicy> policy =
        operation.createThreadPolicy(machine.nLocalCore(), bindThreads);
    ThreadCount::run([&] { operation.run(machine); });
    if (MachineGround::getOptions().threadBindingVerbose)
        ThreadBindingReport::print(name,
                                   policy ? policy->reportThreadAffinities() : std::vector<std::string>(),
                                   machine.isParallel() ? &machine.getCommunicator() : nullptr);
}
