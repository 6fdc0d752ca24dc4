#include "mpiwrapper/drivers/Driver.h"

#include <cstdio>
#include <cstdlib>

namespace {

int getNumber(const char* variable) {
    const char* const text = std::getenv(variable);
    return text ? static_cast<int>(std::strtol(text, nullptr, 10)) : 0;
}

/// A launcher as the environment shows it.
struct Launcher {
    const char* mpi;
    const char* program;
    const char* option;
    const char* rankVariable;
    const char* sizeVariable;
    const char* slurmOption; ///< with which srun serves it
};
constexpr Launcher OPEN_MPI_LAUNCHER{
    "Open MPI", "mpirun.openmpi", "openmpi4", "OMPI_COMM_WORLD_RANK", "OMPI_COMM_WORLD_SIZE", "--mpi=pmix"};
constexpr Launcher MPICH_LAUNCHER{"MPICH", "mpiexec.mpich", "mpich2", "PMI_RANK", "PMI_SIZE", "--mpi=pmi2"};

#ifdef OPEN_MPI
constexpr Launcher OWN = OPEN_MPI_LAUNCHER;
constexpr Launcher FOREIGN = MPICH_LAUNCHER;
/// A PMIx server serves Open MPI, with any other variables beside. A batch system may serve it by PMI.
constexpr const char* OWN_SIGNS[] = {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "SLURM_PROCID"};
constexpr const char* LAUNCHER_SIGNS[] = {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK"};
#else
constexpr Launcher OWN = MPICH_LAUNCHER;
constexpr Launcher FOREIGN = OPEN_MPI_LAUNCHER;
constexpr const char* OWN_SIGNS[] = {"PMI_RANK", "PMI_SIZE", "PMI_FD", "PMI_PORT"};
constexpr const auto& LAUNCHER_SIGNS = OWN_SIGNS;
#endif

/// Whether srun started this process as one task of several without what the MPI learns its ranks from. A
/// batch script is no step, and below mpirun in an allocation, which may be a step of one task a host, the
/// launcher's variables are there.
bool isLostInSlurmStep(int size) {
    if (size != 1 || getNumber("SLURM_STEP_NUM_TASKS") <= 1 || !std::getenv("SLURM_PROCID"))
        return false;
    for (const char* sign : LAUNCHER_SIGNS)
        if (std::getenv(sign))
            return false;
    return true;
}

const char* tellSlurmStep() {
    static thread_local char text[OXM_MPI_MAX_ERROR_STRING];
    std::snprintf(
        text, sizeof text,
        "Slurm started this process (task %d of %d) without what %s needs to find the others, so each "
        "task would be a job of its own. Start the job with srun %s, or with %s inside the "
        "allocation; a serial server takes -s instead of -mpi.",
        getNumber("SLURM_PROCID"), getNumber("SLURM_STEP_NUM_TASKS"), OWN.mpi, OWN.slurmOption, OWN.program);
    return text;
}

} // namespace

const char* Driver::findForeignLauncher(int size) {
    const int foreignSize = getNumber(FOREIGN.sizeVariable);
    if (foreignSize <= 1 || foreignSize == size)
        return isLostInSlurmStep(size) ? tellSlurmStep() : nullptr;
    // A job started inside a script of the other launcher shows both; it is right if its own size says so.
    if (size > 0 && getNumber(OWN.sizeVariable) == size)
        return nullptr;
    if (size == 0)
        for (const char* sign : OWN_SIGNS)
            if (std::getenv(sign))
                return nullptr;
    static thread_local char text[OXM_MPI_MAX_ERROR_STRING];
    std::snprintf(
        text, sizeof text,
        "The launcher of %s started this process (rank %d of %d), but the MPI driver is that of %s, "
        "for which each rank would be a job of its own. Start the job with the launcher of %s (%s), "
        "or choose the driver of %s (-mpi %s).",
        FOREIGN.mpi, getNumber(FOREIGN.rankVariable), foreignSize, OWN.mpi, OWN.mpi, OWN.program, FOREIGN.mpi,
        FOREIGN.option);
    return text;
}
