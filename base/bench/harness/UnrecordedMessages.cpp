#include "UnrecordedMessages.h"

#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"

namespace {

void checkPartner(unsigned partner, const Communicator* self) {
    if (partner == self->myRank()) [[unlikely]]
        raiseInternalError("Cannot send to self", "dest!=_myRank", __FILE__, __LINE__);
}

void checkGate() {
    if (!MessagingGate::isOpen()) [[unlikely]]
        raiseInternalError("The gate is shut", "isOpen()", __FILE__, __LINE__);
}

} // namespace

int UnrecordedMessages::sendFrame(const void* data, int size, int type, unsigned dest, int tag,
                                  Communicator* self, unsigned) {
    checkPartner(dest, self);
    checkGate();
    return OXM_MPI_Send(data, size, type, static_cast<int>(dest), tag, self->handle());
}

void UnrecordedMessages::recvFrame(void* data, int size, int type, unsigned source, int tag,
                                   Communicator* self, unsigned) {
    checkPartner(source, self);
    checkGate();
    OXM_MPI_Status_struct status;
    status.error = OXM_MPI_SUCCESS;
    const int code = OXM_MPI_Recv(data, size, type, static_cast<int>(source), tag, self->handle(), &status);
    MpiCore::handleError(code, status);
}

int UnrecordedMessages::allReduceFrame(void* data, int size, int type, int op, Communicator* self, unsigned) {
    checkGate();
    return OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, data, size, type, op, self->handle());
}
