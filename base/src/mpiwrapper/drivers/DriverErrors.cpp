#include "mpiwrapper/drivers/Driver.h"

#include <array>
#include <atomic>
#include <cstdio>

namespace {

/// The latest native code of each class, for its text, which any thread may want. 0: the class's
/// own text.
std::array<std::atomic<int>, OXM_MPI_ERR_LASTCODE> latestNativeCodes{};

struct ErrorClass {
    int own;
    int native;
};

constexpr ErrorClass ERROR_CLASSES[] = {
    {OXM_MPI_ERR_BUFFER, MPI_ERR_BUFFER},
    {OXM_MPI_ERR_COUNT, MPI_ERR_COUNT},
    {OXM_MPI_ERR_TYPE, MPI_ERR_TYPE},
    {OXM_MPI_ERR_TAG, MPI_ERR_TAG},
    {OXM_MPI_ERR_COMM, MPI_ERR_COMM},
    {OXM_MPI_ERR_RANK, MPI_ERR_RANK},
    {OXM_MPI_ERR_ROOT, MPI_ERR_ROOT},
    {OXM_MPI_ERR_GROUP, MPI_ERR_GROUP},
    {OXM_MPI_ERR_OP, MPI_ERR_OP},
    {OXM_MPI_ERR_TOPOLOGY, MPI_ERR_TOPOLOGY},
    {OXM_MPI_ERR_DIMS, MPI_ERR_DIMS},
    {OXM_MPI_ERR_ARG, MPI_ERR_ARG},
    {OXM_MPI_ERR_NO_SPACE, MPI_ERR_NO_SPACE},
    {OXM_MPI_ERR_TRUNCATE, MPI_ERR_TRUNCATE},
    {OXM_MPI_ERR_OTHER, MPI_ERR_OTHER},
    {OXM_MPI_ERR_INTERN, MPI_ERR_INTERN},
    {OXM_MPI_ERR_IN_STATUS, MPI_ERR_IN_STATUS},
    {OXM_MPI_ERR_PENDING, MPI_ERR_PENDING},
    {OXM_MPI_ERR_REQUEST, MPI_ERR_REQUEST},
    {OXM_MPI_ERR_ACCESS, MPI_ERR_ACCESS},
    {OXM_MPI_ERR_AMODE, MPI_ERR_AMODE},
    {OXM_MPI_ERR_ASSERT, MPI_ERR_ASSERT},
    {OXM_MPI_ERR_BAD_FILE, MPI_ERR_BAD_FILE},
    {OXM_MPI_ERR_BASE, MPI_ERR_BASE},
    {OXM_MPI_ERR_CONVERSION, MPI_ERR_CONVERSION},
    {OXM_MPI_ERR_DISP, MPI_ERR_DISP},
    {OXM_MPI_ERR_DUP_DATAREP, MPI_ERR_DUP_DATAREP},
    {OXM_MPI_ERR_FILE_EXISTS, MPI_ERR_FILE_EXISTS},
    {OXM_MPI_ERR_FILE_IN_USE, MPI_ERR_FILE_IN_USE},
    {OXM_MPI_ERR_FILE, MPI_ERR_FILE},
    {OXM_MPI_ERR_INFO, MPI_ERR_INFO},
    {OXM_MPI_ERR_INFO_KEY, MPI_ERR_INFO_KEY},
    {OXM_MPI_ERR_INFO_NOKEY, MPI_ERR_INFO_NOKEY},
    {OXM_MPI_ERR_INFO_VALUE, MPI_ERR_INFO_VALUE},
    {OXM_MPI_ERR_IO, MPI_ERR_IO},
    {OXM_MPI_ERR_UNKNOWN, MPI_ERR_UNKNOWN},
    {OXM_MPI_ERR_KEYVAL, MPI_ERR_KEYVAL},
    {OXM_MPI_ERR_LOCKTYPE, MPI_ERR_LOCKTYPE},
    {OXM_MPI_ERR_NAME, MPI_ERR_NAME},
    {OXM_MPI_ERR_NO_MEM, MPI_ERR_NO_MEM},
    {OXM_MPI_ERR_NOT_SAME, MPI_ERR_NOT_SAME},
    {OXM_MPI_ERR_NO_SUCH_FILE, MPI_ERR_NO_SUCH_FILE},
    {OXM_MPI_ERR_PORT, MPI_ERR_PORT},
    {OXM_MPI_ERR_QUOTA, MPI_ERR_QUOTA},
    {OXM_MPI_ERR_READ_ONLY, MPI_ERR_READ_ONLY},
    {OXM_MPI_ERR_RMA_CONFLICT, MPI_ERR_RMA_CONFLICT},
    {OXM_MPI_ERR_RMA_SYNC, MPI_ERR_RMA_SYNC},
    {OXM_MPI_ERR_RMA_RANGE, MPI_ERR_RMA_RANGE},
    {OXM_MPI_ERR_RMA_ATTACH, MPI_ERR_RMA_ATTACH},
    {OXM_MPI_ERR_RMA_FLAVOR, MPI_ERR_RMA_FLAVOR},
    {OXM_MPI_ERR_RMA_SHARED, MPI_ERR_RMA_SHARED},
    {OXM_MPI_ERR_SERVICE, MPI_ERR_SERVICE},
    {OXM_MPI_ERR_SIZE, MPI_ERR_SIZE},
    {OXM_MPI_ERR_SPAWN, MPI_ERR_SPAWN},
    {OXM_MPI_ERR_UNSUPPORTED_DATAREP, MPI_ERR_UNSUPPORTED_DATAREP},
    {OXM_MPI_ERR_UNSUPPORTED_OPERATION, MPI_ERR_UNSUPPORTED_OPERATION},
    {OXM_MPI_ERR_WIN, MPI_ERR_WIN},
};
static_assert(std::size(ERROR_CLASSES) == OXM_MPI_ERR_LASTCODE - 1, "each class of the wrapper has its row");

int getOwnClass(int native) {
    int nativeClass = MPI_ERR_UNKNOWN;
    if (MPI_Error_class(native, &nativeClass) != MPI_SUCCESS)
        nativeClass = MPI_ERR_UNKNOWN;
    for (const ErrorClass& row : ERROR_CLASSES)
        if (row.native == nativeClass)
            return row.own;
    return OXM_MPI_ERR_UNKNOWN;
}

int getNativeClass(int own) {
    for (const ErrorClass& row : ERROR_CLASSES)
        if (row.own == own)
            return row.native;
    return own == OXM_MPI_SUCCESS ? MPI_SUCCESS : MPI_ERR_UNKNOWN;
}

} // namespace

