#pragma once

#include "kernel/MessagingGate.h"

/// The gate that each operation of the message layer passes: it refuses what a lock forbids, and other
/// threads than the main one. Local.
class MessageGate {
public:
    static void pass() {
        if (!MessagingGate::isOpen()) [[unlikely]]
            checkSerialCriticalLock();
    }
    /// The checks behind the gate, in their order. @throw InternalError of the first that fails
    static void checkSerialCriticalLock();
};
