#pragma once

#include "machine/Communicator.h"

/// The paths of Communicator's send, receive and all-reduce without the records around the call. In a library
/// of its own, as Communicator is, so that both are called the same way.
class [[gnu::visibility("default")]] UnrecordedMessages {
public:
    explicit UnrecordedMessages(Communicator & communicator) : _communicator(communicator) {}

    void send(const char* data, std::size_t bytes, unsigned dest) {
        const int tag = Communicator::_defaultTag.value();
        MpiCore::handleError(
            sendFrame(data, static_cast<int>(bytes), OXM_MPI_CHAR, dest, tag, &_communicator, 1));
    }
    void recv(char* data, std::size_t bytes, unsigned source) {
        const int tag = Communicator::_defaultTag.value();
        recvFrame(data, static_cast<int>(bytes), OXM_MPI_CHAR, source, tag, &_communicator, 1);
    }
    void allReduce(int& value) {
        MpiCore::handleError(
            allReduceFrame(&value, 1, OXM_MPI_INT, Communicator::MAX, &_communicator, sizeof value));
    }
    unsigned myRank() const {
        return _communicator.myRank();
    }

private:
    static int sendFrame(const void* data, int size, int type, unsigned dest, int tag, Communicator* self,
                         unsigned typeSize);
    static void recvFrame(void* data, int size, int type, unsigned source, int tag, Communicator* self,
                          unsigned typeSize);
    static int allReduceFrame(void* data, int size, int type, int op, Communicator* self, unsigned typeSize);

    Communicator& _communicator;
};
