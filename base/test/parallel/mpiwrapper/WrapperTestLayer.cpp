#include "parallel/harness/ParallelTest.h"

#include "mpiwrapper/OxmMpi.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

// The message layer of tests that want nothing above the wrapper.

namespace {

std::string getModule(const std::string& driver) {
    const char* const module = driver == "openmpi4" ? "OrvexOpenMpi4" : "OrvexMpich2Ch3";
    return std::string(ORVEX_MODULE_DIRECTORY "/lib") + module + ".so";
}

void check(int code, const char* step) {
    if (code != OXM_MPI_SUCCESS)
        throw std::runtime_error(std::string(step) + ": " + OXM_MPI_Get_initialize_error());
}

} // namespace

void ParallelTest::startMessageLayer(int& argc, char**& argv) {
    void* const library = dlopen(getModule(driver()).c_str(), RTLD_NOW | RTLD_LOCAL);
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
