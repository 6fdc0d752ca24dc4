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
};
constexpr Launcher OPEN_MPI_LAUNCHER{"Open MPI", "mpirun.openmpi", "openmpi4", "OMPI_COMM_WORLD_RANK",
                                     "OMPI_COMM_WORLD_SIZE"};
constexpr Launcher MPICH_LAUNCHER{"MPICH", "mpiexec.mpich", "mpich2", "PMI_RANK", "PMI_SIZE"};

#ifdef OPEN_MPI
constexpr Launcher OWN = OPEN_MPI_LAUNCHER;
constexpr Launcher FOREIGN = MPICH_LAUNCHER;
/// A PMIx server serves Open MPI whatever else it sets, and a batch system's may serve it by PMI.
constexpr const char* OWN_SIGNS[] = {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "SLURM_PROCID"};
#else
constexpr Launcher OWN = MPICH_LAUNCHER;
constexpr Launcher FOREIGN = OPEN_MPI_LAUNCHER;
constexpr const char* OWN_SIGNS[] = {"PMI_RANK", "PMI_SIZE", "PMI_FD", "PMI_PORT"};
#endif

} // namespace

const char* Driver::findForeignLauncher(int size) {
    const int foreignSize = getNumber(FOREIGN.sizeVariable);
    if (foreignSize <= 1 || foreignSize == size)
        return nullptr;
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
