/// The only road to the message-passing library: C functions that a driver module, chosen at run time,
/// serves.
///
/// Each function OXM_MPI_<Name> has the meaning and the argument order of the MPI function of that name, with
/// 32-bit handles, ranks, tags and counts, and returns OXM_MPI_SUCCESS or an error code whose text
/// OXM_MPI_Error_string gives. No function crashes for want of a driver: before OXM_MPI_Initialize, between
/// that and OXM_MPI_Init, and after OXM_MPI_Finalize, a function that needs a running MPI answers with an
/// error code.
///
/// State after a call: a function that makes an object sets its handle to 0 when the driver fails or refuses.
/// A flag of 0 leaves the status untouched. A failed call tells its code in the status, too. A call that
/// the wrapper itself refuses, for want of a driver, of a running MPI or of a function, touches no argument.
///
/// Threads: all calls belong to the thread that called OXM_MPI_Init, except OXM_MPI_Wtime, OXM_MPI_Wtick,
/// OXM_MPI_Error_string and OXM_MPI_Abort, which any thread may call at any time: while that thread starts or
/// ends MPI or switches tracing, they do what was right before, or what is right afterwards. Collective or
/// local is as in MPI.
///
/// Usable from C and C++.
#pragma once

#include "mpiwrapper/MpiWrapperExport.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Return codes. Those below OXM_MPI_ERR_LASTCODE are the error classes of MPI, the same numbers whatever the
/// MPI library; the text of such a code is that of the latest MPI error of this class in this process.
#define OXM_MPI_SUCCESS 0
#define OXM_MPI_ERR_BUFFER 1
#define OXM_MPI_ERR_COUNT 2
#define OXM_MPI_ERR_TYPE 3
#define OXM_MPI_ERR_TAG 4
#define OXM_MPI_ERR_COMM 5
#define OXM_MPI_ERR_RANK 6
#define OXM_MPI_ERR_ROOT 7
#define OXM_MPI_ERR_GROUP 8
#define OXM_MPI_ERR_OP 9
#define OXM_MPI_ERR_TOPOLOGY 10
#define OXM_MPI_ERR_DIMS 11
#define OXM_MPI_ERR_ARG 12
#define OXM_MPI_ERR_NO_SPACE 13 /* the device is full */
#define OXM_MPI_ERR_TRUNCATE 14
#define OXM_MPI_ERR_OTHER 15
#define OXM_MPI_ERR_INTERN 16
#define OXM_MPI_ERR_IN_STATUS 17 /* look at the error field of each status */
#define OXM_MPI_ERR_PENDING 18
#define OXM_MPI_ERR_REQUEST 19
#define OXM_MPI_ERR_ACCESS 20
#define OXM_MPI_ERR_AMODE 21
#define OXM_MPI_ERR_ASSERT 22
#define OXM_MPI_ERR_BAD_FILE 23
#define OXM_MPI_ERR_BASE 24
#define OXM_MPI_ERR_CONVERSION 25
#define OXM_MPI_ERR_DISP 26
#define OXM_MPI_ERR_DUP_DATAREP 27
#define OXM_MPI_ERR_FILE_EXISTS 28
#define OXM_MPI_ERR_FILE_IN_USE 29
#define OXM_MPI_ERR_FILE 30
#define OXM_MPI_ERR_INFO 31
#define OXM_MPI_ERR_INFO_KEY 32
#define OXM_MPI_ERR_INFO_NOKEY 33
#define OXM_MPI_ERR_INFO_VALUE 34
#define OXM_MPI_ERR_IO 35
#define OXM_MPI_ERR_UNKNOWN 36
#define OXM_MPI_ERR_KEYVAL 37
#define OXM_MPI_ERR_LOCKTYPE 38
#define OXM_MPI_ERR_NAME 39
#define OXM_MPI_ERR_NO_MEM 40
#define OXM_MPI_ERR_NOT_SAME 41
#define OXM_MPI_ERR_NO_SUCH_FILE 42
#define OXM_MPI_ERR_PORT 43
#define OXM_MPI_ERR_QUOTA 44
#define OXM_MPI_ERR_READ_ONLY 45
#define OXM_MPI_ERR_RMA_CONFLICT 46
#define OXM_MPI_ERR_RMA_SYNC 47
#define OXM_MPI_ERR_RMA_RANGE 48
#define OXM_MPI_ERR_RMA_ATTACH 49
#define OXM_MPI_ERR_RMA_FLAVOR 50
#define OXM_MPI_ERR_RMA_SHARED 51
#define OXM_MPI_ERR_SERVICE 52
#define OXM_MPI_ERR_SIZE 53
#define OXM_MPI_ERR_SPAWN 54
#define OXM_MPI_ERR_UNSUPPORTED_DATAREP 55
#define OXM_MPI_ERR_UNSUPPORTED_OPERATION 56
#define OXM_MPI_ERR_WIN 57
#define OXM_MPI_ERR_LASTCODE 58

