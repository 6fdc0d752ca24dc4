#pragma once

#include "machine/MachineExport.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class Communicator;

/// Finds out whether all ranks called the same collective operations since the command began: on the global
/// communicator, and on each other one among its own ranks. Main thread.
///
/// Operations of MPI that don't go through this layer, for example those of a library, aren't seen.
class ORVEX_MACHINE_EXPORT CollectiveCheck {
public:
    /// A rank tells this to the others.
    using Share = std::array<std::uint64_t, 3>;

    /// Of this rank. Local.
    static Share getShare();
    /// Whether the shares of all ranks tell of the same operations. Local.
    static bool agree(const std::vector<Share>& shares);
    /// From which call on the ranks differ, and which: as in "The ranks did not call the same collective
    /// operations in "Solve": from call 41 on, rank 3 called broadcast(root 0), the others
    /// allReduce(8 bytes, sum)". Collective over `ranks`, which are all ranks.
    /// @param shares  of all ranks; they don't agree
    static std::string explain(Communicator& ranks, const std::string& command,
                               const std::vector<Share>& shares);

private:
    struct Difference;
    static std::optional<std::uint32_t> findCommunicator(Communicator& ranks);
    static Difference findDifference(Communicator& ranks, std::uint32_t number);
    static std::string describe(const Difference& difference);
};
