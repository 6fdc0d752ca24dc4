#include "machine/messages/CommunicatorFrame.h"

#include "machine/messages/MessageGate.h"

#include "mpiwrapper/OxmMpi.h"
#include "platform/TickClock.h"

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
    if (OperationTrace::isOn())
        _begin = Platform::TickClock::read();
}

void CommunicatorFrame::close(unsigned partner) {
    if (_event)
        closeEvent(partner);
    if (_token != 0)
        closeTrace(static_cast<int>(partner));
    if (_isTimed)
        _communicator->_communicationTime += OXM_MPI_Wtime() - _start;
}

void CommunicatorFrame::closeEvent(unsigned partner) noexcept {
    _statistics->close(_operation->kind, std::exchange(_event, nullptr), partner);
}

/// Also of an operation that failed.
void CommunicatorFrame::leave() noexcept {
    if (_event)
        closeEvent(0);
    if (_token != 0)
        closeTrace(-1);
}

void CommunicatorFrame::openTrace(unsigned bytes, Call call) noexcept {
    if (_begin == 0 || !OperationTrace::isOn())
        return;
    const CollectiveHistory& history = *_communicator->_history;
    OperationTrace::Call told{.label = history.getLabel(), .bytes = bytes, .partner = call.partner};
    if (_operation->collective == Collective::NONE) {
        told.tag = static_cast<std::uint32_t>(call.word);
        told.requests = static_cast<std::uint32_t>(call.word >> 32);
    } else {
        told.number = history.getCount();
    }
    _token = OperationTrace::get().open(*_operation, told, _begin);
}

void CommunicatorFrame::closeTrace(int partner) noexcept {
    OperationTrace::get().close(std::exchange(_token, 0), partner);
}
