#include "mpiwrapper/drivers/Driver.h"

// Shared-memory windows.

namespace Driver {

int Win_allocate_shared(OXM_MPI_Aint size, int displacementUnit, int info, int comm, void* baseAddress,
                        int* window) {
    *window = OXM_MPI_WIN_NULL;
    if (!handles.infos.isNullOrLive(info))
        return refuse(OXM_MPI_ERR_INFO);
    MPI_Win native = MPI_WIN_NULL;
    int code = MPI_Win_allocate_shared(static_cast<MPI_Aint>(size), displacementUnit, handles.infos.get(info),
                                       handles.comms.get(comm), baseAddress, &native);
    if (code == MPI_SUCCESS)
        code = MPI_Win_set_errhandler(native, MPI_ERRORS_RETURN);
    return translateNew(code, handles.windows, native, window);
}

int Win_shared_query(int window, int rank, OXM_MPI_Aint* size, int* displacementUnit, void* baseAddress) {
    MPI_Aint nativeSize = 0;
    const int code = MPI_Win_shared_query(handles.windows.get(window), toNativeRank(rank), &nativeSize,
                                          displacementUnit, baseAddress);
    *size = nativeSize;
    return translate(code);
}

int Win_fence(int assertion, int window) {
    return translate(MPI_Win_fence(assertion, handles.windows.get(window)));
}

int Win_free(int* window) {
    MPI_Win native = handles.windows.get(*window);
    return translateFree(MPI_Win_free(&native), handles.windows, window);
}

} // namespace Driver