/// Return codes of the wrapper itself.
#define OXM_MPI_ERR_NO_DRIVER 0x40000001   /* no driver is initialised yet */
#define OXM_MPI_ERR_BAD_DRIVER 0x40000002  /* the library is no driver, or one of another version */
#define OXM_MPI_ERR_NOT_RUNNING 0x40000003 /* before OXM_MPI_Init or after OXM_MPI_Finalize */
#define OXM_MPI_ERR_LAUNCHER 0x40000004    /* another MPI's launcher started this process */
#define OXM_MPI_ERR_NO_FUNCTION 0x40000005 /* the driver's MPI doesn't have this function */
#define OXM_MPI_ERR_NO_PARALLEL_IO                                                                           \
    0x40000006 /* OXM_MPIO_Initialize wasn't called, or the MPI has no files                                 \
                */
#define OXM_MPI_ERR_NO_REDUCTION_SLOT 0x40000007 /* too many user reductions are alive at a time */

/// Handles that always stand for the same thing.
#define OXM_MPI_COMM_NULL 0
#define OXM_MPI_COMM_WORLD 1
#define OXM_MPI_COMM_SELF 2
#define OXM_MPI_GROUP_NULL 0
#define OXM_MPI_GROUP_EMPTY 1
#define OXM_MPI_REQUEST_NULL 0
#define OXM_MPI_INFO_NULL 0
#define OXM_MPI_WIN_NULL 0
#define OXM_MPI_FILE_NULL 0
#define OXM_MPI_DATATYPE_NULL 0
#define OXM_MPI_OP_NULL 0

/// Wildcards and special arguments.
#define OXM_MPI_ANY_SOURCE 0x7FFFFFFF
#define OXM_MPI_ANY_TAG 0x7FFFFFFF
#define OXM_MPI_PROC_NULL (-2)
#define OXM_MPI_UNDEFINED (-1)
#define OXM_MPI_IN_PLACE ((void*)1)
#define OXM_MPI_COMM_TYPE_SHARED 0
#define OXM_MPI_STATUS_IGNORE ((OXM_MPI_Status_struct*)0)
#define OXM_MPI_STATUSES_IGNORE ((OXM_MPI_Status_struct*)0)

/// Capacity of text buffers, in bytes, the terminator included.
#define OXM_MPI_MAX_PROCESSOR_NAME 2048
#define OXM_MPI_MAX_ERROR_STRING 2048
#define OXM_MPI_MAX_LIBRARY_VERSION_STRING 2048

/// Datatypes, by the C or C++ type that they carry. Arithmetic reductions work on the char types too.
#define OXM_MPI_BOOL 1
#define OXM_MPI_BYTE 2
#define OXM_MPI_CHAR 3
#define OXM_MPI_SIGNED_CHAR 4
#define OXM_MPI_UNSIGNED_CHAR 5
#define OXM_MPI_SHORT 6
#define OXM_MPI_UNSIGNED 7
#define OXM_MPI_INT 8
#define OXM_MPI_FLOAT 9
#define OXM_MPI_DOUBLE 10
#define OXM_MPI_LONG_DOUBLE 11
#define OXM_MPI_INT64 12
#define OXM_MPI_UINT64 13
#define OXM_MPI_UNSIGNED_SHORT 14
#define OXM_MPI_LONG 15
#define OXM_MPI_UNSIGNED_LONG 16
#define OXM_MPI_WCHAR 17
#define OXM_MPI_FLOAT_COMPLEX 18
#define OXM_MPI_DOUBLE_COMPLEX 19
#define OXM_MPI_LONG_DOUBLE_COMPLEX 20
#define OXM_MPI_LONG_LONG OXM_MPI_INT64
#define OXM_MPI_UNSIGNED_LONG_LONG OXM_MPI_UINT64
/// Pairs of a value and an int index, for OXM_MPI_MAXLOC and OXM_MPI_MINLOC.
#define OXM_MPI_FLOAT_INT 21
#define OXM_MPI_DOUBLE_INT 22
#define OXM_MPI_LONG_INT 23
#define OXM_MPI_INT_INT 24
#define OXM_MPI_LONG_DOUBLE_INT 25

