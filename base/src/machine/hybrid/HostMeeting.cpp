#include "machine/hybrid/HostMeeting.h"

#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineGround.h"
#include "machine/MpiCore.h"
#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/MessageGate.h"
#include "machine/messages/MessageTags.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Raise.h"
#include "platform/Futex.h"
#include "platform/Log.h"
#include "platform/Time.h"

#include <algorithm>
#include <new>

namespace {

constexpr double LONGEST_SLEEP = 0.010; ///< [s]
/// [s] of the first rank of a host: its own threads have come to their end, and the first sleep would be
/// longer than a message between hosts.
constexpr double SHORTEST_SPIN = 2e-4;

Communicator& getHostRanks() {
    return MachineGround::sharedMemCommunicator(MachineGround::HOST_SCOPE);
}

/// Whether `makes` succeeds on all ranks of the job. Collective.
template <class Makes>
bool succeedsEverywhere(Makes makes) {
    bool hasFailed = false;
    try {
        makes();
    } catch (const RecoverableError& error) {
        OS::Log::instance("Default").warning("HostMeeting", "@0@", error.what());
        hasFailed = true;
    }
    return !GlobalCondition(hasFailed, GlobalCondition::ON_ANY);
}

} // namespace

/// The numbers that the ranks of a host share, each in a cache line of its own.
struct HostMeeting::Words {
    alignas(64) Word arrived{0};    ///< ranks that have come
    alignas(64) Word generation{0}; ///< moves when all have come
    alignas(64) Word isMarked{0};   ///< one of them is marked
    Word result{0};                 ///< a rank of the job was marked in the last meeting
};

HostMeeting* HostMeeting::_current = nullptr;

HostMeeting::HostMeeting() {
    if (!succeedsEverywhere([this] { makeWords(); })) {
        _words = nullptr;
        _window.reset();
    }
    _current = this;
}

HostMeeting::~HostMeeting() {
    _current = nullptr;
}

void HostMeeting::makeWords() {
    static_assert(Word::is_always_lock_free, "processes share them");
    if (!MpiCore::hasMpiSharedMemory())
        raise(SystemError("The ranks of a host share no memory: they wake up late"));
    std::size_t space = sizeof(Words) + alignof(Words);
    _window = std::make_unique<ShmemWindow<std::byte>>(space, getHostRanks());
    // The window begins at the same place of a page on all ranks.
    void* place = _window->data();
    std::align(alignof(Words), sizeof(Words), place, space);
    _words = getHostRanks().myRank() == 0 ? new (place) Words : static_cast<Words*>(place);
    _window->fence();
}

void HostMeeting::meet(Communicator& ranks, const MessageOperation& operation, double spinTime) {
    meet(ranks, operation, Mark::NOT_ASKED, spinTime);
}

bool HostMeeting::meet(Communicator& ranks, const MessageOperation& operation, bool isMarked,
                       double spinTime) {
    return meet(ranks, operation, isMarked ? Mark::YES : Mark::NO, spinTime);
}

bool HostMeeting::meet(Communicator& ranks, const MessageOperation& operation, Mark mark, double spinTime) {
    MessageGate::pass();
    CollectiveHistory::of(ranks).note(CollectiveHistory::wordOf(operation.collective, 0));
    const OperationRecord::Composite recorded(operation);
    return _current && _current->_words ? _current->meetByMemory(mark, spinTime)
                                        : meetByMessages(ranks, mark, spinTime);
}

bool HostMeeting::meetByMemory(Mark mark, double spinTime) {
    const std::uint32_t generation = _words->generation.load(std::memory_order_acquire);
    if (mark == Mark::YES)
        _words->isMarked.store(1, std::memory_order_relaxed);
    const unsigned arrived = _words->arrived.fetch_add(1, std::memory_order_acq_rel) + 1;
    if (getHostRanks().myRank() == 0) {
        lead(mark, spinTime);
    } else {
        if (arrived == getHostRanks().size())
            Futex::wakeAll(_words->arrived); // the first rank waits for all others
        await(_words->generation, spinTime, [generation](std::uint32_t now) { return now != generation; });
    }
    return _words->result.load(std::memory_order_relaxed) != 0;
}

/// The first rank of a host lets the others go when it has met the first ranks of all hosts.
void HostMeeting::lead(Mark mark, double spinTime) {
    const unsigned all = getHostRanks().size();
    await(_words->arrived, spinTime, [all](std::uint32_t arrived) { return arrived == all; });
    std::uint32_t isMarked = _words->isMarked.load(std::memory_order_relaxed);
    Communicator& leaders = *MachineGround::hasSparseCommunicator(MachineGround::HOST_SCOPE);
    if (leaders.size() > 1) {
        leaders.noSpinSynchronise(std::max(spinTime, SHORTEST_SPIN), Communicator::Sleeps::GROWING);
        if (mark != Mark::NOT_ASKED)
            leaders.allReduce(isMarked, Communicator::MAX);
    }
    _words->result.store(isMarked, std::memory_order_relaxed);
    _words->isMarked.store(0, std::memory_order_relaxed);
    _words->arrived.store(0, std::memory_order_relaxed);
    _words->generation.fetch_add(1, std::memory_order_release);
    Futex::wakeAll(_words->generation);
}

bool HostMeeting::meetByMessages(Communicator& ranks, Mark mark, double spinTime) {
    ranks.noSpinSynchronise(spinTime);
    unsigned result = mark == Mark::YES ? 1 : 0;
    if (mark != Mark::NOT_ASKED)
        ranks.allReduce(result, Communicator::MAX);
    return result != 0;
}

template <class Condition>
void HostMeeting::await(const Word& word, double spinTime, Condition isDone) {
    std::uint32_t now = word.load(std::memory_order_acquire);
    if (isDone(now))
        return;
    const double start = Platform::time().getTime();
    for (; !isDone(now); now = word.load(std::memory_order_acquire)) {
        // To look for a message, even one that nobody sends, makes those under way move on.
        unsigned source = MpiCore::ANY_SOURCE;
        unsigned tag = MessageTags::SYNCHRONISE;
        unsigned count = 0;
        static_cast<void>(MachineGround::globalCommunicator().iProbe<char>(source, tag, count));
        if (Platform::time().getTime() - start >= spinTime)
            Futex::wait(word, now, LONGEST_SLEEP);
    }
}