int Driver::translateFailure(int native) {
    const int own = getOwnClass(native);
    latestNativeCodes[static_cast<std::size_t>(own)] = native;
    return own;
}

int Driver::translateStatusFailure(int native, std::bitset<OXM_MPI_ERR_LASTCODE>& seen) {
    const auto own = static_cast<std::size_t>(getOwnClass(native));
    std::atomic<int>& latest = latestNativeCodes[own];
    latest = seen[own] && latest != native ? 0 : native;
    seen[own] = true;
    return static_cast<int>(own);
}

int Driver::refuse(int errorClass) {
    latestNativeCodes[static_cast<std::size_t>(errorClass)] = 0;
    return errorClass;
}

int Driver::refuse(int errorClass, OXM_MPI_Status_struct* statuses, int count) {
    for (int i = 0; statuses && i < count; ++i)
        statuses[i] = {OXM_MPI_ANY_SOURCE, OXM_MPI_ANY_TAG, errorClass, {}};
    return refuse(errorClass);
}

int Driver::Error_string(int code, char* text, int* length) {
    if (code == OXM_MPI_ERR_LAUNCHER) {
        const char* const reason = findForeignLauncher(1);
        if (!reason)
            return OXM_MPI_ERR_ARG;
        *length = std::snprintf(text, OXM_MPI_MAX_ERROR_STRING, "%s", reason);
        return OXM_MPI_SUCCESS;
    }
    int isInitialized = 0;
    int isFinalized = 0;
    if (MPI_Initialized(&isInitialized) != MPI_SUCCESS || MPI_Finalized(&isFinalized) != MPI_SUCCESS ||
        !isInitialized || isFinalized || code < 0 || code >= OXM_MPI_ERR_LASTCODE)
        return OXM_MPI_ERR_ARG;
    static_assert(MPI_MAX_ERROR_STRING <= OXM_MPI_MAX_ERROR_STRING);
    const int latest = latestNativeCodes[static_cast<std::size_t>(code)];
    return MPI_Error_string(latest ? latest : getNativeClass(code), text, length) == MPI_SUCCESS
               ? OXM_MPI_SUCCESS
               : OXM_MPI_ERR_ARG;
}
