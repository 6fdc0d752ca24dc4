#include "machine/messages/CommunicatorFrame.h"

#include "machine/messages/MessageGate.h"

#include "mpiwrapper/OxmMpi.h"

#include <utility>

void CommunicatorFrame::open(Communicator& communicator, const Operation& operation, unsigned bytes) {
    MessageGate::checkSerialCriticalLock();
    _communicator = &communicator;
    _operation = &operation;
    _isTimed = operation.isTimed && communicator._communicationTimerEnabled;
    if (_isTimed)
        _start = OXM_MPI_Wtime();
    _statistics = CommunicatorStatistics::getInstalled();
    if (_statistics)
        _event = _statistics->open(operation.kind, operation.name, bytes);
}

void CommunicatorFrame::close(unsigned partner) {
    if (_event)
        closeEvent(partner);
    if (_isTimed)
        _communicator->_communicationTime += OXM_MPI_Wtime() - _start;
}

void CommunicatorFrame::closeEvent(unsigned partner) noexcept {
    _statistics->close(_operation->kind, std::exchange(_event, nullptr), partner);
}
