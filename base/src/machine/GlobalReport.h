#pragma once

#include "machine/MachineExport.h"

#include <string>

/// Console reports of what happened all over the job.
namespace GlobalReport {

/// Tells the clients that a solver has limited `quantity` in cells of `region`; nothing when no rank has any.
/// Collective over the global communicator. Main thread.
/// @param cells  number of cells that this rank has limited
/// @param value  what they were limited to, null when there is no one value
ORVEX_MACHINE_EXPORT void limit(const std::string& quantity, const std::string& region, long long cells,
                                const double* value);

} // namespace GlobalReport
