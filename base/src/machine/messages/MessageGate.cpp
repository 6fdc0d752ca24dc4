#include "machine/messages/MessageGate.h"

#include "machine/FieldLoopState.h"
#include "machine/MachineGround.h"

#include "kernel/Controller.h"
#include "kernel/Raise.h"
#include "platform/Thread.h"

void MessageGate::checkSerialCriticalLock() {
    if (MessagingGate::has(MessagingGate::NOT_MAIN_THREAD) && Thread::isMain())
        MessagingGate::noteMainThread();
    MachineGround::assertNotSerialCritical("Parallel is explicitly locked");
    MachineGround::assertNotParallelPerformanceCritical(
        "Parallel locked out in performance critical section");
    ORVEX_ASSERT(!Controller::isSerialCritical(),
                 "Parallel has been explicitly locked whilst running a non-distributed command");
    ORVEX_ASSERT(!FieldLoopState::busy(), "Parallel is explicitly locked out of FieldLoops");
    ORVEX_ASSERT(Thread::isMain(), "Parallel messaging can only be called from the main thread");
}
