#include "support/ScriptedMpiState.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <tuple>

// The driver's own work, on one rank, and the module's two visible symbols.

namespace {

ScriptedMpiState& state() {
    return ScriptedMpiState::getSingleton();
}

namespace Play {

using Status = OXM_MPI_Status_struct;
using Comm = ScriptedMpiState::Comm;
using Type = ScriptedMpiState::Type;
using Request = ScriptedMpiState::Request;

int Init(int*, char***) {
    return OXM_MPI_SUCCESS;
}
int Finalize() {
    return OXM_MPI_SUCCESS;
}
int Abort(int, int) {
    return OXM_MPI_SUCCESS;
}

int Supports_v3_shared_memory(int* supported) {
    *supported = state().supportsSharedMemory;
    return OXM_MPI_SUCCESS;
}
int disable_cpu_bind_collision_test(int* disable) {
    *disable = state().bindCollisionTestDisabled;
    return OXM_MPI_SUCCESS;
}

// Communicators and groups

int Comm_rank(int comm, int* rank) {
    const Comm* const found = state().findComm(comm);
    if (!found)
        return OXM_MPI_ERR_COMM;
    *rank = found->rank;
    return OXM_MPI_SUCCESS;
}
int Comm_size(int comm, int* size) {
    const Comm* const found = state().findComm(comm);
    if (!found)
        return OXM_MPI_ERR_COMM;
    *size = found->size();
    return OXM_MPI_SUCCESS;
}
int Comm_group(int comm, int* group) {
    const Comm* const found = state().findComm(comm);
    if (!found)
        return OXM_MPI_ERR_COMM;
    *group = state().makeHandle();
    state().groups[*group] = found->worldRanks;
    return OXM_MPI_SUCCESS;
}
int makeComm(const std::vector<int>& worldRanks, int* newComm) {
    const auto self = std::find(worldRanks.begin(), worldRanks.end(), state().worldRank);
    *newComm = OXM_MPI_COMM_NULL;
    if (self == worldRanks.end())
        return OXM_MPI_SUCCESS;
    *newComm = state().makeHandle();
    state().comms[*newComm] = {worldRanks, static_cast<int>(self - worldRanks.begin())};
    return OXM_MPI_SUCCESS;
}
int Comm_create(int comm, int group, int* newComm) {
    if (!state().findComm(comm))
        return OXM_MPI_ERR_COMM;
    const auto found = state().groups.find(group);
    return found == state().groups.end() ? OXM_MPI_ERR_GROUP : makeComm(found->second, newComm);
}
int Comm_split_type(int comm, int splitType, int, int, int* newComm) {
    const Comm* const found = state().findComm(comm);
    if (!found)
        return OXM_MPI_ERR_COMM;
    return splitType == OXM_MPI_COMM_TYPE_SHARED ? makeComm(found->worldRanks, newComm) : OXM_MPI_ERR_ARG;
}
template <class Map>
int release(Map& map, int* handle, int lowest, int error) {
    if (*handle < lowest || map.erase(*handle) == 0)
        return error;
    *handle = 0;
    return OXM_MPI_SUCCESS;
}
constexpr int LOWEST_MADE = 100;
int Comm_free(int* comm) {
    return release(state().comms, comm, LOWEST_MADE, OXM_MPI_ERR_COMM);
}
int Group_incl(int group, int count, const int* ranks, int* newGroup) {
    const auto found = state().groups.find(group);
    if (found == state().groups.end())
        return OXM_MPI_ERR_GROUP;
    std::vector<int> chosen;
    for (int i = 0; i < count; ++i) {
        if (ranks[i] < 0 || static_cast<std::size_t>(ranks[i]) >= found->second.size())
            return OXM_MPI_ERR_RANK;
        chosen.push_back(found->second[static_cast<std::size_t>(ranks[i])]);
    }
    *newGroup = state().makeHandle();
    state().groups[*newGroup] = chosen;
    return OXM_MPI_SUCCESS;
}
int Group_free(int* group) {
    return release(state().groups, group, LOWEST_MADE, OXM_MPI_ERR_GROUP);
}

// Point-to-point

/// The code of the first thing wrong with a message's arguments.
int examine(int count, int datatype, int partner, int comm, std::size_t& bytes) {
    const Comm* const found = state().findComm(comm);
    if (!found)
        return OXM_MPI_ERR_COMM;
    const Type* const type = state().findType(datatype);
    if (!type)
        return OXM_MPI_ERR_TYPE;
    if (count < 0)
        return OXM_MPI_ERR_COUNT;
    if (partner != OXM_MPI_ANY_SOURCE && (partner < 0 || partner >= found->size()))
        return OXM_MPI_ERR_RANK;
    bytes = static_cast<std::size_t>(count) * type->extent;
    return OXM_MPI_SUCCESS;
}
int Send(const void* buffer, int count, int datatype, int dest, int tag, int comm) {
    std::size_t bytes = 0;
    if (const int code = examine(count, datatype, dest, comm, bytes))
        return code;
    const std::string data = bytes ? std::string(static_cast<const char*>(buffer), bytes) : std::string();
    state().sentMessages.push_back({dest, tag, data});
    if (dest == state().findComm(comm)->rank)
        state().deliver(dest, tag, data.data(), data.size());
    return OXM_MPI_SUCCESS;
}
int Ssend(const void* buffer, int count, int datatype, int dest, int tag, int comm) {
    return Send(buffer, count, datatype, dest, tag, comm);
}
int addRequest(Request request, int* handle) {
    request.looks = state().looksBeforeCompletion;
    *handle = state().makeHandle();
    state().requests[*handle] = request;
    return OXM_MPI_SUCCESS;
}
int Isend(const void* buffer, int count, int datatype, int dest, int tag, int comm, int* request) {
    if (const int code = Send(buffer, count, datatype, dest, tag, comm))
        return code;
    Request made;
    made.partner = state().findComm(comm)->rank;
    made.tag = tag;
    return addRequest(made, request);
}
int Issend(const void* buffer, int count, int datatype, int dest, int tag, int comm, int* request) {
    return Isend(buffer, count, datatype, dest, tag, comm, request);
}
/// Takes the message that is there; without one the buffer stays as it is and counts as filled.
int receive(void* buffer, std::size_t capacity, int source, int tag, Status* status) {
    const auto message = state().takeMessage(source, tag);
    if (!message) {
        state().setStatus(status, source == OXM_MPI_ANY_SOURCE ? 0 : source, tag == OXM_MPI_ANY_TAG ? 0 : tag,
                          capacity);
        return OXM_MPI_SUCCESS;
    }
    const std::size_t bytes = std::min(capacity, message->bytes.size());
    if (bytes)
        std::memcpy(buffer, message->bytes.data(), bytes);
    state().setStatus(status, message->partner, message->tag, bytes);
    return message->bytes.size() > capacity ? OXM_MPI_ERR_TRUNCATE : OXM_MPI_SUCCESS;
}
int Recv(void* buffer, int count, int datatype, int source, int tag, int comm, Status* status) {
    std::size_t bytes = 0;
    if (const int code = examine(count, datatype, source, comm, bytes))
        return code;
    return receive(buffer, bytes, source, tag, status);
}
int makeReceive(void* buffer, int count, int datatype, int source, int tag, int comm, bool isPersistent,
                int* request) {
    Request made;
    if (const int code = examine(count, datatype, source, comm, made.capacity))
        return code;
    made.isReceive = true;
    made.isPersistent = isPersistent;
    made.isActive = !isPersistent;
    made.buffer = buffer;
    made.partner = source;
    made.tag = tag;
    return addRequest(made, request);
}
int Irecv(void* buffer, int count, int datatype, int source, int tag, int comm, int* request) {
    return makeReceive(buffer, count, datatype, source, tag, comm, false, request);
}
int Recv_init(void* buffer, int count, int datatype, int source, int tag, int comm, int* request) {
    return makeReceive(buffer, count, datatype, source, tag, comm, true, request);
}
int Sendrecv(const void* sendBuffer, int sendCount, int sendType, int dest, int sendTag, void* recvBuffer,
             int recvCount, int recvType, int source, int recvTag, int comm, Status* status) {
    if (const int code = Send(sendBuffer, sendCount, sendType, dest, sendTag, comm))
        return code;
    return Recv(recvBuffer, recvCount, recvType, source, recvTag, comm, status);
}
int Iprobe(int source, int tag, int comm, int* flag, Status* status) {
    if (!state().findComm(comm))
        return OXM_MPI_ERR_COMM;
    const ScriptedMpi::Message* const message = state().peekMessage(source, tag);
    *flag = message != nullptr;
    if (message)
        state().setStatus(status, message->partner, message->tag, message->bytes.size());
    return OXM_MPI_SUCCESS;
}
int Probe(int source, int tag, int comm, Status* status) {
    int flag = 0;
    const int code = Iprobe(source, tag, comm, &flag, status);
    // A real one would wait for ever.
    return code == OXM_MPI_SUCCESS && !flag ? OXM_MPI_ERR_OTHER : code;
}
int Get_count(const Status* status, int datatype, int* count) {
    const Type* const type = state().findType(datatype);
    if (!type)
        return OXM_MPI_ERR_TYPE;
    std::size_t bytes = 0;
    std::memcpy(&bytes, status->reserved, sizeof bytes);
    *count = type->extent && bytes % type->extent == 0 ? static_cast<int>(bytes / type->extent)
                                                       : OXM_MPI_UNDEFINED;
    return OXM_MPI_SUCCESS;
}

// Requests

Request* findRequest(int handle) {
    const auto found = state().requests.find(handle);
    return found == state().requests.end() ? nullptr : &found->second;
}
bool areValid(int count, const int* requests) {
    return std::all_of(requests, requests + count,
                       [](int request) { return request == OXM_MPI_REQUEST_NULL || findRequest(request); });
}
bool isPending(int handle) {
    const Request* const request = findRequest(handle);
    return request && request->isActive;
}
int complete(int& handle, Status* status) {
    Request* const request = findRequest(handle);
    if (!request || !request->isActive) {
        state().setStatus(status, OXM_MPI_ANY_SOURCE, OXM_MPI_ANY_TAG, 0);
        return OXM_MPI_SUCCESS;
    }
    const Request copy = *request;
    if (copy.isPersistent) {
        request->isActive = false;
    } else {
        state().requests.erase(handle);
        handle = OXM_MPI_REQUEST_NULL;
    }
    if (copy.isReceive)
        return receive(copy.buffer, copy.capacity, copy.partner, copy.tag, status);
    state().setStatus(status, copy.partner, copy.tag, 0);
    return OXM_MPI_SUCCESS;
}
/// One look at a request: whether it is complete now.
bool look(int handle) {
    Request* const request = findRequest(handle);
    return !request || !request->isActive || request->looks-- <= 0;
}
int Startall(int count, int* requests) {
    if (!areValid(count, requests))
        return OXM_MPI_ERR_REQUEST;
    for (int i = 0; i < count; ++i) {
        Request* const request = findRequest(requests[i]);
        if (!request || !request->isPersistent || request->isActive)
            return OXM_MPI_ERR_REQUEST;
        request->isActive = true;
        request->looks = state().looksBeforeCompletion;
    }
    return OXM_MPI_SUCCESS;
}
int Start(int* request) {
    return Startall(1, request);
}
int Wait(int* request, Status* status) {
    return areValid(1, request) ? complete(*request, status) : OXM_MPI_ERR_REQUEST;
}
int Waitall(int count, int* requests, Status* statuses) {
    if (!areValid(count, requests))
        return OXM_MPI_ERR_REQUEST;
    int result = OXM_MPI_SUCCESS;
    for (int i = 0; i < count; ++i) {
        const int code = complete(requests[i], statuses ? statuses + i : nullptr);
        if (code == OXM_MPI_SUCCESS)
            continue;
        result = OXM_MPI_ERR_IN_STATUS;
        if (statuses)
            statuses[i].error = code;
    }
    return result;
}
int Testany(int count, int* requests, int* index, int* flag, Status* status) {
    if (!areValid(count, requests))
        return OXM_MPI_ERR_REQUEST;
    *flag = 1;
    *index = OXM_MPI_UNDEFINED;
    if (state().nextIndex) {
        *index = *state().nextIndex;
        state().nextIndex.reset();
        return *index == OXM_MPI_UNDEFINED ? OXM_MPI_SUCCESS : complete(requests[*index], status);
    }
    if (std::none_of(requests, requests + count, isPending))
        return OXM_MPI_SUCCESS;
    for (int i = 0; i < count; ++i)
        if (isPending(requests[i]) && look(requests[i])) {
            *index = i;
            return complete(requests[i], status);
        }
    *flag = 0;
    return OXM_MPI_SUCCESS;
}
int Waitany(int count, int* requests, int* index, Status* status) {
    int flag = 0;
    int code = OXM_MPI_SUCCESS;
    while (code == OXM_MPI_SUCCESS && !flag)
        code = Testany(count, requests, index, &flag, status);
    return code;
}
int Testall(int count, int* requests, int* flag, Status* statuses) {
    if (!areValid(count, requests))
        return OXM_MPI_ERR_REQUEST;
    *flag = 1;
    for (int i = 0; i < count; ++i)
        if (!look(requests[i]))
            *flag = 0;
    return *flag ? Waitall(count, requests, statuses) : OXM_MPI_SUCCESS;
}
int Test(int* request, int* flag, Status* status) {
    if (!areValid(1, request))
        return OXM_MPI_ERR_REQUEST;
    *flag = look(*request);
    return *flag ? complete(*request, status) : OXM_MPI_SUCCESS;
}
int Cancel(int* request) {
    return isPending(*request) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_REQUEST;
}
int Request_free(int* request) {
    return release(state().requests, request, LOWEST_MADE, OXM_MPI_ERR_REQUEST);
}

// Collectives: the own block goes its way, the others' stay as they are.

char* at(void* buffer, long long elements, const Type* type) {
    return static_cast<char*>(buffer) + elements * static_cast<long long>(type->extent);
}
const char* at(const void* buffer, long long elements, const Type* type) {
    return static_cast<const char*>(buffer) + elements * static_cast<long long>(type->extent);
}
void copy(void* target, const void* source, long long elements, const Type* type) {
    if (elements > 0 && target != source)
        std::memmove(target, source, static_cast<std::size_t>(elements) * type->extent);
}
/// The code of the first thing wrong with a collective's arguments.
int examine(int comm, int root, int sendType, int recvType) {
    const Comm* const found = state().findComm(comm);
    if (!found)
        return OXM_MPI_ERR_COMM;
    if (root < 0 || root >= found->size())
        return OXM_MPI_ERR_ROOT;
    return state().findType(sendType) && state().findType(recvType) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_TYPE;
}
int rankIn(int comm) {
    return state().findComm(comm)->rank;
}

int Barrier(int comm) {
    return state().findComm(comm) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_COMM;
}
int Bcast(void*, int, int datatype, int root, int comm) {
    return examine(comm, root, datatype, datatype);
}
int Allgather(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,
              int recvType, int comm) {
    if (const int code = examine(comm, 0, sendType, recvType))
        return code;
    if (sendBuffer != OXM_MPI_IN_PLACE)
        copy(at(recvBuffer, static_cast<long long>(rankIn(comm)) * recvCount, state().findType(recvType)),
             sendBuffer, sendCount, state().findType(sendType));
    return OXM_MPI_SUCCESS;
}
int Gather(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount, int recvType,
           int root, int comm) {
    if (const int code = examine(comm, root, sendType, recvType))
        return code;
    return rankIn(comm) == root
               ? Allgather(sendBuffer, sendCount, sendType, recvBuffer, recvCount, recvType, comm)
               : OXM_MPI_SUCCESS;
}
int Allgatherv(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, const int*,
               const int* displacements, int recvType, int comm) {
    if (const int code = examine(comm, 0, sendType, recvType))
        return code;
    if (sendBuffer != OXM_MPI_IN_PLACE)
        copy(at(recvBuffer, displacements[rankIn(comm)], state().findType(recvType)), sendBuffer, sendCount,
             state().findType(sendType));
    return OXM_MPI_SUCCESS;
}
int Gatherv(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, const int* recvCounts,
            const int* displacements, int recvType, int root, int comm) {
    if (const int code = examine(comm, root, sendType, recvType))
        return code;
    return rankIn(comm) == root ? Allgatherv(sendBuffer, sendCount, sendType, recvBuffer, recvCounts,
                                             displacements, recvType, comm)
                                : OXM_MPI_SUCCESS;
}
int Scatter(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int, int recvType,
            int root, int comm) {
    if (const int code = examine(comm, root, sendType, recvType))
        return code;
    const Type* const type = state().findType(sendType);
    if (rankIn(comm) == root && recvBuffer != OXM_MPI_IN_PLACE)
        copy(recvBuffer, at(sendBuffer, static_cast<long long>(root) * sendCount, type), sendCount, type);
    return OXM_MPI_SUCCESS;
}
int Scatterv(const void* sendBuffer, const int* sendCounts, const int* displacements, int sendType,
             void* recvBuffer, int, int recvType, int root, int comm) {
    if (const int code = examine(comm, root, sendType, recvType))
        return code;
    const Type* const type = state().findType(sendType);
    if (rankIn(comm) == root && recvBuffer != OXM_MPI_IN_PLACE)
        copy(recvBuffer, at(sendBuffer, displacements[root], type), sendCounts[root], type);
    return OXM_MPI_SUCCESS;
}
int Alltoall(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,
             int recvType, int comm) {
    if (const int code = examine(comm, 0, sendType, recvType))
        return code;
    const long long rank = rankIn(comm);
    const Type* const type = state().findType(sendType);
    if (sendBuffer != OXM_MPI_IN_PLACE)
        copy(at(recvBuffer, rank * recvCount, state().findType(recvType)),
             at(sendBuffer, rank * sendCount, type), sendCount, type);
    return OXM_MPI_SUCCESS;
}
int Alltoallv(const void* sendBuffer, const int* sendCounts, const int* sendDisplacements, int sendType,
              void* recvBuffer, const int*, const int* recvDisplacements, int recvType, int comm) {
    if (const int code = examine(comm, 0, sendType, recvType))
        return code;
    const int rank = rankIn(comm);
    const Type* const type = state().findType(sendType);
    if (sendBuffer != OXM_MPI_IN_PLACE)
        copy(at(recvBuffer, recvDisplacements[rank], state().findType(recvType)),
             at(sendBuffer, sendDisplacements[rank], type), sendCounts[rank], type);
    return OXM_MPI_SUCCESS;
}
int Allreduce(const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int comm) {
    if (const int code = examine(comm, 0, datatype, datatype))
        return code;
    if (!state().ops.contains(op))
        return OXM_MPI_ERR_OP;
    if (sendBuffer != OXM_MPI_IN_PLACE)
        copy(recvBuffer, sendBuffer, count, state().findType(datatype));
    return OXM_MPI_SUCCESS;
}
int Reduce(const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int root, int comm) {
    if (const int code = examine(comm, root, datatype, datatype))
        return code;
    if (!state().ops.contains(op))
        return OXM_MPI_ERR_OP;
    return rankIn(comm) == root ? Allreduce(sendBuffer, recvBuffer, count, datatype, op, comm)
                                : OXM_MPI_SUCCESS;
}
int Scan(const void* sendBuffer, void* recvBuffer, int count, int datatype, int op, int comm) {
    return Allreduce(sendBuffer, recvBuffer, count, datatype, op, comm);
}
int Reduce_scatter(const void* sendBuffer, void* recvBuffer, const int* recvCounts, int datatype, int op,
                   int comm) {
    if (const int code = examine(comm, 0, datatype, datatype))
        return code;
    if (!state().ops.contains(op))
        return OXM_MPI_ERR_OP;
    const int rank = rankIn(comm);
    long long before = 0;
    for (int i = 0; i < rank; ++i)
        before += recvCounts[i];
    const Type* const type = state().findType(datatype);
    if (sendBuffer != OXM_MPI_IN_PLACE)
        copy(recvBuffer, at(sendBuffer, before, type), recvCounts[rank], type);
    return OXM_MPI_SUCCESS;
}

// Datatypes and operations

int makeType(Type type, int* newType) {
    *newType = state().makeHandle();
    state().types[*newType] = type;
    return OXM_MPI_SUCCESS;
}
int Type_contiguous(int count, int oldType, int* newType) {
    const auto found = state().types.find(oldType);
    if (found == state().types.end())
        return OXM_MPI_ERR_TYPE;
    return count < 0 ? OXM_MPI_ERR_COUNT
                     : makeType({found->second.extent * static_cast<std::size_t>(count), 0, false}, newType);
}
int Type_create_struct(int count, const int* blockLengths, const OXM_MPI_Aint* displacements,
                       const int* members, int* newType) {
    long long lowest = 0;
    long long highest = 0;
    for (int i = 0; i < count; ++i) {
        const auto found = state().types.find(members[i]);
        if (found == state().types.end())
            return OXM_MPI_ERR_TYPE;
        const long long end =
            displacements[i] + blockLengths[i] * static_cast<long long>(found->second.extent);
        lowest = i == 0 ? displacements[i] : std::min(lowest, displacements[i]);
        highest = i == 0 ? end : std::max(highest, end);
    }
    return makeType({static_cast<std::size_t>(highest - lowest), lowest, false}, newType);
}
int Type_create_resized(int oldType, OXM_MPI_Aint lowerBound, OXM_MPI_Aint extent, int* newType) {
    return state().types.contains(oldType)
               ? makeType({static_cast<std::size_t>(extent), lowerBound, false}, newType)
               : OXM_MPI_ERR_TYPE;
}
int Type_get_extent(int datatype, OXM_MPI_Aint* lowerBound, OXM_MPI_Aint* extent) {
    const auto found = state().types.find(datatype);
    if (found == state().types.end())
        return OXM_MPI_ERR_TYPE;
    *lowerBound = found->second.lowerBound;
    *extent = static_cast<OXM_MPI_Aint>(found->second.extent);
    return OXM_MPI_SUCCESS;
}
int Type_commit(int* datatype) {
    const auto found = state().types.find(*datatype);
    if (found == state().types.end())
        return OXM_MPI_ERR_TYPE;
    found->second.isCommitted = true;
    return OXM_MPI_SUCCESS;
}
int Type_free(int* datatype) {
    return release(state().types, datatype, LOWEST_MADE, OXM_MPI_ERR_TYPE);
}
int Op_create(OXM_MPI_User_function function, int, int* op) {
    *op = state().makeHandle();
    state().ops[*op] = function;
    return OXM_MPI_SUCCESS;
}
int Op_free(int* op) {
    return release(state().ops, op, LOWEST_MADE, OXM_MPI_ERR_OP);
}

// Windows: the memory is this process's own, whichever rank's is asked for.

int Win_allocate_shared(OXM_MPI_Aint size, int displacementUnit, int, int comm, void* baseAddress,
                        int* window) {
    if (!state().findComm(comm))
        return OXM_MPI_ERR_COMM;
    if (!state().supportsSharedMemory)
        return OXM_MPI_ERR_RMA_SHARED;
    *window = state().makeHandle();
    auto& memory = state().windows[*window];
    memory = std::make_unique<char[]>(static_cast<std::size_t>(size));
    state().windowSizes[*window] = size;
    state().windowUnits[*window] = displacementUnit;
    char* const address = memory.get();
    std::memcpy(baseAddress, &address, sizeof address);
    return OXM_MPI_SUCCESS;
}
int Win_shared_query(int window, int, OXM_MPI_Aint* size, int* displacementUnit, void* baseAddress) {
    const auto found = state().windows.find(window);
    if (found == state().windows.end())
        return OXM_MPI_ERR_WIN;
    *size = state().windowSizes[window];
    *displacementUnit = state().windowUnits[window];
    char* const address = found->second.get();
    std::memcpy(baseAddress, &address, sizeof address);
    return OXM_MPI_SUCCESS;
}
int Win_fence(int, int window) {
    return state().windows.contains(window) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_WIN;
}
int Win_free(int* window) {
    return release(state().windows, window, LOWEST_MADE, OXM_MPI_ERR_WIN);
}

// Files and hints

ScriptedMpiState::File* findFile(int handle) {
    const auto found = state().files.find(handle);
    return found == state().files.end() ? nullptr : &found->second;
}
int File_open(int comm, const char* fileName, int mode, int info, int* file) {
    if (!state().findComm(comm))
        return OXM_MPI_ERR_COMM;
    if (info != OXM_MPI_INFO_NULL && !state().infos.contains(info))
        return OXM_MPI_ERR_INFO;
    const bool exists = state().disk.contains(fileName);
    if (!exists && !(mode & OXM_MPI_MODE_CREATE))
        return OXM_MPI_ERR_NO_SUCH_FILE;
    if (exists && (mode & OXM_MPI_MODE_EXCL))
        return OXM_MPI_ERR_FILE_EXISTS;
    state().disk[fileName];
    *file = state().makeHandle();
    state().files[*file] = {fileName, 0, {}};
    if (info != OXM_MPI_INFO_NULL)
        state().files[*file].info = state().infos[info];
    return OXM_MPI_SUCCESS;
}
int File_close(int* file) {
    return release(state().files, file, LOWEST_MADE, OXM_MPI_ERR_FILE);
}
int File_get_size(int file, OXM_MPI_Offset* size) {
    const auto* const found = findFile(file);
    if (!found)
        return OXM_MPI_ERR_FILE;
    *size = static_cast<OXM_MPI_Offset>(state().disk[found->name].size());
    return OXM_MPI_SUCCESS;
}
int File_get_info(int file, int* info) {
    const auto* const found = findFile(file);
    if (!found)
        return OXM_MPI_ERR_FILE;
    *info = state().makeHandle();
    state().infos[*info] = found->info;
    return OXM_MPI_SUCCESS;
}
int File_get_position(int file, OXM_MPI_Offset* offset) {
    const auto* const found = findFile(file);
    if (!found)
        return OXM_MPI_ERR_FILE;
    *offset = static_cast<OXM_MPI_Offset>(found->position);
    return OXM_MPI_SUCCESS;
}
int File_get_byte_offset(int file, OXM_MPI_Offset offset, OXM_MPI_Offset* bytes) {
    *bytes = offset;
    return findFile(file) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_FILE;
}
int File_write_at(int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,
                  Status* status) {
    const auto* const found = findFile(file);
    const Type* const type = state().findType(datatype);
    if (!found || !type)
        return found ? OXM_MPI_ERR_TYPE : OXM_MPI_ERR_FILE;
    const auto begin = static_cast<std::size_t>(offset);
    const std::size_t bytes = static_cast<std::size_t>(count) * type->extent;
    std::string& content = state().disk[found->name];
    content.resize(std::max(content.size(), begin + bytes));
    std::copy_n(static_cast<const char*>(buffer), bytes, content.begin() + offset);
    state().setStatus(status, 0, 0, bytes);
    return OXM_MPI_SUCCESS;
}
int File_read_at(int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype, Status* status) {
    const auto* const found = findFile(file);
    const Type* const type = state().findType(datatype);
    if (!found || !type)
        return found ? OXM_MPI_ERR_TYPE : OXM_MPI_ERR_FILE;
    const std::string& content = state().disk[found->name];
    const std::size_t begin = std::min(static_cast<std::size_t>(offset), content.size());
    const std::size_t bytes =
        std::min(static_cast<std::size_t>(count) * type->extent, content.size() - begin);
    std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(begin), bytes, static_cast<char*>(buffer));
    state().setStatus(status, 0, 0, bytes);
    return OXM_MPI_SUCCESS;
}
/// Both move the file pointer by what they were asked for.
void advance(int file, int count, int datatype) {
    findFile(file)->position += static_cast<std::size_t>(count) * state().findType(datatype)->extent;
}
int File_write(int file, const void* buffer, int count, int datatype, Status* status) {
    const auto* const found = findFile(file);
    const auto position = static_cast<OXM_MPI_Offset>(found ? found->position : 0);
    const int code = File_write_at(file, position, buffer, count, datatype, status);
    if (code == OXM_MPI_SUCCESS)
        advance(file, count, datatype);
    return code;
}
int File_read(int file, void* buffer, int count, int datatype, Status* status) {
    const auto* const found = findFile(file);
    const auto position = static_cast<OXM_MPI_Offset>(found ? found->position : 0);
    const int code = File_read_at(file, position, buffer, count, datatype, status);
    if (code == OXM_MPI_SUCCESS)
        advance(file, count, datatype);
    return code;
}
int File_read_at_all(int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype, Status* status) {
    return File_read_at(file, offset, buffer, count, datatype, status);
}
int File_write_at_all(int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,
                      Status* status) {
    return File_write_at(file, offset, buffer, count, datatype, status);
}
int Info_create(int* newInfo) {
    *newInfo = state().makeHandle();
    state().infos[*newInfo];
    return OXM_MPI_SUCCESS;
}
int Info_free(int* info) {
    return release(state().infos, info, LOWEST_MADE, OXM_MPI_ERR_INFO);
}
int Info_set(int info, const char* key, const char* value) {
    if (!state().infos.contains(info))
        return OXM_MPI_ERR_INFO;
    state().infos[info][key] = value;
    return OXM_MPI_SUCCESS;
}
int Info_get(int info, const char* key, int valueLength, char* value, int* flag) {
    if (!state().infos.contains(info))
        return OXM_MPI_ERR_INFO;
    const auto& entries = state().infos[info];
    const auto found = entries.find(key);
    *flag = found != entries.end();
    if (*flag)
        std::snprintf(value, static_cast<std::size_t>(valueLength) + 1, "%s", found->second.c_str());
    return OXM_MPI_SUCCESS;
}
int Get_processor_name(char* name, int* length) {
    *length = std::snprintf(name, OXM_MPI_MAX_PROCESSOR_NAME, "%s", state().processorName.c_str());
    return OXM_MPI_SUCCESS;
}

int Error_string(int code, char* text, int* length) {
    const auto found = state().errorTexts.find(code);
    *length =
        std::snprintf(text, OXM_MPI_MAX_ERROR_STRING, "%s",
                      found == state().errorTexts.end() ? ("scripted error " + std::to_string(code)).c_str()
                                                        : found->second.c_str());
    return OXM_MPI_SUCCESS;
}

} // namespace Play

