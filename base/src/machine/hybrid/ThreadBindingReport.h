#pragma once

#include "machine/MachineExport.h"

#include <string>
#include <vector>

class Communicator;

/// The places of the threads of a hybrid context, as text on the standard output of one process.
class ORVEX_MACHINE_EXPORT ThreadBindingReport {
public:
    /// Prints nothing when no process knows the processors of its threads. Collective over `sparse`. Main
    /// thread.
    /// @param name        of the operation
    /// @param affinities  a text for each thread of this process
    /// @param sparse      the processes that take part; null in a serial process
    static void print(const std::string& name, const std::vector<std::string>& affinities,
                      Communicator* sparse);
};
