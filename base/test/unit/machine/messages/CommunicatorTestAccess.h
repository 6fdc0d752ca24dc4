#pragma once

#include "machine/Communicator.h"

/// Private operations, for tests of their own checks.
class CommunicatorTestAccess {
public:
    using In = Communicator::ConstBufferBase<unsigned>;
    using Out = Communicator::BufferBase<unsigned>;

    static void gather(Communicator& comm, In send, Out recv) { comm._gather(send, recv, 0); }
    static void allGather(Communicator& comm, In send, Out recv) { comm._allGather(send, recv); }
    static unsigned long long gatherCounts(Communicator& comm, unsigned long long count) {
        std::vector<unsigned> counts;
        return comm.gatherCounts(count, counts, 0);
    }
    static unsigned getSleep(unsigned ranks) { return Communicator::getSleep(ranks); }
};
