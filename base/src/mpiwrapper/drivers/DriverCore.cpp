#include "mpiwrapper/drivers/Driver.h"

#include <climits>
#include <cstdio>

// Start and end, communicators and groups, names, what this MPI can do, and the module's one visible symbol.

namespace Driver {

Handles handles;

namespace {

#ifdef OPEN_MPI
constexpr char LIBRARY_NAME[] = "Open MPI";
#else
constexpr char LIBRARY_NAME[] = "MPICH";
#endif

/// MPI_CHAR is for text and takes no part in arithmetic reductions; its numeric twin does both.
const MPI_Datatype CHAR_TYPE = CHAR_MIN < 0 ? MPI_SIGNED_CHAR : MPI_UNSIGNED_CHAR;

std::vector<MPI_Datatype> getFixedTypes() {
    std::vector<MPI_Datatype> types(OXM_MPI_LONG_DOUBLE_INT + 1, MPI_DATATYPE_NULL);
    types[OXM_MPI_BOOL] = MPI_C_BOOL;
    types[OXM_MPI_BYTE] = MPI_BYTE;
    types[OXM_MPI_CHAR] = CHAR_TYPE;
    types[OXM_MPI_SIGNED_CHAR] = MPI_SIGNED_CHAR;
    types[OXM_MPI_UNSIGNED_CHAR] = MPI_UNSIGNED_CHAR;
    types[OXM_MPI_SHORT] = MPI_SHORT;
    types[OXM_MPI_UNSIGNED] = MPI_UNSIGNED;
    types[OXM_MPI_INT] = MPI_INT;
    types[OXM_MPI_FLOAT] = MPI_FLOAT;
    types[OXM_MPI_DOUBLE] = MPI_DOUBLE;
    types[OXM_MPI_LONG_DOUBLE] = MPI_LONG_DOUBLE;
    types[OXM_MPI_INT64] = MPI_INT64_T;
    types[OXM_MPI_UINT64] = MPI_UINT64_T;
    types[OXM_MPI_UNSIGNED_SHORT] = MPI_UNSIGNED_SHORT;
    types[OXM_MPI_LONG] = MPI_LONG;
    // Not MPI_UNSIGNED_LONG, which Open MPI 4.1 compares as a signed number.
    static_assert(sizeof(unsigned long) == sizeof(std::uint64_t));
    types[OXM_MPI_UNSIGNED_LONG] = MPI_UINT64_T;
    types[OXM_MPI_WCHAR] = MPI_WCHAR;
    types[OXM_MPI_FLOAT_COMPLEX] = MPI_C_FLOAT_COMPLEX;
    types[OXM_MPI_DOUBLE_COMPLEX] = MPI_C_DOUBLE_COMPLEX;
    types[OXM_MPI_LONG_DOUBLE_COMPLEX] = MPI_C_LONG_DOUBLE_COMPLEX;
    types[OXM_MPI_FLOAT_INT] = MPI_FLOAT_INT;
    types[OXM_MPI_DOUBLE_INT] = MPI_DOUBLE_INT;
    types[OXM_MPI_LONG_INT] = MPI_LONG_INT;
    types[OXM_MPI_INT_INT] = MPI_2INT;
    types[OXM_MPI_LONG_DOUBLE_INT] = MPI_LONG_DOUBLE_INT;
    return types;
}

std::vector<MPI_Op> getFixedOps() {
    std::vector<MPI_Op> ops(OXM_MPI_MINLOC + 1, MPI_OP_NULL);
    ops[OXM_MPI_MAX] = MPI_MAX;
    ops[OXM_MPI_MIN] = MPI_MIN;
    ops[OXM_MPI_SUM] = MPI_SUM;
    ops[OXM_MPI_PROD] = MPI_PROD;
    ops[OXM_MPI_BAND] = MPI_BAND;
    ops[OXM_MPI_BOR] = MPI_BOR;
    ops[OXM_MPI_LAND] = MPI_LAND;
    ops[OXM_MPI_LOR] = MPI_LOR;
    ops[OXM_MPI_LXOR] = MPI_LXOR;
    ops[OXM_MPI_BXOR] = MPI_BXOR;
    ops[OXM_MPI_MAXLOC] = MPI_MAXLOC;
    ops[OXM_MPI_MINLOC] = MPI_MINLOC;
    return ops;
}

/// Errors on any object come back as codes.
int setErrorHandlers() {
    int native = MPI_Comm_set_errhandler(MPI_COMM_WORLD, MPI_ERRORS_RETURN);
    if (native == MPI_SUCCESS)
        native = MPI_Comm_set_errhandler(MPI_COMM_SELF, MPI_ERRORS_RETURN);
    if (native == MPI_SUCCESS)
        native = MPI_File_set_errhandler(MPI_FILE_NULL, MPI_ERRORS_RETURN);
    return native;
}

int addComm(int native, MPI_Comm comm, int* handle) {
    if (native == MPI_SUCCESS && comm != MPI_COMM_NULL)
        native = MPI_Comm_set_errhandler(comm, MPI_ERRORS_RETURN);
    return translateNew(native, handles.comms, comm, handle);
}

} // namespace

void Handles::reset() {
    comms.reset({MPI_COMM_NULL, MPI_COMM_WORLD, MPI_COMM_SELF}, 64);
    groups.reset({MPI_GROUP_NULL, MPI_GROUP_EMPTY}, 64);
    types.reset(getFixedTypes(), 256);
    ops.reset(getFixedOps(), 64);
    requests.reset({MPI_REQUEST_NULL}, 1024);
    windows.reset({MPI_WIN_NULL}, 16);
    files.reset({MPI_FILE_NULL}, 16);
    infos.reset({MPI_INFO_NULL}, 16);
    nativeRequests.reserve(1024);
    nativeStatuses.reserve(1024);
}

int Init(int* argc, char*** argv) {
    int isStarted = 0;
    int native = MPI_Initialized(&isStarted);
    if (native != MPI_SUCCESS)
        return translateFailure(native);
    if (isStarted)
        return OXM_MPI_ERR_NOT_RUNNING; // MPI starts once in a process: it was finalized before
    if (findForeignLauncher(0))
        return OXM_MPI_ERR_LAUNCHER;
    handles.reset();
    // A thread level above single, which would say that the process has other threads though they leave the
    // MPI alone, makes Open MPI 4.1 wait for ever in a Waitall of which a request has failed.
    native = MPI_Init(argc, argv);
    if (native != MPI_SUCCESS)
        return translateFailure(native);
    int size = 0;
    native = setErrorHandlers();
    if (native == MPI_SUCCESS)
        native = MPI_Comm_size(MPI_COMM_WORLD, &size);
    if (native != MPI_SUCCESS)
        return translateFailure(native);
    if (findForeignLauncher(size))
        return MPI_Finalize() == MPI_SUCCESS ? OXM_MPI_ERR_LAUNCHER : OXM_MPI_ERR_INTERN;
    return OXM_MPI_SUCCESS;
}

int Finalize() {
    return translate(MPI_Finalize());
}

// Under MPICH an abort of any other communicator can hang.
int Abort(int, int code) {
    return translate(MPI_Abort(MPI_COMM_WORLD, code));
}

int Comm_rank(int comm, int* rank) {
    return translate(MPI_Comm_rank(handles.comms.get(comm), rank));
}

int Comm_size(int comm, int* size) {
    return translate(MPI_Comm_size(handles.comms.get(comm), size));
}

int Comm_group(int comm, int* group) {
    MPI_Group native = MPI_GROUP_NULL;
    const int code = MPI_Comm_group(handles.comms.get(comm), &native);
    return translateNew(code, handles.groups, native, group);
}

int Comm_create(int comm, int group, int* newComm) {
    MPI_Comm native = MPI_COMM_NULL;
    const int code = MPI_Comm_create(handles.comms.get(comm), handles.groups.get(group), &native);
    return addComm(code, native, newComm);
}

int Comm_split_type(int comm, int splitType, int key, int info, int* newComm) {
    *newComm = OXM_MPI_COMM_NULL;
    if (!handles.infos.isNullOrLive(info))
        return refuse(OXM_MPI_ERR_INFO);
    const int type = splitType == OXM_MPI_COMM_TYPE_SHARED ? MPI_COMM_TYPE_SHARED
                     : splitType == OXM_MPI_UNDEFINED      ? MPI_UNDEFINED
                                                           : INVALID_RANK_OR_TAG;
    MPI_Comm native = MPI_COMM_NULL;
    const int code =
        MPI_Comm_split_type(handles.comms.get(comm), type, key, handles.infos.get(info), &native);
    return addComm(code, native, newComm);
}

int Comm_free(int* comm) {
    MPI_Comm native = handles.comms.get(*comm);
    return translateFree(MPI_Comm_free(&native), handles.comms, comm);
}

int Comm_native_handle(int comm, int* fortranHandle, char* library) {
    const MPI_Comm native = handles.comms.get(comm);
    if (native == MPI_COMM_NULL)
        return refuse(OXM_MPI_ERR_COMM);
    *fortranHandle = MPI_Comm_c2f(native);
    std::memcpy(library, LIBRARY_NAME, sizeof LIBRARY_NAME);
    return OXM_MPI_SUCCESS;
}

int Group_incl(int group, int count, const int* ranks, int* newGroup) {
    MPI_Group native = MPI_GROUP_NULL;
    const int code = MPI_Group_incl(handles.groups.get(group), count, ranks, &native);
    if (code == MPI_SUCCESS && native == MPI_GROUP_EMPTY) {
        *newGroup = OXM_MPI_GROUP_EMPTY;
        return OXM_MPI_SUCCESS;
    }
    return translateNew(code, handles.groups, native, newGroup);
}

int Group_free(int* group) {
    if (*group == OXM_MPI_GROUP_EMPTY) {
        *group = OXM_MPI_GROUP_NULL;
        return OXM_MPI_SUCCESS;
    }
    MPI_Group native = handles.groups.get(*group);
    return translateFree(MPI_Group_free(&native), handles.groups, group);
}

int Get_processor_name(char* name, int* length) {
    static_assert(MPI_MAX_PROCESSOR_NAME <= OXM_MPI_MAX_PROCESSOR_NAME);
    return translate(MPI_Get_processor_name(name, length));
}

int Supports_v3_shared_memory(int* supported) {
    // Before the start the standard's version has to do as an answer; afterwards one try tells, once.
    *supported = MPI_VERSION >= 3;
    int isInitialized = 0;
    int isFinalized = 0;
    if (MPI_Initialized(&isInitialized) != MPI_SUCCESS || MPI_Finalized(&isFinalized) != MPI_SUCCESS)
        return refuse(OXM_MPI_ERR_INTERN);
    if (!isInitialized || isFinalized)
        return OXM_MPI_SUCCESS;
    static const bool works = [] {
        void* base = nullptr;
        MPI_Win window = MPI_WIN_NULL;
        return MPI_Win_allocate_shared(64, 1, MPI_INFO_NULL, MPI_COMM_SELF, &base, &window) == MPI_SUCCESS &&
               base && MPI_Win_free(&window) == MPI_SUCCESS;
    }();
    *supported = works;
    return OXM_MPI_SUCCESS;
}

int disable_cpu_bind_collision_test(int* disable) {
    *disable = 0; // each rank of these MPIs is a process, with a binding of its own
    return OXM_MPI_SUCCESS;
}

namespace {

/// Counts are 32-bit in this MPI, and its pieces of a byte count may be as well.
std::uint64_t getMaxBufferSize() {
    return 0x7FFFFFFF;
}

/// "Open MPI v4.1.4, package: ..." and "MPICH Version:\t4.0.2\n..." are what the two say.
void getLibraryName(char* name, char* version) {
    std::memcpy(name, LIBRARY_NAME, sizeof LIBRARY_NAME);
#ifdef OPEN_MPI
    const char* const format = "Open MPI v%63[^, \n]";
#else
    const char* const format = "MPICH Version: %63[^, \n]";
#endif
    char text[MPI_MAX_LIBRARY_VERSION_STRING] = "";
    int length = 0;
    version[0] = '\0';
    if (MPI_Get_library_version(text, &length) != MPI_SUCCESS || std::sscanf(text, format, version) != 1)
        std::snprintf(version, OXM_MPI_MAX_LIBRARY_VERSION_STRING, "%.2000s", text);
}

constexpr MpiDriverFunctions getFunctions() {
    MpiDriverFunctions functions;
#define ORVEX_SERVE(name, parameters, arguments) functions.name = &name;
    ORVEX_MPI_START_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_SERVE)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_SERVE)
#undef ORVEX_SERVE
    functions.Wtime = &MPI_Wtime;
    functions.Wtick = &MPI_Wtick;
    functions.Error_string = &Error_string;
    functions.Get_max_buffer_size = &getMaxBufferSize;
    functions.getLibraryName = &getLibraryName;
    return functions;
}

} // namespace

} // namespace Driver

extern "C" __attribute__((visibility("default"))) const MpiDriver ORVEX_MPI_DRIVER_SYMBOL;
constinit const MpiDriver ORVEX_MPI_DRIVER_SYMBOL{.functions = Driver::getFunctions()};
