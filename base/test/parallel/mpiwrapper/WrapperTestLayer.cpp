#include "parallel/harness/ParallelTest.h"

#include "mpiwrapper/OxmMpi.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

// The message layer of tests that want nothing above the wrapper.

namespace {

void check(int code, const char* step) {
    if (code != OXM_MPI_SUCCESS)
        throw std::runtime_error(std::string(step) + ": " + OXM_MPI_Get_initialize_error());
}

} // namespace

void ParallelTest::startMessageLayer(int& argc, char**& argv) {
    const bool isOpenMpi = std::string(driver()) == "openmpi4";
    void* const library = dlopen(isOpenMpi ? ORVEX_MODULE_DIRECTORY "/libOrvexOpenMpi4.so"
                                           : ORVEX_MODULE_DIRECTORY "/libOrvexMpich2Ch3.so",
                                 RTLD_NOW | RTLD_LOCAL);
    if (!library)
        throw std::runtime_error(dlerror());
    check(OXM_MPI_Initialize(library), "OXM_MPI_Initialize");
    check(OXM_MPIO_Initialize(library), "OXM_MPIO_Initialize");
    check(OXM_MPI_Init(&argc, &argv), "OXM_MPI_Init");
}

void ParallelTest::stopMessageLayer() {
    if (OXM_MPI_Finalize() != OXM_MPI_SUCCESS)
        throw std::runtime_error("OXM_MPI_Finalize");
}
