#include "platform/BatchSystem.h"

#include <cstdlib>

namespace Platform {

namespace {

struct Row {
    const char* system;
    const char* variable; ///< holds the number of the job
};
constexpr Row ROWS[] = {
    {"Slurm", "SLURM_JOB_ID"},  {"PBS", "PBS_JOBID"},
    {"LSF", "LSB_JOBID"},       {"OAR", "OAR_JOB_ID"},
    {"Flux", "FLUX_JOB_ID"},    {"PJM", "PJM_JOBID"},
    {"Cobalt", "COBALT_JOBID"}, {"LoadLeveler", "LOADL_STEP_ID"},
};
/// Grid Engine's name for the number is everybody's, this one is its own.
constexpr Row GRID_ENGINE{"Grid Engine", "JOB_ID"};
constexpr const char* GRID_ENGINE_SIGN = "SGE_TASK_ID";

std::string describe(const Row& row) {
    const char* const number = std::getenv(row.variable);
    return number && *number ? std::string(row.system) + " job " + number : std::string();
}

} // namespace

std::string findBatchJob() {
    for (const Row& row : ROWS)
        if (std::string job = describe(row); !job.empty())
            return job;
    return std::getenv(GRID_ENGINE_SIGN) ? describe(GRID_ENGINE) : std::string();
}

} // namespace Platform
