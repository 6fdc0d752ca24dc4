#include "support/ScriptedMpiState.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <tuple>
#include <utility>

// The driver's own work, on one rank, and the module's two visible symbols.

namespace {

ScriptedMpiState& state() {
    return ScriptedMpiState::getSingleton();
}

namespace Play {

using Status = OXM_MPI_Status_struct;
using Request = ScriptedMpiState::Request;

// One without a result always succeeds. Real jobs see whether handles, counts and ranks are good.

template <class... Arguments>
void succeed(Arguments...) {}
using In = const void*;
using Ints = const int*;
constexpr auto Init = &succeed<int*, char***>;
constexpr auto Finalize = &succeed<>;
constexpr auto Abort = &succeed<int, int>;

void Supports_v3_shared_memory(int* supported) {
    *supported = state().supportsSharedMemory;
}
void disable_cpu_bind_collision_test(int* disable) {
    *disable = state().bindCollisionTestDisabled;
}

/// A new handle for `object`, which goes into `map`.
template <class Map>
void make(Map& map, typename Map::mapped_type object, int* handle) {
    *handle = state().makeHandle();
    map[*handle] = std::move(object);
}
template <class Map>
void release(Map& map, int* handle) {
    map.erase(*handle);
    *handle = 0;
}

// Communicators and groups

int rankIn(int comm) {
    return state().comms[comm].rank;
}
void Comm_rank(int comm, int* rank) {
    *rank = rankIn(comm);
}
void Comm_size(int comm, int* size) {
    *size = state().comms[comm].size();
}
void Comm_group(int comm, int* group) {
    make(state().groups, state().comms[comm].worldRanks, group);
}
void makeComm(const std::vector<int>& worldRanks, int* newComm) {
    const auto self = std::find(worldRanks.begin(), worldRanks.end(), state().worldRank);
    *newComm = OXM_MPI_COMM_NULL;
    if (self != worldRanks.end())
        make(state().comms, {worldRanks, static_cast<int>(self - worldRanks.begin())}, newComm);
}
void Comm_create(int, int group, int* newComm) {
    makeComm(state().groups[group], newComm);
}
void Comm_split_type(int comm, int, int, int, int* newComm) {
    makeComm(state().comms[comm].worldRanks, newComm);
}
void Comm_free(int* comm) {
    release(state().comms, comm);
}
void Comm_native_handle(int comm, int* fortranHandle, char* library) {
    *fortranHandle = 1000 + comm;
    std::strcpy(library, "Scripted MPI");
}
void Group_incl(int group, int count, const int* ranks, int* newGroup) {
    std::vector<int> chosen;
    for (int i = 0; i < count; ++i)
        chosen.push_back(state().groups[group].at(static_cast<std::size_t>(ranks[i])));
    make(state().groups, chosen, newGroup);
}
void Group_free(int* group) {
    release(state().groups, group);
}

// Point-to-point

std::size_t bytesOf(int count, int datatype) {
    return static_cast<std::size_t>(count) * state().types[datatype];
}
constexpr auto Send = &succeed<In, int, int, int, int, int>;
constexpr auto Ssend = Send;
void addRequest(Request request, int* handle) {
    request.looks = state().looksBeforeCompletion;
    make(state().requests, request, handle);
}
void Isend(const void*, int, int, int, int tag, int comm, int* request) {
    addRequest({.partner = rankIn(comm), .tag = tag}, request);
}
constexpr auto Issend = &Isend;
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
    state().setStatus(status, message->source, message->tag, bytes);
    return message->bytes.size() > capacity ? OXM_MPI_ERR_TRUNCATE : OXM_MPI_SUCCESS;
}
int Recv(void* buffer, int count, int datatype, int source, int tag, int, Status* status) {
    return receive(buffer, bytesOf(count, datatype), source, tag, status);
}
void Irecv(void* buffer, int count, int datatype, int source, int tag, int, int* request) {
    addRequest({.isReceive = true,
                .buffer = buffer,
                .capacity = bytesOf(count, datatype),
                .partner = source,
                .tag = tag},
               request);
}
void Recv_init(void* buffer, int count, int datatype, int source, int tag, int comm, int* request) {
    Irecv(buffer, count, datatype, source, tag, comm, request);
    state().requests[*request].isPersistent = true;
    state().requests[*request].isActive = false;
}
int Sendrecv(const void*, int, int, int, int, void* recvBuffer, int recvCount, int recvType, int source,
             int recvTag, int comm, Status* status) {
    return Recv(recvBuffer, recvCount, recvType, source, recvTag, comm, status);
}
void Iprobe(int source, int tag, int, int* flag, Status* status) {
    const ScriptedMpiState::Message* const message = state().peekMessage(source, tag);
    *flag = message != nullptr;
    if (message)
        state().setStatus(status, message->source, message->tag, message->bytes.size());
}
int Probe(int source, int tag, int comm, Status* status) {
    int flag = 0;
    Iprobe(source, tag, comm, &flag, status);
    return flag ? OXM_MPI_SUCCESS : OXM_MPI_ERR_OTHER; // a real one would wait for ever
}
void Get_count(const Status* status, int datatype, int* count) {
    const std::size_t extent = state().types[datatype];
    std::size_t bytes = 0;
    std::memcpy(&bytes, status->reserved, sizeof bytes);
    *count = extent && bytes % extent == 0 ? static_cast<int>(bytes / extent) : OXM_MPI_UNDEFINED;
}

// Requests

Request* findRequest(int handle) {
    const auto found = state().requests.find(handle);
    return found == state().requests.end() ? nullptr : &found->second;
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
    if (copy.isPersistent)
        request->isActive = false;
    else
        release(state().requests, &handle);
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
    return complete(*request, status);
}
int Waitall(int count, int* requests, Status* statuses) {
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
    *flag = 1;
    *index = OXM_MPI_UNDEFINED;
    if (const auto chosen = std::exchange(state().nextIndex, std::nullopt)) {
        *index = *chosen;
        return *index == OXM_MPI_UNDEFINED ? OXM_MPI_SUCCESS : complete(requests[*index], status);
    }
    for (int i = 0; i < count; ++i) {
        if (!isPending(requests[i]))
            continue;
        *flag = 0;
        if (look(requests[i])) {
            *index = i;
            *flag = 1;
            return complete(requests[i], status);
        }
    }
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
    *flag = 1;
    for (int i = 0; i < count; ++i)
        if (!look(requests[i]))
            *flag = 0;
    return *flag ? Waitall(count, requests, statuses) : OXM_MPI_SUCCESS;
}
int Test(int* request, int* flag, Status* status) {
    *flag = look(*request);
    return *flag ? complete(*request, status) : OXM_MPI_SUCCESS;
}
int Cancel(int* request) {
    return isPending(*request) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_REQUEST;
}
void Request_free(int* request) {
    release(state().requests, request);
}

// Collectives: a job's data are seen in real jobs. Here only the own block of a plain gather goes its way.

constexpr auto Barrier = &succeed<int>;
constexpr auto Bcast = &succeed<void*, int, int, int, int>;
void copy(const void* from, int count, int type, void* to, int place) {
    if (count > 0)
        std::memmove(static_cast<char*>(to) + bytesOf(place, type), from, bytesOf(count, type));
}
void Allgather(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount, int,
               int comm) {
    copy(sendBuffer, sendCount, sendType, recvBuffer, rankIn(comm) * recvCount);
}
void Gather(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, int recvCount,
            int recvType, int root, int comm) {
    if (rankIn(comm) == root)
        Allgather(sendBuffer, sendCount, sendType, recvBuffer, recvCount, recvType, comm);
}
void Allgatherv(const void* sendBuffer, int sendCount, int sendType, void* recvBuffer, const int*,
                const int* displacements, int, int comm) {
    copy(sendBuffer, sendCount, sendType, recvBuffer, displacements[rankIn(comm)]);
}
constexpr auto Gatherv = &succeed<In, int, int, void*, Ints, Ints, int, int, int>;
constexpr auto Scatter = &succeed<In, int, int, void*, int, int, int, int>;
constexpr auto Scatterv = &succeed<In, Ints, Ints, int, void*, int, int, int, int>;
constexpr auto Alltoall = &succeed<In, int, int, void*, int, int, int>;
constexpr auto Alltoallv = &succeed<In, Ints, Ints, int, void*, Ints, Ints, int, int>;
constexpr auto Allreduce = &succeed<In, void*, int, int, int, int>;
constexpr auto Scan = Allreduce;
constexpr auto Reduce = &succeed<In, void*, int, int, int, int, int>;
constexpr auto Reduce_scatter = &succeed<In, void*, Ints, int, int, int>;

// Datatypes and operations

void Type_contiguous(int count, int oldType, int* newType) {
    make(state().types, bytesOf(count, oldType), newType);
}
void Type_create_struct(int count, const int* blockLengths, const OXM_MPI_Aint* displacements,
                        const int* members, int* newType) {
    std::size_t end = 0;
    for (int i = 0; i < count; ++i)
        end =
            std::max(end, static_cast<std::size_t>(displacements[i]) + bytesOf(blockLengths[i], members[i]));
    make(state().types, end, newType);
}
void Type_create_resized(int, OXM_MPI_Aint, OXM_MPI_Aint extent, int* newType) {
    make(state().types, static_cast<std::size_t>(extent), newType);
}
void Type_get_extent(int datatype, OXM_MPI_Aint* lowerBound, OXM_MPI_Aint* extent) {
    *lowerBound = 0;
    *extent = static_cast<OXM_MPI_Aint>(state().types[datatype]);
}
void Type_commit(int* datatype) {
    if (*datatype != OXM_MPI_DATATYPE_NULL)
        state().committedTypes.insert(*datatype);
}
void Type_free(int* datatype) {
    release(state().types, datatype);
}
void Op_create(OXM_MPI_User_function function, int, int* op) {
    make(state().ops, function, op);
}
void Op_free(int* op) {
    release(state().ops, op);
}

// Windows: nothing above the wrapper opens one.

constexpr auto Win_allocate_shared = &succeed<OXM_MPI_Aint, int, int, int, void*, int*>;
constexpr auto Win_shared_query = &succeed<int, int, OXM_MPI_Aint*, int*, void*>;
constexpr auto Win_fence = &succeed<int, int>;
constexpr auto Win_free = &succeed<int*>;

// Files and hints

std::string& contentOf(int file) {
    return state().disk[state().files[file].name];
}
int File_open(int, const char* fileName, int mode, int info, int* file) {
    const bool exists = state().disk.contains(fileName);
    if (!exists && !(mode & OXM_MPI_MODE_CREATE))
        return OXM_MPI_ERR_NO_SUCH_FILE;
    if (exists && (mode & OXM_MPI_MODE_EXCL))
        return OXM_MPI_ERR_FILE_EXISTS;
    state().disk[fileName];
    make(state().files,
         {fileName, 0, info == OXM_MPI_INFO_NULL ? ScriptedMpiState::Info() : state().infos[info]}, file);
    return OXM_MPI_SUCCESS;
}
void File_close(int* file) {
    release(state().files, file);
}
void File_get_size(int file, OXM_MPI_Offset* size) {
    *size = static_cast<OXM_MPI_Offset>(contentOf(file).size());
}
void File_get_info(int file, int* info) {
    make(state().infos, state().files[file].info, info);
}
void File_get_position(int file, OXM_MPI_Offset* offset) {
    *offset = static_cast<OXM_MPI_Offset>(state().files[file].position);
}
void File_get_byte_offset(int, OXM_MPI_Offset offset, OXM_MPI_Offset* bytes) {
    *bytes = offset;
}
void File_write_at(int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,
                   Status* status) {
    const std::size_t bytes = bytesOf(count, datatype);
    std::string& content = contentOf(file);
    content.resize(std::max(content.size(), static_cast<std::size_t>(offset) + bytes));
    std::copy_n(static_cast<const char*>(buffer), bytes, content.begin() + offset);
    state().setStatus(status, 0, 0, bytes);
}
void File_read_at(int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype, Status* status) {
    const std::string& content = contentOf(file);
    const std::size_t begin = std::min(static_cast<std::size_t>(offset), content.size());
    const std::size_t bytes = std::min(bytesOf(count, datatype), content.size() - begin);
    std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(begin), bytes, static_cast<char*>(buffer));
    state().setStatus(status, 0, 0, bytes);
}
/// Moves the file pointer by what is asked for. @return where it stood
OXM_MPI_Offset advance(int file, int count, int datatype) {
    std::size_t& position = state().files[file].position;
    return static_cast<OXM_MPI_Offset>(std::exchange(position, position + bytesOf(count, datatype)));
}
void File_write(int file, const void* buffer, int count, int datatype, Status* status) {
    File_write_at(file, advance(file, count, datatype), buffer, count, datatype, status);
}
void File_read(int file, void* buffer, int count, int datatype, Status* status) {
    File_read_at(file, advance(file, count, datatype), buffer, count, datatype, status);
}
constexpr auto File_read_at_all = &File_read_at;
constexpr auto File_write_at_all = &File_write_at;
void Info_create(int* newInfo) {
    make(state().infos, {}, newInfo);
}
void Info_free(int* info) {
    release(state().infos, info);
}
void Info_set(int info, const char* key, const char* value) {
    state().infos[info][key] = value;
}
void Info_get(int info, const char* key, int valueLength, char* value, int* flag) {
    const auto& entries = state().infos[info];
    const auto found = entries.find(key);
    *flag = found != entries.end();
    if (*flag)
        std::snprintf(value, static_cast<std::size_t>(valueLength) + 1, "%s", found->second.c_str());
}
void Get_processor_name(char* name, int* length) {
    *length = std::snprintf(name, OXM_MPI_MAX_PROCESSOR_NAME, "%s", state().processorName.c_str());
}
void Error_string(int code, char* text, int* length) {
    const auto found = state().errorTexts.find(code);
    const std::string told =
        found == state().errorTexts.end() ? "scripted error " + std::to_string(code) : found->second;
    *length = std::snprintf(text, OXM_MPI_MAX_ERROR_STRING, "%s", told.c_str());
}

} // namespace Play

namespace Served {
#define ORVEX_SERVED(name, parameters, arguments)                                                            \
    int name parameters {                                                                                    \
        return std::apply(                                                                                   \
            [](auto... values) { return state().serve(#name, #arguments, *Play::name, values...); },         \
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
