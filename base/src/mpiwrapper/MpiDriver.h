#pragma once

#include "mpiwrapper/MpiFunctions.h"

#include <cstddef>
#include <cstdint>

// The agreement between a driver module and the wrapper. A driver defines one object of type MpiDriver with
// the name ORVEX_MPI_DRIVER_SYMBOL; nothing else of it is looked at.

/// The functions of a driver, by their names without the prefix. Null: its MPI hasn't got that function.
struct MpiDriverFunctions {
#define ORVEX_MEMBER(name, parameters, arguments) decltype(&OXM_MPI_##name) name = nullptr;
    ORVEX_MPI_START_FUNCTIONS(ORVEX_MEMBER)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_MEMBER)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_MEMBER)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_MEMBER)
#undef ORVEX_MEMBER
    double (*Wtime)() = nullptr; ///< while MPI runs
    double (*Wtick)() = nullptr; ///< the same
    /// Of the MPI's classes while it runs, and of OXM_MPI_ERR_LAUNCHER after Init gave that. Where the driver
    /// has no text it returns another value than 0, and the wrapper's own text stands in.
    decltype(&OXM_MPI_Error_string) Error_string = nullptr;
    decltype(&OXM_MPI_Get_max_buffer_size) Get_max_buffer_size = nullptr;
    /// The MPI library's name and version, of OXM_MPI_MAX_LIBRARY_VERSION_STRING bytes each; before Init,
    /// too.
    void (*getLibraryName)(char* name, char* version) = nullptr;
};

struct MpiDriver {
    static constexpr std::uint32_t ABI_VERSION = 2;

    std::uint32_t abiVersion = ABI_VERSION; ///< first for good, so that any version can be told
    std::uint32_t functionsSize = sizeof(MpiDriverFunctions);
    MpiDriverFunctions functions;
};

#define ORVEX_MPI_DRIVER_SYMBOL orvexMpiDriver
#define ORVEX_MPI_DRIVER_SYMBOL_NAME "orvexMpiDriver"
