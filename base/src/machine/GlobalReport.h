#pragma once

#include "machine/MachineExport.h"

#include <string>

/// Console reports about events of the whole job.
namespace GlobalReport {

/// Tells the clients that a solver has limited `quantity` in cells of `region`; nothing when no rank has any.
/// Collective over the global communicator. Main thread.
/// @param cells  number of cells that this rank has limited
/// @param value  the limit, null when there is no single one
ORVEX_MACHINE_EXPORT void limit(const std::string& quantity, const std::string& region, long long cells,
                                const double* value);

} // namespace GlobalReport
