#pragma once

#include "machine/MachineExport.h"

#include <string>

/// A communicator of the MPI library itself, for code in a module that is built with that library:
///
///     #include <mpi.h>
///     const MPI_Comm native = MPI_Comm_f2c(communicator.nativeHandle().forLibrary("Open MPI"));
///
/// The module links the library dynamically, under the soname that the driver has (libmpi.so.40,
/// libmpich.so.12): the process then holds one copy of it, which the driver has started and will end. The
/// module does neither.
///
/// The communicator stays the owner, and the handle is valid while that lives. Messages of the module go over
/// a duplicate (MPI_Comm_dup), so that they don't meet those of this layer; HDF5, PETSc and hypre make their
/// own. A duplicate is freed before the message layer closes. Calls follow the rules of this layer: main
/// thread only, collective calls by all ranks in the same order.
class ORVEX_MACHINE_EXPORT NativeHandle {
public:
    NativeHandle(int fortranHandle, std::string library);

    /// The name of the MPI library that the job runs with: "Open MPI" or "MPICH".
    const std::string& library() const { return _library; }

    /// The library's Fortran handle, of which MPI_Comm_f2c makes the MPI_Comm.
    /// @param builtWith  the name of the library that the caller is built with
    /// @throw InputError when the job runs with another one
    int forLibrary(const std::string& builtWith) const;

private:
    int _fortranHandle;
    std::string _library;
};
