#include "support/ScriptedMpiState.h"

#include "mpiwrapper/MpiDriver.h"

#include <cstdio>
#include <tuple>

// The driver's own work, on one rank, and the module's two visible symbols.

namespace {

ScriptedMpiState& state() {
    static ScriptedMpiState state;
    return state;
}

// A function that has no work of its own succeeds. Real jobs see data, and whether handles, counts and ranks
// are good.

template <class... Arguments>
int succeed(Arguments...) {
    return OXM_MPI_SUCCESS;
}
template <class... Arguments>
constexpr auto succeedAs(int (*)(Arguments...)) {
    return &succeed<Arguments...>;
}
namespace Idle {
#define ORVEX_IDLE(name, parameters, arguments)                                                              \
    [[maybe_unused]] constexpr auto name = succeedAs(decltype (&OXM_MPI_##name)());
ORVEX_MPI_START_FUNCTIONS(ORVEX_IDLE)
ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_IDLE)
ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_IDLE)
ORVEX_MPI_FILE_FUNCTIONS(ORVEX_IDLE)
#undef ORVEX_IDLE
} // namespace Idle

namespace Play {

using namespace Idle;
using State = ScriptedMpiState;
using Status = OXM_MPI_Status_struct;

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
template <auto map, class... In>
void makeEmpty(In..., int* handle) {
    make(state().*map, {}, handle);
}
template <auto map>
void release(int* handle) {
    (state().*map).erase(*handle);
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
    const auto self = std::ranges::find(worldRanks, state().worldRank);
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
constexpr auto Comm_free = &release<&State::comms>;
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
constexpr auto Group_free = &release<&State::groups>;

// Point-to-point

std::size_t bytesOf(int count, int datatype) {
    return static_cast<std::size_t>(count) * state().types[datatype].extent;
}
void addRequest(State::Request request, int* handle) {
    request.looks = state().looksBeforeCompletion;
    make(state().requests, request, handle);
}
void Isend(const void*, int, int, int, int tag, int comm, int* request) {
    addRequest({.partner = rankIn(comm), .tag = tag}, request);
}
constexpr auto Issend = &Isend;
/// Takes the message that is there; without one the buffer stays as it is and counts as filled.
int receive(void* buffer, std::size_t capacity, int source, int tag, Status* status) {
    const auto message = state().findMessage(source, tag);
    if (message == state().mailbox.end()) {
        state().setStatus(status, source == OXM_MPI_ANY_SOURCE ? 0 : source, tag == OXM_MPI_ANY_TAG ? 0 : tag,
                          capacity);
        return OXM_MPI_SUCCESS;
    }
    const auto [from, with, content] = *message;
    state().mailbox.erase(message);
    content.copy(static_cast<char*>(buffer), capacity);
    state().setStatus(status, from, with, std::min(capacity, content.size()));
    return content.size() > capacity ? OXM_MPI_ERR_TRUNCATE : OXM_MPI_SUCCESS;
}
int Recv(void* buffer, int count, int datatype, int source, int tag, int, Status* status) {
    return receive(buffer, bytesOf(count, datatype), source, tag, status);
}
void Irecv(void* buffer, int count, int datatype, int source, int tag, int, int* request) {
    const std::size_t capacity = bytesOf(count, datatype);
    addRequest({.isReceive = true, .buffer = buffer, .capacity = capacity, .partner = source, .tag = tag},
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
    const auto message = state().findMessage(source, tag);
    *flag = message != state().mailbox.end();
    if (*flag)
        state().setStatus(status, message->source, message->tag, message->bytes.size());
}
int Probe(int source, int tag, int comm, Status* status) {
    int flag = 0;
    Iprobe(source, tag, comm, &flag, status);
    return flag ? OXM_MPI_SUCCESS : OXM_MPI_ERR_OTHER; // a real one would wait for ever
}
void Get_count(const Status* status, int datatype, int* count) {
    const std::size_t extent = bytesOf(1, datatype);
    std::size_t bytes = 0;
    std::memcpy(&bytes, status->reserved, sizeof bytes);
    *count = extent && bytes % extent == 0 ? static_cast<int>(bytes / extent) : OXM_MPI_UNDEFINED;
}

// Requests

State::Request* findActive(int handle) {
    const auto found = state().requests.find(handle);
    return found != state().requests.end() && found->second.isActive ? &found->second : nullptr;
}
int complete(int& handle, Status* status) {
    State::Request* const request = findActive(handle);
    if (!request) {
        state().setStatus(status, OXM_MPI_ANY_SOURCE, OXM_MPI_ANY_TAG, 0);
        return OXM_MPI_SUCCESS;
    }
    request->isActive = false;
    const State::Request copy = *request;
    if (!copy.isPersistent)
        release<&State::requests>(&handle);
    if (copy.isReceive)
        return receive(copy.buffer, copy.capacity, copy.partner, copy.tag, status);
    state().setStatus(status, copy.partner, copy.tag, 0);
    return OXM_MPI_SUCCESS;
}
/// One look at a request: whether it is complete now.
bool look(int handle) {
    State::Request* const request = findActive(handle);
    return !request || request->looks-- <= 0;
}
int Startall(int count, int* requests) {
    for (int i = 0; i < count; ++i) {
        State::Request& request = state().requests[requests[i]];
        if (!request.isPersistent || request.isActive)
            return OXM_MPI_ERR_REQUEST;
        request.isActive = true;
        request.looks = state().looksBeforeCompletion;
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
        if (!findActive(requests[i]))
            continue;
        *flag = look(requests[i]);
        if (*flag) {
            *index = i;
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
    return findActive(*request) ? OXM_MPI_SUCCESS : OXM_MPI_ERR_REQUEST;
}
constexpr auto Request_free = &release<&State::requests>;

// Collectives: only the own block of a plain gather goes its way.

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

// Datatypes and operations

void Type_contiguous(int count, int oldType, int* newType) {
    make(state().types, {bytesOf(count, oldType)}, newType);
}
/// Has no extent before it is resized.
constexpr auto Type_create_struct =
    &makeEmpty<&State::types, int, const int*, const OXM_MPI_Aint*, const int*>;
void Type_create_resized(int, OXM_MPI_Aint, OXM_MPI_Aint extent, int* newType) {
    make(state().types, {static_cast<std::size_t>(extent)}, newType);
}
void Type_get_extent(int datatype, OXM_MPI_Aint* lowerBound, OXM_MPI_Aint* extent) {
    *lowerBound = 0;
    *extent = static_cast<OXM_MPI_Aint>(bytesOf(1, datatype));
}
void Type_commit(int* datatype) {
    if (*datatype != OXM_MPI_DATATYPE_NULL)
        state().types[*datatype].isCommitted = true;
}
constexpr auto Type_free = &release<&State::types>;
constexpr auto Op_create = &makeEmpty<&State::ops, OXM_MPI_User_function, int>;
constexpr auto Op_free = &release<&State::ops>;

// Files and hints

int File_open(int, const char*, int mode, int, int* file) {
    if (!(mode & OXM_MPI_MODE_CREATE))
        return OXM_MPI_ERR_NO_SUCH_FILE;
    make(state().files, {}, file);
    return OXM_MPI_SUCCESS;
}
constexpr auto File_close = &release<&State::files>;
/// All that is asked for is transferred.
template <class... Place>
void transfer(Place..., int count, int datatype, Status* status) {
    state().setStatus(status, 0, 0, bytesOf(count, datatype));
}
constexpr auto File_write = &transfer<int, const void*>;
constexpr auto File_read = &transfer<int, void*>;
constexpr auto File_write_at = &transfer<int, OXM_MPI_Offset, const void*>;
constexpr auto File_read_at = &transfer<int, OXM_MPI_Offset, void*>;
constexpr auto File_write_at_all = File_write_at;
constexpr auto File_read_at_all = File_read_at;
constexpr auto File_get_info = &makeEmpty<&State::infos, int>;
constexpr auto Info_create = &makeEmpty<&State::infos>;
constexpr auto Info_free = &release<&State::infos>;

void Get_processor_name(char* name, int* length) {
    *length = std::snprintf(name, OXM_MPI_MAX_PROCESSOR_NAME, "%s", state().processorName.c_str());
}
void Error_string(int code, char* text, int* length) {
    const std::string told = state().errorTexts.contains(code) ? state().errorTexts[code]
                                                               : "scripted error " + std::to_string(code);
    *length = std::snprintf(text, OXM_MPI_MAX_ERROR_STRING, "%s", told.c_str());
}

} // namespace Play

MpiDriverFunctions getFunctions() {
    MpiDriverFunctions functions;
#define ORVEX_SERVE(name, parameters, arguments)                                                             \
    functions.name = [] parameters {                                                                         \
        return std::apply(                                                                                   \
            [](auto... values) { return state().serve(#name, #arguments, *Play::name, values...); },         \
            std::make_tuple arguments);                                                                      \
    };
    ORVEX_MPI_START_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_SERVE)
    ORVEX_SERVE(Error_string, (int code, char* text, int* length), (code, text, length))
#undef ORVEX_SERVE
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
