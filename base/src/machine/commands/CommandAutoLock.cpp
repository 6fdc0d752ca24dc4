#include "machine/CommandAutoLock.h"

#include "machine/MachineGround.h"

#include "kernel/Controller.h"
#include "platform/Mutex.h"

CommandAutoLock::CommandAutoLock() {
    if (!MachineGround::isSerialOrMaster())
        return;
    _lock = &Controller::getSingleton().getLock();
    _lock->lock();
}

CommandAutoLock::~CommandAutoLock() {
    if (_lock)
        _lock->unlock();
}

CommandAutoLock& CommandAutoLock::operator=(const CommandAutoLock& other) {
    if (this != &other)
        _lock = other._lock;
    return *this;
}
