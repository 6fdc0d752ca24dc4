#pragma once

#include "mpiwrapper/MpiDriver.h"

#include <atomic>

/// Tables of functions that any thread may read while the MPI thread rewrites them: each entry is the old one
/// or the new one. On the usual processors that costs a reader no more than a plain load.
namespace MpiFunctionTable {

template <class Function>
Function get(Function& entry) {
    return std::atomic_ref(entry).load(std::memory_order_acquire);
}

template <class Function>
void set(Function& entry, Function function) {
    std::atomic_ref(entry).store(function, std::memory_order_release);
}

inline void set(MpiDriverFunctions& table, const MpiDriverFunctions& functions) {
#define ORVEX_SET(name, parameters, arguments) set(table.name, functions.name);
    ORVEX_MPI_START_FUNCTIONS(ORVEX_SET)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_SET)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_SET)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_SET)
#undef ORVEX_SET
    set(table.Wtime, functions.Wtime);
    set(table.Wtick, functions.Wtick);
    set(table.Error_string, functions.Error_string);
    set(table.Get_max_buffer_size, functions.Get_max_buffer_size);
    set(table.getLibraryName, functions.getLibraryName);
}

} // namespace MpiFunctionTable
