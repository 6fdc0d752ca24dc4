#include "mpiwrapper/drivers/Driver.h"

// Point-to-point messages and requests.

namespace Driver {

int Send(const void* buffer, int count, int datatype, int dest, int tag, int comm) {
    return translate(MPI_Send(buffer, count, handles.types.get(datatype), toNativeRank(dest),
                              toNativeTag(tag), handles.comms.get(comm)));
}

int Ssend(const void* buffer, int count, int datatype, int dest, int tag, int comm) {
    return translate(MPI_Ssend(buffer, count, handles.types.get(datatype), toNativeRank(dest),
                               toNativeTag(tag), handles.comms.get(comm)));
}

int Isend(const void* buffer, int count, int datatype, int dest, int tag, int comm, int* request) {
    MPI_Request native = MPI_REQUEST_NULL;
    const int code = MPI_Isend(buffer, count, handles.types.get(datatype), toNativeRank(dest),
                               toNativeTag(tag), handles.comms.get(comm), &native);
    return translateNew(code, handles.requests, native, request);
}

int Issend(const void* buffer, int count, int datatype, int dest, int tag, int comm, int* request) {
    MPI_Request native = MPI_REQUEST_NULL;
    const int code = MPI_Issend(buffer, count, handles.types.get(datatype), toNativeRank(dest),
                                toNativeTag(tag), handles.comms.get(comm), &native);
    return translateNew(code, handles.requests, native, request);
}

int Recv(void* buffer, int count, int datatype, int source, int tag, int comm,
         OXM_MPI_Status_struct* status) {
    MPI_Status native{};
    const int code = MPI_Recv(buffer, count, handles.types.get(datatype), toNativeRank(source),
                              toNativeTag(tag), handles.comms.get(comm), &native);
    return translate(code, native, status);
}

int Irecv(void* buffer, int count, int datatype, int source, int tag, int comm, int* request) {
    MPI_Request native = MPI_REQUEST_NULL;
    const int code = MPI_Irecv(buffer, count, handles.types.get(datatype), toNativeRank(source),
                               toNativeTag(tag), handles.comms.get(comm), &native);
    return translateNew(code, handles.requests, native, request);
}

int Recv_init(void* buffer, int count, int datatype, int source, int tag, int comm, int* request) {
    MPI_Request native = MPI_REQUEST_NULL;
    const int code = MPI_Recv_init(buffer, count, handles.types.get(datatype), toNativeRank(source),
                                   toNativeTag(tag), handles.comms.get(comm), &native);
    return translateNew(code, handles.requests, native, request);
}

int Sendrecv(const void* sendBuffer, int sendCount, int sendType, int dest, int sendTag, void* recvBuffer,
             int recvCount, int recvType, int source, int recvTag, int comm, OXM_MPI_Status_struct* status) {
    MPI_Status native{};
    const int code =
        MPI_Sendrecv(sendBuffer, sendCount, handles.types.get(sendType), toNativeRank(dest),
                     toNativeTag(sendTag), recvBuffer, recvCount, handles.types.get(recvType),
                     toNativeRank(source), toNativeTag(recvTag), handles.comms.get(comm), &native);
    return translate(code, native, status);
}

int Probe(int source, int tag, int comm, OXM_MPI_Status_struct* status) {
    MPI_Status native{};
    const int code = MPI_Probe(toNativeRank(source), toNativeTag(tag), handles.comms.get(comm), &native);
    return translate(code, native, status);
}

int Iprobe(int source, int tag, int comm, int* flag, OXM_MPI_Status_struct* status) {
    MPI_Status native{};
    *flag = 0;
    const int code =
        MPI_Iprobe(toNativeRank(source), toNativeTag(tag), handles.comms.get(comm), flag, &native);
    return translate(code, native, *flag || code != MPI_SUCCESS ? status : nullptr);
}

int Get_count(const OXM_MPI_Status_struct* status, int datatype, int* count) {
    MPI_Status native{};
#ifdef OPEN_MPI
    std::memcpy(&native._cancelled, status->reserved, sizeof native._cancelled);
    std::memcpy(&native._ucount, status->reserved + sizeof native._cancelled, sizeof native._ucount);
#else
    std::memcpy(&native.count_lo, status->reserved, sizeof native.count_lo);
    std::memcpy(&native.count_hi_and_cancelled, status->reserved + sizeof native.count_lo,
                sizeof native.count_hi_and_cancelled);
#endif
    const int code = MPI_Get_count(&native, handles.types.get(datatype), count);
    if (code == MPI_SUCCESS)
        *count = toIndex(*count);
    return translate(code);
}

namespace {

/// The MPI's handle goes into a call and comes back null when the request is done: its slot is free then.
void update(int& request, MPI_Request native) {
    if (native == MPI_REQUEST_NULL && request != OXM_MPI_REQUEST_NULL) {
        handles.requests.remove(request);
        request = OXM_MPI_REQUEST_NULL;
    }
}

void updateAll(std::size_t count, int* requests) {
    for (std::size_t i = 0; i < count; ++i)
        update(requests[i], handles.nativeRequests[i]);
}

/// Gathers the native requests and makes room for as many statuses.
int collect(int count, const int* requests) {
    if (count < 0)
        return refuse(OXM_MPI_ERR_COUNT);
    const auto size = static_cast<std::size_t>(count);
    handles.nativeRequests.resize(size);
    handles.nativeStatuses.resize(size);
    for (std::size_t i = 0; i < size; ++i) {
        if (!handles.requests.isNullOrLive(requests[i]))
            return refuse(OXM_MPI_ERR_REQUEST);
        handles.nativeRequests[i] = handles.requests.get(requests[i]);
    }
    return OXM_MPI_SUCCESS;
}

/// The statuses of a call that completed all its requests, or failed on some.
int translateAll(int native, std::size_t count, OXM_MPI_Status_struct* statuses) {
    const int code = translate(native);
    if (!statuses)
        return code;
    std::bitset<OXM_MPI_ERR_LASTCODE> seen;
    for (std::size_t i = 0; i < count; ++i) {
        const MPI_Status& status = handles.nativeStatuses[i];
        int error = code;
        if (code == OXM_MPI_ERR_IN_STATUS)
            error = status.MPI_ERROR == MPI_SUCCESS ? OXM_MPI_SUCCESS
                                                    : translateStatusFailure(status.MPI_ERROR, seen);
        toStatus(status, error, statuses + i);
    }
    return code;
}

} // namespace

int Start(int* request) {
    if (!handles.requests.isNullOrLive(*request))
        return refuse(OXM_MPI_ERR_REQUEST);
    MPI_Request native = handles.requests.get(*request);
    const int code = MPI_Start(&native);
    handles.requests.set(*request, native);
    return translate(code);
}

int Startall(int count, int* requests) {
    if (const int code = collect(count, requests))
        return code;
    const int code = MPI_Startall(count, handles.nativeRequests.data());
    for (std::size_t i = 0; i < handles.nativeRequests.size(); ++i)
        handles.requests.set(requests[i], handles.nativeRequests[i]);
    return translate(code);
}

int Wait(int* request, OXM_MPI_Status_struct* status) {
    if (!handles.requests.isNullOrLive(*request))
        return refuse(OXM_MPI_ERR_REQUEST, status);
    MPI_Request native = handles.requests.get(*request);
    MPI_Status nativeStatus{};
    const int code = MPI_Wait(&native, &nativeStatus);
    update(*request, native);
    return translate(code, nativeStatus, status);
}

int Waitall(int count, int* requests, OXM_MPI_Status_struct* statuses) {
    if (const int code = collect(count, requests))
        return refuse(code, statuses, count);
    const int code = MPI_Waitall(count, handles.nativeRequests.data(), handles.nativeStatuses.data());
    const auto size = static_cast<std::size_t>(count);
    updateAll(size, requests);
    return translateAll(code, size, statuses);
}

int Waitany(int count, int* requests, int* index, OXM_MPI_Status_struct* status) {
    *index = OXM_MPI_UNDEFINED;
    if (const int code = collect(count, requests))
        return refuse(code, status);
    MPI_Status nativeStatus{};
    const int code = MPI_Waitany(count, handles.nativeRequests.data(), index, &nativeStatus);
    updateAll(static_cast<std::size_t>(count), requests);
    *index = toIndex(*index);
    return translate(code, nativeStatus, status);
}

int Test(int* request, int* flag, OXM_MPI_Status_struct* status) {
    *flag = 0;
    if (!handles.requests.isNullOrLive(*request))
        return refuse(OXM_MPI_ERR_REQUEST, status);
    MPI_Request native = handles.requests.get(*request);
    MPI_Status nativeStatus{};
    const int code = MPI_Test(&native, flag, &nativeStatus);
    if (code == MPI_SUCCESS && !*flag)
        return OXM_MPI_SUCCESS;
    update(*request, native);
    return translate(code, nativeStatus, status);
}

#ifdef OPEN_MPI
/// This MPI makes progress only after it has looked, and tells of it at the next look. A caller that sleeps
/// between its looks would sleep once too often.
constexpr int LOOKS = 2;
#else
constexpr int LOOKS = 1;
#endif

int Testall(int count, int* requests, int* flag, OXM_MPI_Status_struct* statuses) {
    *flag = 0;
    if (const int code = collect(count, requests))
        return refuse(code, statuses, count);
    int code = MPI_SUCCESS;
    for (int look = 0; look < LOOKS && code == MPI_SUCCESS && !*flag; ++look)
        code = MPI_Testall(count, handles.nativeRequests.data(), flag, handles.nativeStatuses.data());
    if (code == MPI_SUCCESS && !*flag)
        return OXM_MPI_SUCCESS;
    const auto size = static_cast<std::size_t>(count);
    updateAll(size, requests);
    return translateAll(code, size, statuses);
}

int Testany(int count, int* requests, int* index, int* flag, OXM_MPI_Status_struct* status) {
    *flag = 0;
    *index = OXM_MPI_UNDEFINED;
    if (const int code = collect(count, requests))
        return refuse(code, status);
    MPI_Status nativeStatus{};
    int code = MPI_SUCCESS;
    for (int look = 0; look < LOOKS && code == MPI_SUCCESS && !*flag; ++look)
        code = MPI_Testany(count, handles.nativeRequests.data(), index, flag, &nativeStatus);
    *index = toIndex(*index);
    if (code == MPI_SUCCESS && !*flag)
        return OXM_MPI_SUCCESS;
    updateAll(static_cast<std::size_t>(count), requests);
    return translate(code, nativeStatus, status);
}

int Cancel(int* request) {
    if (!handles.requests.isNullOrLive(*request))
        return refuse(OXM_MPI_ERR_REQUEST);
    MPI_Request native = handles.requests.get(*request);
    return translate(MPI_Cancel(&native));
}

int Request_free(int* request) {
    if (!handles.requests.isNullOrLive(*request))
        return refuse(OXM_MPI_ERR_REQUEST);
    MPI_Request native = handles.requests.get(*request);
    return translateFree(MPI_Request_free(&native), handles.requests, request);
}

} // namespace Driver
