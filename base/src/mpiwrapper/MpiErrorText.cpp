#include "mpiwrapper/MpiErrorText.h"

#include "mpiwrapper/OxmMpi.h"

const char* mpiErrorText(int code) {
    switch (code) {
    case OXM_MPI_SUCCESS:
        return "No error";
    case OXM_MPI_ERR_BUFFER:
        return "Invalid buffer pointer";
    case OXM_MPI_ERR_COUNT:
        return "Invalid count";
    case OXM_MPI_ERR_TYPE:
        return "Invalid datatype";
    case OXM_MPI_ERR_TAG:
        return "Invalid tag";
    case OXM_MPI_ERR_COMM:
        return "Invalid communicator";
    case OXM_MPI_ERR_RANK:
        return "Invalid rank";
    case OXM_MPI_ERR_ROOT:
        return "Invalid root";
    case OXM_MPI_ERR_GROUP:
        return "Invalid group";
    case OXM_MPI_ERR_OP:
        return "Invalid reduction operation";
    case OXM_MPI_ERR_TOPOLOGY:
        return "Invalid topology";
    case OXM_MPI_ERR_DIMS:
        return "Invalid dimensions";
    case OXM_MPI_ERR_ARG:
        return "Invalid argument";
    case OXM_MPI_ERR_NO_SPACE:
        return "Not enough space on the device";
    case OXM_MPI_ERR_TRUNCATE:
        return "Message truncated on receive";
    case OXM_MPI_ERR_OTHER:
        return "Another error";
    case OXM_MPI_ERR_INTERN:
        return "Internal error of the MPI library";
    case OXM_MPI_ERR_IN_STATUS:
        return "Error code in status";
    case OXM_MPI_ERR_PENDING:
        return "Pending request";
    case OXM_MPI_ERR_REQUEST:
        return "Invalid request";
    case OXM_MPI_ERR_ACCESS:
        return "Permission denied";
    case OXM_MPI_ERR_AMODE:
        return "Invalid open mode of a file";
    case OXM_MPI_ERR_ASSERT:
        return "Invalid assertion argument";
    case OXM_MPI_ERR_BAD_FILE:
        return "Invalid file name";
    case OXM_MPI_ERR_BASE:
        return "Invalid base address";
    case OXM_MPI_ERR_CONVERSION:
        return "Error in a data conversion";
    case OXM_MPI_ERR_DISP:
        return "Invalid displacement";
    case OXM_MPI_ERR_DUP_DATAREP:
        return "Data representation already defined";
    case OXM_MPI_ERR_FILE_EXISTS:
        return "File exists";
    case OXM_MPI_ERR_FILE_IN_USE:
        return "File is in use";
    case OXM_MPI_ERR_FILE:
        return "Invalid file handle";
    case OXM_MPI_ERR_INFO:
        return "Invalid info";
    case OXM_MPI_ERR_INFO_KEY:
        return "Key of an info too long";
    case OXM_MPI_ERR_INFO_NOKEY:
        return "Key not in the info";
    case OXM_MPI_ERR_INFO_VALUE:
        return "Value of an info too long";
    case OXM_MPI_ERR_IO:
        return "Input or output error";
    case OXM_MPI_ERR_UNKNOWN:
        return "Unknown error";
    case OXM_MPI_ERR_KEYVAL:
        return "Invalid attribute key";
    case OXM_MPI_ERR_LOCKTYPE:
        return "Invalid lock type";
    case OXM_MPI_ERR_NAME:
        return "Service name not published";
    case OXM_MPI_ERR_NO_MEM:
        return "No memory left";
    case OXM_MPI_ERR_NOT_SAME:
        return "Collective argument differs between ranks";
    case OXM_MPI_ERR_NO_SUCH_FILE:
        return "No such file";
    case OXM_MPI_ERR_PORT:
        return "Invalid port name";
    case OXM_MPI_ERR_QUOTA:
        return "Quota exceeded";
    case OXM_MPI_ERR_READ_ONLY:
        return "Read-only file or file system";
    case OXM_MPI_ERR_RMA_CONFLICT:
        return "Conflicting accesses to a window";
    case OXM_MPI_ERR_RMA_SYNC:
        return "Wrong synchronisation of a window";
    case OXM_MPI_ERR_RMA_RANGE:
        return "Memory outside the window";
    case OXM_MPI_ERR_RMA_ATTACH:
        return "Memory can't be attached to the window";
    case OXM_MPI_ERR_RMA_FLAVOR:
        return "Wrong kind of window";
    case OXM_MPI_ERR_RMA_SHARED:
        return "Memory can't be shared";
    case OXM_MPI_ERR_SERVICE:
        return "Invalid service name";
    case OXM_MPI_ERR_SIZE:
        return "Invalid size";
    case OXM_MPI_ERR_SPAWN:
        return "Error in spawning processes";
    case OXM_MPI_ERR_UNSUPPORTED_DATAREP:
        return "Unsupported data representation";
    case OXM_MPI_ERR_UNSUPPORTED_OPERATION:
        return "Unsupported operation on this file";
    case OXM_MPI_ERR_WIN:
        return "Invalid window";
    case OXM_MPI_ERR_NO_DRIVER:
        return "No MPI driver is loaded";
    case OXM_MPI_ERR_BAD_DRIVER:
        return "The library isn't an MPI driver of this version";
    case OXM_MPI_ERR_NOT_RUNNING:
        return "MPI isn't running: it wasn't started yet, or it was finalized";
    case OXM_MPI_ERR_LAUNCHER:
        return "The launcher of another MPI started this process";
    case OXM_MPI_ERR_NO_FUNCTION:
        return "The MPI library doesn't support this function";
    case OXM_MPI_ERR_NO_PARALLEL_IO:
        return "Parallel files aren't supported by this MPI driver";
    case OXM_MPI_ERR_NO_REDUCTION_SLOT:
        return "Too many user-defined reductions are alive at a time";
    default:
        return nullptr;
    }
}
