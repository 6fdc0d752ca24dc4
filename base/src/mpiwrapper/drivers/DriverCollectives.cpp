#include "mpiwrapper/drivers/Driver.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

namespace Driver {

namespace {

#ifdef OPEN_MPI
MPI_Op nativeOp(int op, int) {
    return handles.ops.get(op);
}
#else
template <class T, bool isMaximum>
void takeExtremes(void* from, void* into, int* count, MPI_Datatype*) {
    const T* const values = static_cast<const T*>(from);
    T* const results = static_cast<T*>(into);
    for (int i = 0; i < *count; ++i)
        results[i] = isMaximum ? std::max(values[i], results[i]) : std::min(values[i], results[i]);
}

template <class T, bool isMaximum>
MPI_Op extremesOf() {
    static const MPI_Op own = [] {
        MPI_Op op = MPI_OP_NULL;
        MPI_Op_create(&takeExtremes<T, isMaximum>, 1, &op);
        return op;
    }();
    return own;
}

template <bool isMaximum>
MPI_Op extremesOf(int datatype, MPI_Op otherwise) {
    switch (datatype) {
    case OXM_MPI_UNSIGNED_CHAR:
        return extremesOf<unsigned char, isMaximum>();
    case OXM_MPI_UNSIGNED_SHORT:
        return extremesOf<unsigned short, isMaximum>();
    case OXM_MPI_UNSIGNED:
        return extremesOf<unsigned, isMaximum>();
    case OXM_MPI_UNSIGNED_LONG:
    case OXM_MPI_UINT64:
        return extremesOf<std::uint64_t, isMaximum>();
    default:
        return otherwise;
    }
}

/// MPICH 4.0 compares unsigned numbers as signed ones: functions of our own do it.
MPI_Op nativeOp(int op, int datatype) {
    if (op == OXM_MPI_MAX)
        return extremesOf<true>(datatype, MPI_MAX);
    if (op == OXM_MPI_MIN)
        return extremesOf<false>(datatype, MPI_MIN);
    return handles.ops.get(op);
}

/// MPICH 4.0 writes beyond its buffers when the root of a reduction isn't rank 0 and gives its own values in
/// place. It gets a copy of them.
int reduceCopy(void* values, int count, int datatype, int op, int root, int comm) {
    const MPI_Datatype type = handles.types.get(datatype);
    MPI_Aint lowerBound = 0;
    MPI_Aint extent = 0;
    MPI_Aint trueLowerBound = 0;
    MPI_Aint trueExtent = 0;
    int code = MPI_Type_get_extent(type, &lowerBound, &extent);
    if (code == MPI_SUCCESS)
        code = MPI_Type_get_true_extent(type, &trueLowerBound, &trueExtent);
    if (code != MPI_SUCCESS)
        return translate(code);
    const MPI_Aint bytes = count > 0 ? trueExtent + (count - 1) * extent : 0;
    const std::unique_ptr<char[]> copy(new (std::nothrow) char[static_cast<std::size_t>(bytes)]);
    if (!copy)
        return refuse(OXM_MPI_ERR_NO_MEM);
    if (bytes > 0)
        std::memcpy(copy.get(), static_cast<char*>(values) + trueLowerBound, static_cast<std::size_t>(bytes));
    return translate(MPI_Reduce(copy.get() - trueLowerBound, values, count, type, nativeOp(op, datatype),
                                root, handles.comms.get(comm)));
}
#endif

} // namespace

int Barrier(int comm) {
    return translate(MPI_Barrier(handles.comms.get(comm)));
}

int Bcast(void* buffer, int count, int datatype, int root, int comm) {
    return translate(
        MPI_Bcast(buffer, count, handles.types.get(datatype), toNativeRank(root), handles.comms.get(comm)));
}

int Gather(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount, int recvType,
           int root, int comm) {
    return translate(MPI_Gather(toNativeBuffer(sendBuffer), sendCount, handles.types.get(sendType),
                                recvBuffer, recvCount, handles.types.get(recvType), toNativeRank(root),
                                handles.comms.get(comm)));
}

int Gatherv(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, const int* recvCounts,
            const int* displacements, int recvType, int root, int comm) {
    return translate(MPI_Gatherv(toNativeBuffer(sendBuffer), sendCount, handles.types.get(sendType),
                                 recvBuffer, recvCounts, displacements, handles.types.get(recvType),
                                 toNativeRank(root), handles.comms.get(comm)));
}

int Allgather(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,
              int recvType, int comm) {
    return translate(MPI_Allgather(toNativeBuffer(sendBuffer), sendCount, handles.types.get(sendType),
                                   recvBuffer, recvCount, handles.types.get(recvType),
                                   handles.comms.get(comm)));
}

int Allgatherv(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, const int* recvCounts,
               const int* displacements, int recvType, int comm) {
    return translate(MPI_Allgatherv(toNativeBuffer(sendBuffer), sendCount, handles.types.get(sendType),
                                    recvBuffer, recvCounts, displacements, handles.types.get(recvType),
                                    handles.comms.get(comm)));
}

int Scatter(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,
            int recvType, int root, int comm) {
    return translate(MPI_Scatter(sendBuffer, sendCount, handles.types.get(sendType),
                                 toNativeBuffer(recvBuffer), recvCount, handles.types.get(recvType),
                                 toNativeRank(root), handles.comms.get(comm)));
}

int Scatterv(const void* sendBuffer, const int* sendCounts, const int* displacements, int sendType,
             void* recvBuffer, int recvCount, int recvType, int root, int comm) {
    return translate(MPI_Scatterv(sendBuffer, sendCounts, displacements, handles.types.get(sendType),
                                  toNativeBuffer(recvBuffer), recvCount, handles.types.get(recvType),
                                  toNativeRank(root), handles.comms.get(comm)));
}

int Alltoall(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,
             int recvType, int comm) {
    return translate(MPI_Alltoall(toNativeBuffer(sendBuffer), sendCount, handles.types.get(sendType),
                                  recvBuffer, recvCount, handles.types.get(recvType),
                                  handles.comms.get(comm)));
}

int Alltoallv(const void* sendBuffer, const int* sendCounts, const int* sendDisplacements, int sendType,
              void* recvBuffer, const int* recvCounts, const int* recvDisplacements, int recvType, int comm) {
    return translate(MPI_Alltoallv(toNativeBuffer(sendBuffer), sendCounts, sendDisplacements,
                                   handles.types.get(sendType), recvBuffer, recvCounts, recvDisplacements,
                                   handles.types.get(recvType), handles.comms.get(comm)));
}

int Reduce(const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int root, int comm) {
#ifndef OPEN_MPI
    if (sendBuffer == OXM_MPI_IN_PLACE && root > 0)
        return reduceCopy(recvBuffer, count, datatype, op, root, comm);
#endif
    return translate(MPI_Reduce(toNativeBuffer(sendBuffer), recvBuffer, count, handles.types.get(datatype),
                                nativeOp(op, datatype), toNativeRank(root), handles.comms.get(comm)));
}

int Allreduce(const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int comm) {
    return translate(MPI_Allreduce(toNativeBuffer(sendBuffer), recvBuffer, count, handles.types.get(datatype),
                                   nativeOp(op, datatype), handles.comms.get(comm)));
}

int Reduce_scatter(const void* sendBuffer, void* recvBuffer, const int* recvCounts, int datatype, int op,
                   int comm) {
    return translate(MPI_Reduce_scatter(toNativeBuffer(sendBuffer), recvBuffer, recvCounts,
                                        handles.types.get(datatype), nativeOp(op, datatype),
                                        handles.comms.get(comm)));
}

int Scan(const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int comm) {
    return translate(MPI_Scan(toNativeBuffer(sendBuffer), recvBuffer, count, handles.types.get(datatype),
                              nativeOp(op, datatype), handles.comms.get(comm)));
}

} // namespace Driver
