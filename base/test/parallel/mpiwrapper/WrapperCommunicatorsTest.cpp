#include "parallel/mpiwrapper/WrapperTestTools.h"

#include <algorithm>
#include <functional>

using namespace WrapperTest;

namespace {

TEST(WrapperCommunicators, AreMadeOfSome) {
    int group = 0;
    ORVEX_GOOD(OXM_MPI_Comm_group(WORLD, &group));
    const int last = size() - 1;
    int subset = 0;
    int comm = -1;
    ORVEX_GOOD(OXM_MPI_Group_incl(group, 1, &last, &subset));
    ORVEX_GOOD(OXM_MPI_Comm_create(WORLD, subset, &comm));
    int native = 0;
    char library[OXM_MPI_MAX_LIBRARY_VERSION_STRING] = "";
    if (rank() != last) {
        EXPECT_EQ(comm, OXM_MPI_COMM_NULL);
        EXPECT_EQ(OXM_MPI_Comm_native_handle(comm, &native, library), OXM_MPI_ERR_COMM);
    } else {
        int nativeWorld = 0;
        ORVEX_GOOD(OXM_MPI_Comm_native_handle(WORLD, &nativeWorld, library));
        EXPECT_STREQ(library, std::string(ParallelTest::driver()) == "mpich2" ? "MPICH" : "Open MPI");
        ORVEX_GOOD(OXM_MPI_Comm_native_handle(comm, &native, library));
        EXPECT_NE(native, nativeWorld);
        int value = 0;
        EXPECT_EQ(OXM_MPI_Bcast(&value, 1, INT, 1, comm), OXM_MPI_ERR_ROOT) << "errors return here too";
        const int freed = comm;
        ORVEX_GOOD(OXM_MPI_Comm_free(&comm));
        EXPECT_EQ(comm, OXM_MPI_COMM_NULL);
        EXPECT_EQ(OXM_MPI_Barrier(freed), OXM_MPI_ERR_COMM);
    }
    ORVEX_GOOD(OXM_MPI_Group_free(&subset));
    EXPECT_EQ(subset, OXM_MPI_GROUP_NULL);
    ORVEX_GOOD(OXM_MPI_Group_free(&group));
    int world = WORLD;
    EXPECT_NE(OXM_MPI_Comm_free(&world), OXM_MPI_SUCCESS);
    EXPECT_EQ(world, WORLD);
}

template <class Operation>
void combine(void* in, void* inout, int* length, int*) {
    int* const ints = static_cast<int*>(inout);
    std::transform(ints, ints + *length, static_cast<const int*>(in), ints, Operation());
}

TEST(WrapperOperations, OfUsersAreKeptApart) {
    constexpr int LIMIT = 32;
    std::vector<int> ops(LIMIT);
    for (std::size_t i = 0; i < LIMIT; ++i)
        ORVEX_GOOD(
            OXM_MPI_Op_create(i % 2 ? &combine<std::multiplies<>> : &combine<std::plus<>>, 1, &ops[i]));
    int oneMore = 5;
    const int code = OXM_MPI_Op_create(&combine<std::plus<>>, 1, &oneMore);
    EXPECT_EQ(code, OXM_MPI_ERR_NO_REDUCTION_SLOT);
    EXPECT_EQ(errorText(code), "Too many user-defined reductions are alive at a time");
    EXPECT_EQ(oneMore, OXM_MPI_OP_NULL);
    for (std::size_t i = 0; i < LIMIT; ++i) {
        int value = 2;
        int expected = 2;
        for (int r = 1; r < size(); ++r)
            expected = i % 2 ? expected * 2 : expected + 2;
        ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, INT, ops[i], WORLD));
        EXPECT_EQ(value, expected) << i;
    }
    ORVEX_GOOD(OXM_MPI_Op_free(&ops[7]));
    ORVEX_GOOD(OXM_MPI_Op_create(&combine<std::plus<>>, 1, &ops[7]));
    int value = rank();
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, INT, ops[7], WORLD));
    EXPECT_EQ(value, size() * (size() - 1) / 2);
    for (int& op : ops)
        ORVEX_GOOD(OXM_MPI_Op_free(&op));
}

} // namespace