namespace Served {
#define ORVEX_SERVED(name, parameters, arguments)                                                            \
    int name parameters {                                                                                    \
        return std::apply(                                                                                   \
            [](auto... values) { return state().serve(#name, #arguments, &Play::name, values...); },         \
            std::make_tuple arguments);                                                                      \
    }
ORVEX_MPI_START_FUNCTIONS(ORVEX_SERVED)
ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_SERVED)
ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_SERVED)
ORVEX_MPI_FILE_FUNCTIONS(ORVEX_SERVED)
ORVEX_SERVED(Error_string, (int code, char* text, int* length), (code, text, length))
#undef ORVEX_SERVED
} // namespace Served

MpiDriverFunctions getFunctions() {
    MpiDriverFunctions functions;
#define ORVEX_SERVE(name, parameters, arguments) functions.name = &Served::name;
    ORVEX_MPI_START_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_SERVE)
#undef ORVEX_SERVE
    functions.Error_string = &Served::Error_string;
    functions.Wtime = [] { return state().readClock(); };
    functions.Wtick = [] { return 1e-9; };
    functions.Get_max_buffer_size = []() -> std::uint64_t { return state().maxBufferSize; };
    functions.getLibraryName = [](char* name, char* version) {
        std::strcpy(name, "Scripted MPI");
        std::strcpy(version, "1.0");
    };
    return functions;
}

} // namespace

extern "C" {
__attribute__((visibility("default"))) extern const MpiDriver ORVEX_MPI_DRIVER_SYMBOL;
__attribute__((visibility("default"))) ScriptedMpi* orvexScriptedMpi() {
    return &state();
}
}
const MpiDriver ORVEX_MPI_DRIVER_SYMBOL{.functions = getFunctions()};
