#pragma once

#include "machine/MachineExport.h"
#include "machine/MachineGround.h"

#include <memory>

/// Lets every process of a shared-memory scope run on the processors of all of them while it lives.
///
/// A process bound to one processor can't run a team of threads on the neighbouring ones. The constructor is
/// collective over MachineGround::sharedMemCommunicator(scope); the destructor puts this process's binding
/// back and sends no message. In a serial process neither touches the binding. No error leaves this class: a
/// refusal is a line in the log, and the work goes on under the old binding. Main thread; relaxers nest.
class ORVEX_MACHINE_EXPORT AffinityRelaxer {
public:
    /// The right to relax: classes that may do it make one.
    class Key {};

    AffinityRelaxer(MachineGround::ShmemScope scope, const Key& key);
    ~AffinityRelaxer();
    AffinityRelaxer(const AffinityRelaxer&) = delete;
    AffinityRelaxer& operator=(const AffinityRelaxer&) = delete;

private:
    class Impl;

    std::unique_ptr<Impl> _impl;
};