/// Reduction operations.
#define OXM_MPI_MAX 1
#define OXM_MPI_MIN 2
#define OXM_MPI_SUM 3
#define OXM_MPI_PROD 4
#define OXM_MPI_BAND 5
#define OXM_MPI_BOR 6
#define OXM_MPI_LAND 7
#define OXM_MPI_LOR 8
#define OXM_MPI_LXOR 9
#define OXM_MPI_BXOR 10
#define OXM_MPI_MAXLOC 11
#define OXM_MPI_MINLOC 12

/// Open modes of a file, to be combined by a bitwise or. Opening doesn't truncate.
#define OXM_MPI_MODE_CREATE 0x001
#define OXM_MPI_MODE_RDONLY 0x002
#define OXM_MPI_MODE_WRONLY 0x004
#define OXM_MPI_MODE_RDWR 0x008
#define OXM_MPI_MODE_DELETE_ON_CLOSE 0x010
#define OXM_MPI_MODE_UNIQUE_OPEN 0x020
#define OXM_MPI_MODE_EXCL 0x040
#define OXM_MPI_MODE_APPEND 0x080
#define OXM_MPI_MODE_SEQUENTIAL 0x100
#define OXM_MPI_MODE_TRUNCATE 0x100000 /* of the wrapper alone: the file is empty once it is open */

/// Sizes of windows and displacements, and file offsets, in bytes unless told otherwise.
typedef long long OXM_MPI_Aint;
typedef long long OXM_MPI_Offset;

/// The answer of a receive, probe, wait, test or file operation. The error field holds the call's return
/// code, or in the statuses of a failed Waitall or Testall that request's own.
typedef struct OXM_MPI_Status_struct {
    int32_t source;
    int32_t tag;
    int32_t error;
    unsigned char reserved[12]; /* for OXM_MPI_Get_count only */
} OXM_MPI_Status_struct;

/// Combines `*length` elements of `in` into `inout`; `datatype` points to the wrapper's datatype handle.
typedef void (*OXM_MPI_User_function)(void* in, void* inout, int* length, int* datatype);

/// Start and end.

/// Makes the driver module behind `library`, a handle of the dynamic loader, serve the functions below. On
/// failure an earlier driver stays as it was, and OXM_MPI_Get_initialize_error tells the reason. Refused
/// while another driver runs. The library must stay loaded.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Initialize(void* library);
/// Makes the file functions of the same module available. Needs OXM_MPI_Initialize with the same handle.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPIO_Initialize(void* library);
/// Why the latest OXM_MPI_Initialize, OXM_MPIO_Initialize or OXM_MPI_Init failed, naming the module's file
/// where there is one; an empty text if it succeeded. Valid until the next call of one of them.
ORVEX_MPIWRAPPER_EXPORT const char* OXM_MPI_Get_initialize_error(void);
/// Starts MPI. Refused with OXM_MPI_ERR_LAUNCHER if the launcher of another MPI started this process, or srun
/// without serving this MPI, since each rank would be a job of its own.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Init(int* argc, char*** argv);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Finalize(void);
/// Ends all ranks of the job, for any `comm`. The launcher exits with `code`. Any thread.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Abort(int comm, int code);

/// Communicators and groups.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_rank(int comm, int* rank);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_size(int comm, int* size);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_group(int comm, int* group);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_create(int comm, int group, int* newComm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_split_type(int comm, int splitType, int key, int info, int* newComm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_free(int* comm);
/// The Fortran handle that the driver's MPI library has for `comm`, and that library's own name: code that is
/// built with it makes an MPI_Comm of the handle by MPI_Comm_f2c. `library` has room for
/// OXM_MPI_MAX_LIBRARY_VERSION_STRING bytes. Local.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Comm_native_handle(int comm, int* fortranHandle, char* library);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Group_incl(int group, int count, const int* ranks, int* newGroup);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Group_free(int* group);

