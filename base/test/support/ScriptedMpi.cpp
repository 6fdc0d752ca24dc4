#include "support/ScriptedMpi.h"

#include <dlfcn.h>

#include <stdexcept>

void* ScriptedMpi::library() {
    static void* const handle = dlopen(ORVEX_SCRIPTED_MPI, RTLD_NOW | RTLD_LOCAL);
    if (!handle)
        throw std::runtime_error(dlerror());
    return handle;
}

ScriptedMpi& ScriptedMpi::load() {
    using Access = ScriptedMpi* (*)();
    const auto access = reinterpret_cast<Access>(dlsym(library(), "orvexScriptedMpi"));
    if (!access)
        throw std::runtime_error(dlerror());
    return *access();
}

ScriptedMpi& ScriptedMpi::start() {
    ScriptedMpi& mpi = load();
    mpi.reset();
    const auto check = [](int code) {
        if (code != OXM_MPI_SUCCESS)
            throw std::runtime_error(OXM_MPI_Get_initialize_error());
    };
    check(OXM_MPI_Initialize(library()));
    check(OXM_MPIO_Initialize(library()));
    int rank = 0;
    if (OXM_MPI_Comm_rank(OXM_MPI_COMM_WORLD, &rank) != OXM_MPI_SUCCESS)
        check(OXM_MPI_Init(nullptr, nullptr));
    mpi.reset();
    return mpi;
}
