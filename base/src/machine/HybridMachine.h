#pragma once

#include "machine/MachineExport.h"
#include "machine/MachineGround.h"

class Communicator;

/// The machine as an operation of a hybrid context sees it: processes with threads in place of ranks.
///
/// A value; local. The threads of the operation may read it.
class ORVEX_MACHINE_EXPORT HybridMachine {
public:
    /// In a parallel job the view of this rank, which takes part in contexts of the scope or doesn't.
    explicit HybridMachine(const MachineGround::ShmemScope& scope);

    /// The processes that take part, for messages between them by their main threads.
    /// @throw InternalError on a rank that takes no part, and in a serial process
    Communicator& getCommunicator() const;
    /// Threads of this process: as many as the scope has ranks; 1 in a serial process.
    unsigned nLocalCore() const { return _nLocalCore; }
    bool isParallel() const { return !_serial; }
    bool isSerial() const { return _serial; }

private:
    Communicator* _sparseComm = nullptr;
    unsigned _nLocalCore = 1;
    bool _serial;
};