/// Point-to-point.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Send(const void* buffer, int count, int datatype, int dest, int tag,
                                         int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Ssend(const void* buffer, int count, int datatype, int dest, int tag,
                                          int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Isend(const void* buffer, int count, int datatype, int dest, int tag,
                                          int comm, int* request);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Issend(const void* buffer, int count, int datatype, int dest, int tag,
                                           int comm, int* request);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Recv(void* buffer, int count, int datatype, int source, int tag, int comm,
                                         OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Irecv(void* buffer, int count, int datatype, int source, int tag,
                                          int comm, int* request);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Recv_init(void* buffer, int count, int datatype, int source, int tag,
                                              int comm, int* request);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Sendrecv(const void* sendBuffer, int sendCount, int sendType, int dest,
                                             int sendTag, void* recvBuffer, int recvCount, int recvType,
                                             int source, int recvTag, int comm,
                                             OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Probe(int source, int tag, int comm, OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Iprobe(int source, int tag, int comm, int* flag,
                                           OXM_MPI_Status_struct* status);
/// Elements of `datatype` in the message; OXM_MPI_UNDEFINED if that isn't a whole number.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Get_count(const OXM_MPI_Status_struct* status, int datatype, int* count);

/// Requests. A completed request becomes OXM_MPI_REQUEST_NULL in its slot, a persistent one stays. Where a
/// handle isn't that of a live request, nothing is waited for or looked at.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Start(int* request);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Startall(int count, int* requests);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Wait(int* request, OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Waitall(int count, int* requests, OXM_MPI_Status_struct* statuses);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Waitany(int count, int* requests, int* index,
                                            OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Test(int* request, int* flag, OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Testall(int count, int* requests, int* flag,
                                            OXM_MPI_Status_struct* statuses);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Testany(int count, int* requests, int* index, int* flag,
                                            OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Cancel(int* request);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Request_free(int* request);

/// Collectives. OXM_MPI_IN_PLACE stands where MPI allows it.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Barrier(int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Bcast(void* buffer, int count, int datatype, int root, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Gather(const void* sendBuffer, int sendCount, int sendType,
                                           void* recvBuffer, int recvCount, int recvType, int root, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Gatherv(const void* sendBuffer, int sendCount, int sendType,
                                            void* recvBuffer, const int* recvCounts, const int* displacements,
                                            int recvType, int root, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Allgather(const void* sendBuffer, int sendCount, int sendType,
                                              void* recvBuffer, int recvCount, int recvType, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Allgatherv(const void* sendBuffer, int sendCount, int sendType,
                                               void* recvBuffer, const int* recvCounts,
                                               const int* displacements, int recvType, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Scatter(const void* sendBuffer, int sendCount, int sendType,
                                            void* recvBuffer, int recvCount, int recvType, int root,
                                            int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Scatterv(const void* sendBuffer, const int* sendCounts,
                                             const int* displacements, int sendType, void* recvBuffer,
                                             int recvCount, int recvType, int root, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Alltoall(const void* sendBuffer, int sendCount, int sendType,
                                             void* recvBuffer, int recvCount, int recvType, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Alltoallv(const void* sendBuffer, const int* sendCounts,
                                              const int* sendDisplacements, int sendType, void* recvBuffer,
                                              const int* recvCounts, const int* recvDisplacements,
                                              int recvType, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Reduce(const void* sendBuffer, void* recvBuffer, int count, int datatype,
                                           int op, int root, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Allreduce(const void* sendBuffer, void* recvBuffer, int count,
                                              int datatype, int op, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Reduce_scatter(const void* sendBuffer, void* recvBuffer,
                                                   const int* recvCounts, int datatype, int op, int comm);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Scan(const void* sendBuffer, void* recvBuffer, int count, int datatype,
                                         int op, int comm);

/// Datatypes and user reductions.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Type_contiguous(int count, int oldType, int* newType);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Type_create_struct(int count, const int* blockLengths,
                                                       const OXM_MPI_Aint* displacements, const int* types,
                                                       int* newType);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Type_create_resized(int oldType, OXM_MPI_Aint lowerBound,
                                                        OXM_MPI_Aint extent, int* newType);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Type_get_extent(int datatype, OXM_MPI_Aint* lowerBound,
                                                    OXM_MPI_Aint* extent);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Type_commit(int* datatype);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Type_free(int* datatype);
/// At most 32 user reductions are alive at a time; one more gives OXM_MPI_ERR_NO_REDUCTION_SLOT.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Op_create(OXM_MPI_User_function function, int commute, int* op);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Op_free(int* op);

/// Shared-memory windows. `baseAddress` is the address of a pointer.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Win_allocate_shared(OXM_MPI_Aint size, int displacementUnit, int info,
                                                        int comm, void* baseAddress, int* window);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Win_shared_query(int window, int rank, OXM_MPI_Aint* size,
                                                     int* displacementUnit, void* baseAddress);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Win_fence(int assertion, int window);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Win_free(int* window);

/// Files, after OXM_MPIO_Initialize; before it each answers OXM_MPI_ERR_NO_PARALLEL_IO.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_open(int comm, const char* fileName, int mode, int info, int* file);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_close(int* file);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_get_size(int file, OXM_MPI_Offset* size);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_get_info(int file, int* info);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_get_position(int file, OXM_MPI_Offset* offset);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_get_byte_offset(int file, OXM_MPI_Offset offset,
                                                         OXM_MPI_Offset* bytes);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_read(int file, void* buffer, int count, int datatype,
                                              OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_write(int file, const void* buffer, int count, int datatype,
                                               OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_read_at(int file, OXM_MPI_Offset offset, void* buffer, int count,
                                                 int datatype, OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_write_at(int file, OXM_MPI_Offset offset, const void* buffer,
                                                  int count, int datatype, OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_read_at_all(int file, OXM_MPI_Offset offset, void* buffer, int count,
                                                     int datatype, OXM_MPI_Status_struct* status);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_File_write_at_all(int file, OXM_MPI_Offset offset, const void* buffer,
                                                      int count, int datatype, OXM_MPI_Status_struct* status);

/// Hints.

ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Info_create(int* newInfo);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Info_free(int* info);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Info_set(int info, const char* key, const char* value);
/// `valueLength` doesn't count the terminator. `flag` tells whether the key is there; `value` is set then
/// only.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Info_get(int info, const char* key, int valueLength, char* value,
                                             int* flag);

/// Clock, texts, names.

/// Seconds since some time in the past; goes on after OXM_MPI_Finalize, and is 0 before OXM_MPI_Init. Any
/// thread.
ORVEX_MPIWRAPPER_EXPORT double OXM_MPI_Wtime(void);
/// Resolution of OXM_MPI_Wtime in seconds; 0 before OXM_MPI_Init. Any thread.
ORVEX_MPIWRAPPER_EXPORT double OXM_MPI_Wtick(void);
/// The MPI's own text of a code, or the wrapper's where the code is the wrapper's. Works at any time, for any
/// code. Any thread; the text of a code that is an error class may then be that of another thread's failure.
/// @param text    OXM_MPI_MAX_ERROR_STRING bytes; terminated
/// @param length  of the text, without the terminator
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Error_string(int code, char* text, int* length);
/// @param name    OXM_MPI_MAX_PROCESSOR_NAME bytes; terminated
/// @param length  of the name, without the terminator
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Get_processor_name(char* name, int* length);

/// Beyond MPI.

/// The largest message in bytes that one call may carry with this driver; 0 until a driver is initialised.
ORVEX_MPIWRAPPER_EXPORT uint64_t OXM_MPI_Get_max_buffer_size(void);
/// Non-zero in `supported` if shared-memory windows work with this driver's MPI.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Supports_v3_shared_memory(int* supported);
/// 1 in `disable` if this driver's MPI makes a test for processes bound to the same processor meaningless.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_disable_cpu_bind_collision_test(int* disable);
/// The MPI library's name and version for reports; `length` counts the terminator. Until set, and again with
/// the next OXM_MPI_Initialize, they are what the library says of itself.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Set_mpi_name(const char* name, int length);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Set_mpi_version(const char* version, int length);
/// `length` comes without the terminator; a text longer than `capacity` allows is cut, and terminated.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Get_mpi_name(char* name, int* length, int capacity);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Get_mpi_version(char* version, int* length, int capacity);
/// Tracing: one line for each call, on the standard error stream, with arguments, result and duration. While
/// it is off it costs nothing. To be switched by the thread that called OXM_MPI_Init, and by no other.
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Enable_trace(void);
ORVEX_MPIWRAPPER_EXPORT int OXM_MPI_Disable_trace(void);

#ifdef __cplusplus
}
#endif
