#pragma once

#include "mpiwrapper/MpiDriver.h"
#include "mpiwrapper/drivers/HandleTable.h"

#include <mpi.h>

#include <bitset>
#include <cstring>
#include <vector>

// Shared by the sources of a driver. They are compiled once for each MPI library, each time into a module of
// its own. Its functions have the names of the wrapper's, without the prefix.

namespace Driver {

#define ORVEX_DECLARE(name, parameters, arguments) int name parameters;
ORVEX_MPI_START_FUNCTIONS(ORVEX_DECLARE)
ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_DECLARE)
ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_DECLARE)
ORVEX_MPI_FILE_FUNCTIONS(ORVEX_DECLARE)
#undef ORVEX_DECLARE
int Error_string(int code, char* text, int* length);

/// All handles that are alive, and room for those of one call.
struct Handles {
    HandleTable<MPI_Comm> comms;
    HandleTable<MPI_Group> groups;
    HandleTable<MPI_Datatype> types;
    HandleTable<MPI_Op> ops;
    HandleTable<MPI_Request> requests;
    HandleTable<MPI_Win> windows;
    HandleTable<MPI_File> files;
    HandleTable<MPI_Info> infos;
    std::vector<MPI_Request> nativeRequests;
    std::vector<MPI_Status> nativeStatuses;

    void reset();
};
extern __attribute__((visibility("hidden"))) Handles handles;

/// The error class, in the wrapper's numbers, of an MPI code other than success; remembers the code for its
/// text.
int translateFailure(int native);
/// The same for the statuses of one call; `seen` starts empty. Where two codes share a class, neither's own
/// text would be right for both, so the class's stands in.
int translateStatusFailure(int native, std::bitset<OXM_MPI_ERR_LASTCODE>& seen);
/// An error that the driver finds before it asks the MPI: the class itself, whose text is the MPI's for the
/// class.
int refuse(int errorClass);
/// The same for a call that fills statuses: each of the `count` tells the error, and of no message.
/// `statuses` may be null.
int refuse(int errorClass, OXM_MPI_Status_struct* statuses, int count = 1);

inline int translate(int native) {
    if (native == MPI_SUCCESS) [[likely]]
        return OXM_MPI_SUCCESS;
    return translateFailure(native);
}

/// A value that no MPI takes for a wildcard, in the place of a negative rank or tag.
constexpr int INVALID_RANK_OR_TAG = -1000000;

inline int toNativeTag(int tag) {
    if (static_cast<unsigned>(tag) < OXM_MPI_ANY_TAG) [[likely]]
        return tag;
    return tag == OXM_MPI_ANY_TAG ? MPI_ANY_TAG : INVALID_RANK_OR_TAG;
}

inline int toNativeRank(int rank) {
    if (static_cast<unsigned>(rank) < OXM_MPI_ANY_SOURCE) [[likely]]
        return rank;
    if (rank == OXM_MPI_ANY_SOURCE)
        return MPI_ANY_SOURCE;
    return rank == OXM_MPI_PROC_NULL ? MPI_PROC_NULL : INVALID_RANK_OR_TAG;
}

inline int toIndex(int native) {
    return native == MPI_UNDEFINED ? OXM_MPI_UNDEFINED : native;
}

inline const void* toNativeBuffer(const void* buffer) {
    return buffer == OXM_MPI_IN_PLACE ? MPI_IN_PLACE : buffer;
}
inline void* toNativeBuffer(void* buffer) {
    return buffer == OXM_MPI_IN_PLACE ? MPI_IN_PLACE : buffer;
}

/// `error` is the translated one. `status` may be null.
inline void toStatus(const MPI_Status& native, int error, OXM_MPI_Status_struct* status) {
    if (!status)
        return;
    status->source = native.MPI_SOURCE >= 0               ? native.MPI_SOURCE
                     : native.MPI_SOURCE == MPI_PROC_NULL ? OXM_MPI_PROC_NULL
                                                          : OXM_MPI_ANY_SOURCE;
    status->tag = native.MPI_TAG >= 0 ? native.MPI_TAG : OXM_MPI_ANY_TAG;
    status->error = error;
#ifdef OPEN_MPI
    std::memcpy(status->reserved, &native._cancelled, sizeof native._cancelled);
    std::memcpy(status->reserved + sizeof native._cancelled, &native._ucount, sizeof native._ucount);
    static_assert(sizeof native._cancelled + sizeof native._ucount <= sizeof status->reserved);
#else
    std::memcpy(status->reserved, &native.count_lo, sizeof native.count_lo);
    std::memcpy(status->reserved + sizeof native.count_lo, &native.count_hi_and_cancelled,
                sizeof native.count_hi_and_cancelled);
    static_assert(sizeof native.count_lo + sizeof native.count_hi_and_cancelled <= sizeof status->reserved);
#endif
}

/// A call that fills one status.
inline int translate(int native, const MPI_Status& nativeStatus, OXM_MPI_Status_struct* status) {
    const int code = translate(native);
    toStatus(nativeStatus, code, status);
    return code;
}

/// A call that makes an object: its handle, or 0 on failure. `object` is read after the call, which may stand
/// among the arguments, hence the reference.
template <class Native>
int translateNew(int native, HandleTable<Native>& table, const Native& object, int* handle) {
    if (native != MPI_SUCCESS) [[unlikely]] {
        *handle = 0;
        return translateFailure(native);
    }
    *handle = table.add(object);
    return OXM_MPI_SUCCESS;
}

/// A call that frees an object: its handle becomes 0, unless the call failed.
template <class Native>
int translateFree(int native, HandleTable<Native>& table, int* handle) {
    if (native != MPI_SUCCESS)
        return translateFailure(native);
    table.remove(*handle);
    *handle = 0;
    return OXM_MPI_SUCCESS;
}

/// Null: the process may start its MPI. Else why it would be a job of its own.
/// @param size  of the world communicator, 0 before it is known
const char* findForeignLauncher(int size);

} // namespace Driver
