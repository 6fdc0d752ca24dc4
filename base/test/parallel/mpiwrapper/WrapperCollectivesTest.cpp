#include "parallel/mpiwrapper/WrapperTestTools.h"

#include <array>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <numeric>

using namespace WrapperTest;

namespace {

TEST(WrapperCollectives, inPlace) {
    const int root = size() - 1;
    const bool isRoot = rank() == root;
    std::vector<int> all(ranks());
    std::iota(all.begin(), all.end(), 100);
    const int own = 100 + rank();
    std::vector<int> data(ranks(), -1);
    int* const ownPlace = &data[static_cast<std::size_t>(rank())];
    *ownPlace = own;
    ORVEX_GOOD(OXM_MPI_Allgather(OXM_MPI_IN_PLACE, 0, INT, data.data(), 1, INT, WORLD));
    EXPECT_EQ(data, all);
    data.assign(ranks(), -1);
    *ownPlace = own;
    ORVEX_GOOD(OXM_MPI_Gather(isRoot ? OXM_MPI_IN_PLACE : ownPlace, 1, INT, isRoot ? data.data() : nullptr, 1,
                              INT, root, WORLD));
    if (isRoot) {
        EXPECT_EQ(data, all);
    }
    int mine = isRoot ? own : -1;
    ORVEX_GOOD(OXM_MPI_Scatter(all.data(), 1, INT, isRoot ? OXM_MPI_IN_PLACE : &mine, 1, INT, root, WORLD));
    EXPECT_EQ(mine, own);
    std::vector<int> parts(ranks(), rank() + 1);
    const std::vector<int> ones(ranks(), 1);
    ORVEX_GOOD(OXM_MPI_Reduce_scatter(OXM_MPI_IN_PLACE, parts.data(), ones.data(), INT, OXM_MPI_SUM, WORLD));
    EXPECT_EQ(parts[0], size() * (size() + 1) / 2);
    int odd = rank() % 2;
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &odd, 1, INT, OXM_MPI_LXOR, WORLD));
    EXPECT_EQ(odd, size() / 2 % 2);
}

TEST(WrapperCommunicators, ofSomeAndOfNobody) {
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
    ORVEX_GOOD(OXM_MPI_Group_incl(group, 0, nullptr, &subset));
    ORVEX_GOOD(OXM_MPI_Comm_create(WORLD, subset, &comm));
    EXPECT_EQ(comm, OXM_MPI_COMM_NULL);
    ORVEX_GOOD(OXM_MPI_Group_free(&subset));
    EXPECT_EQ(subset, OXM_MPI_GROUP_NULL);
    ORVEX_GOOD(OXM_MPI_Group_free(&group));
    int world = WORLD;
    EXPECT_NE(OXM_MPI_Comm_free(&world), OXM_MPI_SUCCESS);
    EXPECT_EQ(world, WORLD);
}

int datatypeSeen = 0;

void addDoubles(void* in, void* inout, int* length, int* datatype) {
    datatypeSeen = *datatype;
    for (int i = 0; i < 3 * *length; ++i)
        static_cast<double*>(inout)[i] += static_cast<const double*>(in)[i];
}

template <class... T>
constexpr std::array SIZES_OF{sizeof(T)...};
constexpr auto SIZES =
    SIZES_OF<bool, std::byte, char, signed char, unsigned char, short, unsigned, int, float, double,
             long double, std::int64_t, std::uint64_t, unsigned short, long, unsigned long, wchar_t,
             std::complex<float>, std::complex<double>, std::complex<long double>>;

TEST(WrapperTypes, haveTheSizesOfTheirLanguage) {
    for (int type = OXM_MPI_BOOL; type <= OXM_MPI_LONG_DOUBLE_COMPLEX; ++type) {
        OXM_MPI_Aint lowerBound = -1;
        OXM_MPI_Aint extent = -1;
        ORVEX_GOOD(OXM_MPI_Type_get_extent(type, &lowerBound, &extent));
        EXPECT_EQ(static_cast<std::size_t>(extent), SIZES.at(static_cast<std::size_t>(type) - 1)) << type;
    }
}

TEST(WrapperTypes, areUsableFromCommitToFree) {
    int triple = 0;
    ORVEX_GOOD(OXM_MPI_Type_contiguous(3, OXM_MPI_DOUBLE, &triple));
    double values[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(OXM_MPI_Bcast(values, 2, triple, 0, WORLD), OXM_MPI_ERR_TYPE) << "not committed";
    ORVEX_GOOD(OXM_MPI_Type_commit(&triple));
    int op = 0;
    ORVEX_GOOD(OXM_MPI_Op_create(&addDoubles, 1, &op));
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, values, 2, triple, op, WORLD));
    EXPECT_EQ(values[5], 6.0 * size());
    // An MPI may leave the whole fold to other ranks, but who takes part sees the wrapper's handle.
    if (size() > 1 && datatypeSeen != 0) {
        EXPECT_EQ(datatypeSeen, triple);
    }
    ORVEX_GOOD(OXM_MPI_Op_free(&op));
    EXPECT_EQ(op, OXM_MPI_OP_NULL);
    ORVEX_GOOD(OXM_MPI_Type_free(&triple));
    EXPECT_EQ(triple, OXM_MPI_DATATYPE_NULL);
    int fixed = OXM_MPI_INT;
    EXPECT_NE(OXM_MPI_Type_free(&fixed), OXM_MPI_SUCCESS);
}

void addInts(void* in, void* inout, int* length, int*) {
    for (int i = 0; i < *length; ++i)
        static_cast<int*>(inout)[i] += static_cast<const int*>(in)[i];
}
void multiplyInts(void* in, void* inout, int* length, int*) {
    for (int i = 0; i < *length; ++i)
        static_cast<int*>(inout)[i] *= static_cast<const int*>(in)[i];
}

TEST(WrapperTypes, userReductionsAreKeptApart) {
    constexpr int LIMIT = 32;
    std::vector<int> ops(LIMIT);
    for (std::size_t i = 0; i < LIMIT; ++i)
        ORVEX_GOOD(OXM_MPI_Op_create(i % 2 ? &multiplyInts : &addInts, 1, &ops[i]));
    int oneMore = 5;
    const int code = OXM_MPI_Op_create(&addInts, 1, &oneMore);
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
    ORVEX_GOOD(OXM_MPI_Op_create(&addInts, 1, &ops[7]));
    int value = rank();
    ORVEX_GOOD(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, INT, ops[7], WORLD));
    EXPECT_EQ(value, size() * (size() - 1) / 2);
    for (int& op : ops)
        ORVEX_GOOD(OXM_MPI_Op_free(&op));
}

} // namespace
