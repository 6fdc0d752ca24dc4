#include "machine/Communicator.h"

#include "machine/MachineGround.h"
#include "machine/messages/CommunicatorFrame.h"
#include "machine/messages/MessageGate.h"
#include "machine/messages/MessageTags.h"

#include "mpiwrapper/OxmMpi.h"
#include "platform/Time.h"

#include <algorithm>
#include <string>

namespace {

constexpr CommunicatorFrame::Operation SYNCHRONISE =
    CommunicatorFrame::global("Communicator::Synchronise", Collective::SYNCHRONISE);
constexpr MessageOperation SLEEPING_SYNCHRONISE{"Communicator::noSpinSynchronise",
                                                CommunicatorStatistics::GLOBAL, true,
                                                Collective::SLEEPING_SYNCHRONISE};
constexpr MessageOperation SLEEPING_BROADCAST{"Communicator::noSpinBroadcast", CommunicatorStatistics::GLOBAL,
                                              true, Collective::SLEEPING_BROADCAST};

/// Sleeps that grow with the wait, so that a look comes at most an eighth of it too late.
class ShortSleep {
public:
    void next() {
        constexpr double shortest = 1e-4; // [s] many ranks that look more often take a processor for it
        constexpr double longest = 1e-2;
        const double waited = Platform::time().getTime() - _start;
        Platform::time().sleep(std::clamp(waited / 8, shortest, longest));
    }

private:
    double _start = Platform::time().getTime();
};

} // namespace

unsigned Communicator::getSleep(unsigned ranks) {
    // Many ranks need the shorter one, since the sleeps on the way from the leaves of the tree to its root
    // add up.
    constexpr unsigned manyRanks = 512;
    return ranks > manyRanks ? 1 : 10;
}

void Communicator::synchronise() {
    MpiCore::handleError(CommunicatorFrame::run<OXM_MPI_Barrier, SYNCHRONISE>(
        this, 0, CommunicatorFrame::collective(SYNCHRONISE, 0), _handle));
}

void Communicator::noSpinSynchronise(double spinTime, Sleeps sleeps) {
    constexpr Tag tag(MessageTags::SYNCHRONISE);
    static const unsigned sleep = getSleep(MachineGround::nProcesses());
    const unsigned parent = (_myRank - 1) / 2; // of no use to rank 0
    const unsigned first = 2 * _myRank + 1;
    const unsigned end = std::min(first + 2, _size);
    const BufferBase<int> nothingIn{nullptr, 0, OXM_MPI_UNSIGNED, sizeof(unsigned)};
    const ConstBufferBase<int> nothingOut = nothingIn;
    MessageGate::pass();
    _history->note(CollectiveHistory::wordOf(Collective::SLEEPING_SYNCHRONISE, 0));
    const OperationRecord::Composite recorded(SLEEPING_SYNCHRONISE);
    RequestStack receives;
    RequestStack sends;
    const auto await = [&] {
        if (!test(receives)) { // the last rank to come needs no clock
            const double start = Platform::time().getTime();
            ShortSleep growing;
            while (!test(receives)) {
                if (Platform::time().getTime() - start <= spinTime)
                    continue;
                if (sleeps == Sleeps::GROWING)
                    growing.next();
                else
                    Platform::time().sleepMilliseconds(sleep);
            }
        }
        wait(receives);
    };

    for (unsigned child = first; child < end; ++child)
        _iRecv(nothingIn, child, receives, tag);
    await();
    if (_myRank != _master) {
        _iSend(nothingOut, parent, sends, tag);
        _iRecv(nothingIn, parent, receives, tag);
        await();
        wait(sends);
    }
    for (unsigned child = first; child < end; ++child)
        _iSend(nothingOut, child, sends, tag);
    wait(sends);
}

void Communicator::noSpinBroadcast(std::string& text) {
    constexpr Tag tag(Tag::Unchecked{}, MessageTags::SLEEPING_BROADCAST);
    MessageGate::pass();
    _history->note(CollectiveHistory::wordOf(Collective::SLEEPING_BROADCAST, 0));
    const OperationRecord::Composite recorded(SLEEPING_BROADCAST);
    unsigned long long length = text.size();
    if (_myRank != _master) {
        const unsigned parent = (_myRank - 1) / 2;
        const auto await = [&](auto* data, std::size_t count) {
            RequestStack receives;
            iRecv(data, count, parent, receives, tag);
            for (ShortSleep sleep; !test(receives);)
                sleep.next();
        };
        await(&length, 1);
        text.resize(length);
        await(text.data(), text.size());
    }
    const unsigned first = 2 * _myRank + 1;
    for (unsigned child = first; child < std::min(first + 2, _size); ++child) {
        send(&length, 1, child, tag);
        send(text.data(), text.size(), child, tag);
    }
}
