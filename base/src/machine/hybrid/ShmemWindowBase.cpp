#include "machine/ShmemWindowBase.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/MpiCore.h"
#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/MessageGate.h"
#include "machine/messages/MessageTags.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"
#include "platform/Memory.h"
#include "platform/Threads.h"
#include "platform/Time.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <limits>
#include <string>

namespace {

constexpr MessageOperation CREATE{"ShmemWindowBase::createWindow", CommunicatorStatistics::GLOBAL, true,
                                  Collective::CREATE_WINDOW};
constexpr MessageOperation FENCE{"ShmemWindowBase::fence"};
constexpr MessageOperation FREE{"ShmemWindowBase::freeWindow"};
constexpr MessageOperation AWAIT{"ShmemWindowBase::waitForCounter"};

constexpr int FIRST_LOOKS = 2000;      ///< some microseconds
constexpr double YIELD_TIME = 1e-3;    ///< [s] that a rank gives its processor away and looks again
constexpr double SLEEP_SHARE = 0.05;   ///< of the time that it has waited
constexpr double LONGEST_SLEEP = 1e-2; ///< [s]

/// To look for a message, even one that nobody sends, makes those under way move on.
void moveMessages() {
    unsigned source = MpiCore::ANY_SOURCE;
    unsigned tag = MessageTags::SYNCHRONISE;
    unsigned count = 0;
    static_cast<void>(MachineGround::globalCommunicator().iProbe<char>(source, tag, count));
}

Communicator& getHostCommunicator() {
    ORVEX_ASSERT_AS(MpiCore::hasMpiSharedMemory(), "MpiCore::hasMpiSharedMemory()",
                    "shared memory not available");
    return MachineGround::sharedMemCommunicator(MachineGround::HOST_SCOPE);
}

} // namespace

ShmemWindowBase::ShmemWindowBase(std::size_t count, unsigned elementSize)
    : ShmemWindowBase(count, elementSize, getHostCommunicator()) {}

ShmemWindowBase::ShmemWindowBase(std::size_t count, unsigned elementSize, Communicator& comm)
    : ShmemWindowBase(divideEvenly(count, comm.size()), elementSize, comm) {}

ShmemWindowBase::ShmemWindowBase(const Shares& shares, unsigned elementSize, Communicator& comm)
    : _dispUnit(elementSize), _shares(shares), _rank(comm.myRank()),
      _label(CollectiveHistory::of(comm).getLabel()) {
    commonConstructor(comm);
}

void ShmemWindowBase::commonConstructor(Communicator& comm) {
    const std::size_t count = _shares.back();
    _winSize = count * _dispUnit;
    const auto largest = static_cast<std::size_t>(std::numeric_limits<OXM_MPI_Aint>::max());
    if (_dispUnit != 0 && count > largest / _dispUnit)
        raise(SystemError("A shared-memory window of " + std::to_string(count) + " elements of " +
                          std::to_string(_dispUnit) + " bytes is larger than any memory"));
    assertRoom(comm);
    {
        CollectiveHistory::of(comm).note(
            CollectiveHistory::wordOf(Collective::CREATE_WINDOW, static_cast<unsigned>(_winSize)));
        const OperationRecord::Scope recorded(CREATE);
        const OXM_MPI_Aint own = _rank == 0 ? static_cast<OXM_MPI_Aint>(_winSize) : 0;
        MpiCore::handleError(OXM_MPI_Win_allocate_shared(own, static_cast<int>(_dispUnit), 0, comm.handle(),
                                                         &_baseAddress, &_win));
        OXM_MPI_Aint winSize = 0;
        int unit = 0;
        MpiCore::handleError(OXM_MPI_Win_shared_query(_win, 0, &winSize, &unit, &_baseAddress));
        ORVEX_ASSERT_AS(winSize == static_cast<OXM_MPI_Aint>(_winSize),
                        "winSize == static_cast<OXM_MPI_Aint>(_winSize)", "size mismatch");
    }
    reserve(comm);
}

