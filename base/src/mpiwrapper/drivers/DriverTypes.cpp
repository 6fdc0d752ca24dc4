#include "mpiwrapper/drivers/Driver.h"

#include <array>
#include <utility>

// Datatypes and user reductions.

namespace Driver {

int Type_contiguous(int count, int oldType, int* newType) {
    MPI_Datatype native = MPI_DATATYPE_NULL;
    const int code = MPI_Type_contiguous(count, handles.types.get(oldType), &native);
    return translateNew(code, handles.types, native, newType);
}

int Type_create_struct(int count, const int* blockLengths, const OXM_MPI_Aint* displacements,
                       const int* types, int* newType) {
    *newType = OXM_MPI_DATATYPE_NULL;
    if (count < 0)
        return refuse(OXM_MPI_ERR_COUNT);
    std::vector<MPI_Aint> nativeDisplacements(displacements, displacements + count);
    std::vector<MPI_Datatype> nativeTypes;
    nativeTypes.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        nativeTypes.push_back(handles.types.get(types[i]));
    MPI_Datatype native = MPI_DATATYPE_NULL;
    const int code =
        MPI_Type_create_struct(count, blockLengths, nativeDisplacements.data(), nativeTypes.data(), &native);
    return translateNew(code, handles.types, native, newType);
}

int Type_create_resized(int oldType, OXM_MPI_Aint lowerBound, OXM_MPI_Aint extent, int* newType) {
    MPI_Datatype native = MPI_DATATYPE_NULL;
    const int code = MPI_Type_create_resized(handles.types.get(oldType), static_cast<MPI_Aint>(lowerBound),
                                             static_cast<MPI_Aint>(extent), &native);
    return translateNew(code, handles.types, native, newType);
}

int Type_get_extent(int datatype, OXM_MPI_Aint* lowerBound, OXM_MPI_Aint* extent) {
    MPI_Aint nativeLowerBound = 0;
    MPI_Aint nativeExtent = 0;
    const int code = MPI_Type_get_extent(handles.types.get(datatype), &nativeLowerBound, &nativeExtent);
    *lowerBound = nativeLowerBound;
    *extent = nativeExtent;
    return translate(code);
}

int Type_commit(int* datatype) {
    MPI_Datatype native = handles.types.get(*datatype);
    const int code = MPI_Type_commit(&native);
    handles.types.set(*datatype, native);
    return translate(code);
}

int Type_free(int* datatype) {
    MPI_Datatype native = handles.types.get(*datatype);
    return translateFree(MPI_Type_free(&native), handles.types, datatype);
}

namespace {

/// An MPI calls a user reduction with its own datatype handle and nothing that tells one reduction from
/// another. So each live reduction has a small function of its own, which knows where the user's function
/// stands.
struct UserReduction {
    OXM_MPI_User_function function = nullptr;
    int op = OXM_MPI_OP_NULL;
};
constexpr std::size_t NUMBER_REDUCTIONS = 32;
std::array<UserReduction, NUMBER_REDUCTIONS> userReductions;

template <std::size_t index>
void callUserReduction(void* in, void* inout, int* length, MPI_Datatype* datatype) {
    int handle = handles.types.find(*datatype);
    userReductions[index].function(in, inout, length, &handle);
}

template <std::size_t... indices>
constexpr std::array<MPI_User_function*, sizeof...(indices)> getTrampolines(std::index_sequence<indices...>) {
    return {&callUserReduction<indices>...};
}
constexpr auto TRAMPOLINES = getTrampolines(std::make_index_sequence<NUMBER_REDUCTIONS>());

} // namespace

int Op_create(OXM_MPI_User_function function, int commute, int* op) {
    *op = OXM_MPI_OP_NULL;
    if (!function)
        return refuse(OXM_MPI_ERR_ARG);
    for (std::size_t i = 0; i < NUMBER_REDUCTIONS; ++i) {
        if (userReductions[i].function)
            continue;
        MPI_Op native = MPI_OP_NULL;
        const int code =
            translateNew(MPI_Op_create(TRAMPOLINES[i], commute, &native), handles.ops, native, op);
        if (code == OXM_MPI_SUCCESS)
            userReductions[i] = {function, *op};
        return code;
    }
    return OXM_MPI_ERR_NO_REDUCTION_SLOT;
}

int Op_free(int* op) {
    const int freed = *op;
    MPI_Op native = handles.ops.get(freed);
    const int code = translateFree(MPI_Op_free(&native), handles.ops, op);
    if (code == OXM_MPI_SUCCESS)
        for (UserReduction& reduction : userReductions)
            if (reduction.op == freed)
                reduction = {};
    return code;
}

} // namespace Driver
