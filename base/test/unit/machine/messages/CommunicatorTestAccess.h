#pragma once

#include "machine/Communicator.h"

#include <memory>

/// The buffer-level operations, for tests of their own checks.
class CommunicatorTestAccess {
public:
    using In = Communicator::ConstBufferBase<int>;
    using Out = Communicator::BufferBase<int>;
    using LargeIn = Communicator::ConstBufferBase<unsigned>;
    using LargeOut = Communicator::BufferBase<unsigned>;

    explicit CommunicatorTestAccess(Communicator& communicator) : _communicator(communicator) {}

    static std::unique_ptr<Communicator> make(int handle) {
        return std::unique_ptr<Communicator>(new Communicator(handle));
    }
    template <class SizeType>
    static SizeType castCount(unsigned long long count) {
        return MessageBuffersAccess::cast<SizeType>(count);
    }

    void sendrecv(In send, unsigned dest, Out recv, unsigned source) {
        _communicator._sendrecv(send, dest, recv, source);
    }
    void gather(LargeIn send, LargeOut recv) { _communicator._gather(send, recv, 0u); }
    void allGather(LargeIn send, LargeOut recv) { _communicator._allGather(send, recv); }
    void scatter(LargeIn send, LargeOut recv) { _communicator._scatter(send, recv, 0u); }
    void gatherVector(LargeIn send, LargeOut recv) {
        _communicator._gatherVector(send, recv, nullptr, nullptr, 0u);
    }
    void gatherVector(In send, Out recv) { _communicator._gatherVector(send, recv, nullptr, nullptr, 0u); }
    void allGatherVector(LargeIn send, LargeOut recv) {
        _communicator._allGatherVector(send, recv, nullptr, nullptr);
    }
    void scatterVector(LargeIn send, LargeOut recv) {
        _communicator._scatterVector(send, nullptr, nullptr, recv, 0u);
    }
    void scatterVector(In send, Out recv) { _communicator._scatterVector(send, nullptr, nullptr, recv, 0u); }
    void reduceScatter(In send, Out recv) { _communicator._reduceScatter(send, recv, Communicator::SUM); }
    void allToAll(In send, Out recv) { _communicator._allToAll(send, recv); }
    void allToAllVector(In send, Out recv) {
        _communicator._allToAllVector(send, nullptr, nullptr, recv, nullptr, nullptr);
    }
    void broadcast(LargeOut buf) { _communicator._broadcast(buf, 0u); }
    unsigned long long gatherCounts(unsigned long long count, std::vector<unsigned>& counts) {
        return _communicator.gatherCounts(count, counts, 0);
    }
    static unsigned getSleep(unsigned ranks) { return Communicator::getSleep(ranks); }

private:
    class MessageBuffersAccess : private MessageBuffers {
    public:
        template <class SizeType>
        static SizeType cast(unsigned long long count) {
            return MessageBuffers::castCount<SizeType>(count);
        }
    };

    Communicator& _communicator;
};
