#include "machine/messages/OperationTrace.h"

OperationTrace* OperationTrace::_installed = nullptr;

OperationTrace::~OperationTrace() = default;

void OperationTrace::leaveUnseen() noexcept {
    if (isOn())
        _installed->closeUnseen();
}
