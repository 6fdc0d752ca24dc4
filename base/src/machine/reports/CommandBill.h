#pragma once

#include "machine/reports/CommandMeter.h"

#include "kernel/Properties.h"
#include "machine/MachineExport.h"

#include <string>
#include <vector>

class Communicator;

/// The cost of a command for the job: for each figure the sum over the ranks, the smallest, the mean, the
/// largest, and which ranks they are.
///
/// The load is balanced when `imbalance`, the largest value divided by the mean, is 1.
class ORVEX_MACHINE_EXPORT CommandBill {
public:
    using Cost = CommandMeter::Cost;

    /// The costs of all ranks, on rank 0; empty on the others. Collective.
    static std::vector<Cost> gather(Communicator& communicator, const Cost& mine);

    /// "ranks", "wall" [s], and for each of "processor", "waiting", "waitingShare", "lent" (when there is
    /// any), "peakMemory", "addedMemory", "messages", "bytes" a tree of "total", "min", "minRank", "mean",
    /// "max", "maxRank" and "imbalance". Times in s, memory in bytes.
    static Properties describe(const std::vector<Cost>& costs);

private:
    CommandBill() = delete;
};
