#include "machine/Communicator.h"

#include "machine/CommunicatorFrame.h"
#include "machine/Machine.h"
#include "machine/RequestStack.h"
#include "machine/Timer.h"

#include "mpiwrapper/OxmMpi.h"
#include "platform/Time.h"

#include <algorithm>

namespace {

constexpr unsigned SYNCHRONISE_TAG = 1022;

constexpr CommunicatorFrame::Operation SYNCHRONISE = CommunicatorFrame::global("Communicator::Synchronise");

} // namespace

unsigned Communicator::getSleep(unsigned ranks) {
    // Many ranks need the shorter one, since the sleeps on the way from the leaves of the tree to its root
    // add up.
    constexpr unsigned manyRanks = 512;
    return ranks > manyRanks ? 1 : 10;
}

void Communicator::synchronise() {
    MpiCore::handleError(CommunicatorFrame::run<OXM_MPI_Barrier, SYNCHRONISE>(this, 0, 0, _handle));
}

void Communicator::noSpinSynchronise(double spinTime) {
    static const unsigned sleep = getSleep(Machine::nProcesses());
    const unsigned parent = (_myRank - 1) / 2; // of no use to rank 0
    const unsigned first = 2 * _myRank + 1;
    const unsigned end = std::min(first + 2, _size);
    const BufferBase<int> nothingIn{nullptr, 0, OXM_MPI_UNSIGNED, sizeof(unsigned)};
    const ConstBufferBase<int> nothingOut = nothingIn;
    RequestStack receives;
    RequestStack sends;
    Timer timer;
    const auto await = [&] {
        if (!test(receives)) { // whom everybody waited for needs no clock
            timer.resetWallTimer();
            timer.startWallTimer();
            while (!test(receives))
                if (timer.getWallTime() > spinTime)
                    Platform::time().sleepMilliseconds(sleep);
        }
        wait(receives);
    };

    for (unsigned child = first; child < end; ++child)
        iRecv(nothingIn, child, receives, SYNCHRONISE_TAG);
    await();
    if (_myRank != _master) {
        iSend(nothingOut, parent, sends, SYNCHRONISE_TAG);
        iRecv(nothingIn, parent, receives, SYNCHRONISE_TAG);
        await();
        wait(sends);
    }
    for (unsigned child = first; child < end; ++child)
        iSend(nothingOut, child, sends, SYNCHRONISE_TAG);
    wait(sends);
}
