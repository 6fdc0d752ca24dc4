#pragma once

#include "mpiwrapper/OxmMpi.h"

// The functions that a driver serves, in one list each, as name, parameters and arguments. The dispatch
// table, the exported functions and their traced forms are made from these lists, so that none can miss a
// function.

// clang-format off

/// The two that change what the others may do.
#define ORVEX_MPI_START_FUNCTIONS(X)                                                                         \
    X(Init, (int* argc, char*** argv), (argc, argv))                                                         \
    X(Finalize, (), ())

/// Before OXM_MPI_Init, too.
#define ORVEX_MPI_DRIVER_FUNCTIONS(X)                                                                        \
    X(Supports_v3_shared_memory, (int* supported), (supported))                                              \
    X(disable_cpu_bind_collision_test, (int* disable), (disable))

/// While MPI runs.
#define ORVEX_MPI_RUNNING_FUNCTIONS(X)                                                                       \
    X(Abort, (int comm, int code), (comm, code))                                                             \
    X(Comm_rank, (int comm, int* rank), (comm, rank))                                                        \
    X(Comm_size, (int comm, int* size), (comm, size))                                                        \
    X(Comm_group, (int comm, int* group), (comm, group))                                                     \
    X(Comm_create, (int comm, int group, int* newComm), (comm, group, newComm))                              \
    X(Comm_split_type, (int comm, int splitType, int key, int info, int* newComm),                           \
      (comm, splitType, key, info, newComm))                                                                 \
    X(Comm_free, (int* comm), (comm))                                                                        \
    X(Comm_native_handle, (int comm, int* fortranHandle, char* library), (comm, fortranHandle, library))     \
    X(Group_incl, (int group, int count, const int* ranks, int* newGroup), (group, count, ranks, newGroup))  \
    X(Group_free, (int* group), (group))                                                                     \
    X(Send, (const void* buffer, int count, int datatype, int dest, int tag, int comm),                      \
      (buffer, count, datatype, dest, tag, comm))                                                            \
    X(Ssend, (const void* buffer, int count, int datatype, int dest, int tag, int comm),                     \
      (buffer, count, datatype, dest, tag, comm))                                                            \
    X(Isend, (const void* buffer, int count, int datatype, int dest, int tag, int comm, int* request),       \
      (buffer, count, datatype, dest, tag, comm, request))                                                   \
    X(Issend, (const void* buffer, int count, int datatype, int dest, int tag, int comm, int* request),      \
      (buffer, count, datatype, dest, tag, comm, request))                                                   \
    X(Recv, (void* buffer, int count, int datatype, int source, int tag, int comm,                           \
             OXM_MPI_Status_struct* status),                                                                 \
      (buffer, count, datatype, source, tag, comm, status))                                                  \
    X(Irecv, (void* buffer, int count, int datatype, int source, int tag, int comm, int* request),           \
      (buffer, count, datatype, source, tag, comm, request))                                                 \
    X(Recv_init, (void* buffer, int count, int datatype, int source, int tag, int comm, int* request),       \
      (buffer, count, datatype, source, tag, comm, request))                                                 \
    X(Sendrecv, (const void* sendBuffer, int sendCount, int sendType, int dest, int sendTag,                 \
                 void* recvBuffer, int recvCount, int recvType, int source, int recvTag, int comm,           \
                 OXM_MPI_Status_struct* status),                                                             \
      (sendBuffer, sendCount, sendType, dest, sendTag, recvBuffer, recvCount, recvType, source, recvTag,     \
       comm, status))                                                                                        \
    X(Probe, (int source, int tag, int comm, OXM_MPI_Status_struct* status), (source, tag, comm, status))    \
    X(Iprobe, (int source, int tag, int comm, int* flag, OXM_MPI_Status_struct* status),                     \
      (source, tag, comm, flag, status))                                                                     \
    X(Get_count, (const OXM_MPI_Status_struct* status, int datatype, int* count), (status, datatype, count)) \
    X(Start, (int* request), (request))                                                                      \
    X(Startall, (int count, int* requests), (count, requests))                                               \
    X(Wait, (int* request, OXM_MPI_Status_struct* status), (request, status))                                \
    X(Waitall, (int count, int* requests, OXM_MPI_Status_struct* statuses), (count, requests, statuses))     \
    X(Waitany, (int count, int* requests, int* index, OXM_MPI_Status_struct* status),                        \
      (count, requests, index, status))                                                                      \
    X(Test, (int* request, int* flag, OXM_MPI_Status_struct* status), (request, flag, status))               \
    X(Testall, (int count, int* requests, int* flag, OXM_MPI_Status_struct* statuses),                       \
      (count, requests, flag, statuses))                                                                     \
    X(Testany, (int count, int* requests, int* index, int* flag, OXM_MPI_Status_struct* status),             \
      (count, requests, index, flag, status))                                                                \
    X(Cancel, (int* request), (request))                                                                     \
    X(Request_free, (int* request), (request))                                                               \
    X(Barrier, (int comm), (comm))                                                                           \
    X(Bcast, (void* buffer, int count, int datatype, int root, int comm),                                    \
      (buffer, count, datatype, root, comm))                                                                 \
    X(Gather, (const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,         \
               int recvType, int root, int comm),                                                            \
      (sendBuffer, sendCount, sendType, recvBuffer, recvCount, recvType, root, comm))                        \
    X(Gatherv, (const void* sendBuffer, int sendCount, int sendType, void* recvBuffer,                       \
                const int* recvCounts, const int* displacements, int recvType, int root, int comm),          \
      (sendBuffer, sendCount, sendType, recvBuffer, recvCounts, displacements, recvType, root, comm))        \
    X(Allgather, (const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,      \
                  int recvType, int comm),                                                                   \
      (sendBuffer, sendCount, sendType, recvBuffer, recvCount, recvType, comm))                              \
    X(Allgatherv, (const void* sendBuffer, int sendCount, int sendType, void* recvBuffer,                    \
                   const int* recvCounts, const int* displacements, int recvType, int comm),                 \
      (sendBuffer, sendCount, sendType, recvBuffer, recvCounts, displacements, recvType, comm))              \
    X(Scatter, (const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,        \
                int recvType, int root, int comm),                                                           \
      (sendBuffer, sendCount, sendType, recvBuffer, recvCount, recvType, root, comm))                        \
    X(Scatterv, (const void* sendBuffer, const int* sendCounts, const int* displacements, int sendType,      \
                 void* recvBuffer, int recvCount, int recvType, int root, int comm),                         \
      (sendBuffer, sendCounts, displacements, sendType, recvBuffer, recvCount, recvType, root, comm))        \
    X(Alltoall, (const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,       \
                 int recvType, int comm),                                                                    \
      (sendBuffer, sendCount, sendType, recvBuffer, recvCount, recvType, comm))                              \
    X(Alltoallv, (const void* sendBuffer, const int* sendCounts, const int* sendDisplacements, int sendType, \
                  void* recvBuffer, const int* recvCounts, const int* recvDisplacements, int recvType,       \
                  int comm),                                                                                 \
      (sendBuffer, sendCounts, sendDisplacements, sendType, recvBuffer, recvCounts, recvDisplacements,       \
       recvType, comm))                                                                                      \
    X(Reduce, (const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int root,          \
               int comm),                                                                                    \
      (sendBuffer, recvBuffer, count, datatype, op, root, comm))                                             \
    X(Allreduce, (const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int comm),      \
      (sendBuffer, recvBuffer, count, datatype, op, comm))                                                   \
    X(Reduce_scatter, (const void* sendBuffer, void* recvBuffer, const int* recvCounts, int datatype,        \
                       int op, int comm),                                                                    \
      (sendBuffer, recvBuffer, recvCounts, datatype, op, comm))                                              \
    X(Scan, (const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int comm),           \
      (sendBuffer, recvBuffer, count, datatype, op, comm))                                                   \
    X(Type_contiguous, (int count, int oldType, int* newType), (count, oldType, newType))                    \
    X(Type_create_struct, (int count, const int* blockLengths, const OXM_MPI_Aint* displacements,            \
                           const int* types, int* newType),                                                  \
      (count, blockLengths, displacements, types, newType))                                                  \
    X(Type_create_resized, (int oldType, OXM_MPI_Aint lowerBound, OXM_MPI_Aint extent, int* newType),        \
      (oldType, lowerBound, extent, newType))                                                                \
    X(Type_get_extent, (int datatype, OXM_MPI_Aint* lowerBound, OXM_MPI_Aint* extent),                       \
      (datatype, lowerBound, extent))                                                                        \
    X(Type_commit, (int* datatype), (datatype))                                                              \
    X(Type_free, (int* datatype), (datatype))                                                                \
    X(Op_create, (OXM_MPI_User_function function, int commute, int* op), (function, commute, op))            \
    X(Op_free, (int* op), (op))                                                                              \
    X(Win_allocate_shared, (OXM_MPI_Aint size, int displacementUnit, int info, int comm, void* baseAddress,  \
                            int* window),                                                                    \
      (size, displacementUnit, info, comm, baseAddress, window))                                             \
    X(Win_shared_query, (int window, int rank, OXM_MPI_Aint* size, int* displacementUnit,                    \
                         void* baseAddress),                                                                 \
      (window, rank, size, displacementUnit, baseAddress))                                                   \
    X(Win_fence, (int assertion, int window), (assertion, window))                                           \
    X(Win_free, (int* window), (window))                                                                     \
    X(Info_create, (int* newInfo), (newInfo))                                                                \
    X(Info_free, (int* info), (info))                                                                        \
    X(Info_set, (int info, const char* key, const char* value), (info, key, value))                          \
    X(Info_get, (int info, const char* key, int valueLength, char* value, int* flag),                        \
      (info, key, valueLength, value, flag))                                                                 \
    X(Get_processor_name, (char* name, int* length), (name, length))

