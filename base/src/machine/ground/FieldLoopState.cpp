#include "machine/FieldLoopState.h"

#include "kernel/MessagingGate.h"

bool FieldLoopState::_busy = false;

void FieldLoopState::setBusy() {
    _busy = true;
    MessagingGate::set(MessagingGate::FIELD_LOOP, true);
}

void FieldLoopState::setIdle() {
    _busy = false;
    MessagingGate::set(MessagingGate::FIELD_LOOP, false);
}