/// Without room some MPI libraries make the window all the same, others tell one rank and leave the rest
/// waiting.
void ShmemWindowBase::assertRoom(Communicator& comm) const {
    comm.synchronise(); // all ranks have given up the windows before
    unsigned long long available = 0;
    if (_rank == 0)
        available = Platform::memory().getFreeSharedMemory();
    comm.broadcast(available, Communicator::masterRank());
    if (available < _winSize)
        raiseNoRoom(available);
}

void ShmemWindowBase::reserve(Communicator& comm) {
    const std::size_t begin = _shares[_rank] * _dispUnit;
    const std::size_t end = _shares[_rank + 1] * _dispUnit;
    int hasRoom =
        Platform::memory().reservePages(static_cast<char*>(_baseAddress) + begin, end - begin) ? 1 : 0;
    comm.allReduce(hasRoom, Communicator::MIN);
    if (hasRoom != 0)
        return;
    MpiCore::handleError(OXM_MPI_Win_free(&_win));
    unsigned long long available = Platform::memory().getFreeSharedMemory();
    comm.broadcast(available, Communicator::masterRank());
    raiseNoRoom(available);
}

void ShmemWindowBase::raiseNoRoom(unsigned long long available) const {
    raise(SystemError("A shared-memory window of " + std::to_string(_winSize) +
                          " bytes doesn't fit: " + Platform::Memory::SHARED_MEMORY_FOLDER +
                          " of its host has " + std::to_string(available) + " bytes free",
                      Error::RECOVERABLE_SEVERITY, Properties(), Error::DEFAULT_ERROR_TYPE, true));
}

ShmemWindowBase::~ShmemWindowBase() noexcept(false) {
    const OperationRecord::Scope recorded(FREE, _label);
    const bool isUnwinding = std::uncaught_exceptions() > 0;
    if (isUnwinding) // this rank may be the only one that comes here
        OperationRecord::setFailure("its message waits for the end of a shared-memory window");
    const int code = OXM_MPI_Win_free(&_win);
    if (isUnwinding)
        OperationRecord::setFailure({});
    else // a second exception would end the process
        MpiCore::handleError(code);
}

void ShmemWindowBase::fence() {
    const OperationRecord::Scope recorded(FENCE, _label);
    MpiCore::handleError(OXM_MPI_Win_fence(0, _win));
}

void ShmemWindowBase::await(std::uint64_t& counter, std::uint64_t value, unsigned owner) const {
    MessageGate::pass();
    const std::atomic_ref raised(counter);
    const auto isThere = [&] { return raised.load(std::memory_order_acquire) >= value; };
    if (isThere())
        return;
    const OperationRecord::Composite recorded(AWAIT, _label, sizeof(counter), static_cast<int>(owner));
    for (int looks = 0; looks < FIRST_LOOKS; ++looks)
        if (isThere())
            return;
    const double start = Platform::time().getTime();
    while (!isThere()) {
        moveMessages();
        const double waited = Platform::time().getTime() - start;
        if (waited < YIELD_TIME)
            Platform::threads().yield(); // the owner may need this processor
        else
            Platform::time().sleep(std::min(SLEEP_SHARE * waited, LONGEST_SLEEP));
    }
}

ShmemWindowBase::Shares ShmemWindowBase::divideEvenly(std::size_t count, unsigned ranks) {
    Shares borders(ranks + std::size_t{1}, 0);
    for (unsigned rank = 0; rank < ranks; ++rank)
        borders[rank + 1] = borders[rank] + count / ranks + (rank < count % ranks ? 1 : 0);
    return borders;
}

ShmemWindowBase::Shares ShmemWindowBase::gatherShares(std::size_t own, Communicator& comm) {
    Shares counts;
    comm.allGather(own, counts);
    Shares borders{0};
    for (const std::size_t count : counts)
        borders.push_back(borders.back() + count);
    return borders;
}
