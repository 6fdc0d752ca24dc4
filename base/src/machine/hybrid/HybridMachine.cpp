#include "machine/HybridMachine.h"

#include "machine/Communicator.h"

#include "kernel/Raise.h"

HybridMachine::HybridMachine(const MachineGround::ShmemScope& scope) : _serial(MachineGround::isSerial()) {
    if (_serial)
        return;
    _sparseComm = MachineGround::hasSparseCommunicator(scope);
    _nLocalCore = MachineGround::sharedMemCommunicator(scope).size();
}

Communicator& HybridMachine::getCommunicator() const {
    ORVEX_ASSERT(_sparseComm, "accessing Communicator on non-participating process");
    return *_sparseComm;
}
