#pragma once

#include "platform/PlatformExport.h"

#include <string>

namespace Platform {

/// Name and job number of the batch system that runs this process ("Slurm job 17"), from the variables that
/// it sets; empty outside a job. Local, any thread.
ORVEX_PLATFORM_EXPORT std::string findBatchJob();

} // namespace Platform
