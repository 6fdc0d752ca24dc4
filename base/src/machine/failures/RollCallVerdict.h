#pragma once

#include "machine/MachineExport.h"
#include "machine/failures/RankStanding.h"

#include <string>
#include <vector>

/// Tells in a sentence or two which ranks wait for which.
///
/// A rank in a collective waits for the ranks that aren't in it, a receiver for its sender. A rank that waits
/// for nobody is named, with what is seen of it. A rank isn't blamed for being slow.
namespace RollCallVerdict {

/// @param standings  of all ranks, in their order
ORVEX_MACHINE_EXPORT std::string tell(const std::vector<RankStanding>& standings);

/// Whether all ranks of a communicator call `operation` together.
bool isCollective(const std::string& operation);
/// As in "0.3 s", "62 s", "5 m 10 s", "2 h 5 m".
std::string describeTime(double seconds);

} // namespace RollCallVerdict