/// While MPI runs, after OXM_MPIO_Initialize.
#define ORVEX_MPI_FILE_FUNCTIONS(X)                                                                          \
    X(File_open, (int comm, const char* fileName, int mode, int info, int* file),                            \
      (comm, fileName, mode, info, file))                                                                    \
    X(File_close, (int* file), (file))                                                                       \
    X(File_get_size, (int file, OXM_MPI_Offset* size), (file, size))                                         \
    X(File_get_info, (int file, int* info), (file, info))                                                    \
    X(File_get_position, (int file, OXM_MPI_Offset* offset), (file, offset))                                 \
    X(File_get_byte_offset, (int file, OXM_MPI_Offset offset, OXM_MPI_Offset* bytes), (file, offset, bytes)) \
    X(File_read, (int file, void* buffer, int count, int datatype, OXM_MPI_Status_struct* status),           \
      (file, buffer, count, datatype, status))                                                               \
    X(File_write, (int file, const void* buffer, int count, int datatype, OXM_MPI_Status_struct* status),    \
      (file, buffer, count, datatype, status))                                                               \
    X(File_read_at, (int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype,                 \
                     OXM_MPI_Status_struct* status),                                                         \
      (file, offset, buffer, count, datatype, status))                                                       \
    X(File_write_at, (int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,          \
                      OXM_MPI_Status_struct* status),                                                        \
      (file, offset, buffer, count, datatype, status))                                                       \
    X(File_read_at_all, (int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype,             \
                         OXM_MPI_Status_struct* status),                                                     \
      (file, offset, buffer, count, datatype, status))                                                       \
    X(File_write_at_all, (int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,      \
                          OXM_MPI_Status_struct* status),                                                    \
      (file, offset, buffer, count, datatype, status))

// clang-format on
