#include "support/ScriptedMpi.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <string>
#include <vector>

// The scripted driver is what many tests believe in, so it is tested itself.

namespace {

using Texts = std::vector<std::string>;

TEST(ScriptedMpi, recordsCallsAsText) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setWorld(1, 3);
    int data[6] = {};
    const int counts[] = {1, 2, 3};
    const int displacements[] = {0, 1, 3};
    EXPECT_EQ(OXM_MPI_Bcast(data, 5, OXM_MPI_DOUBLE, 0, 1), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Gatherv(data, 2, OXM_MPI_INT, nullptr, nullptr, nullptr, OXM_MPI_INT, 0, 1),
              OXM_MPI_SUCCESS);
    EXPECT_EQ(
        OXM_MPI_Allgatherv(OXM_MPI_IN_PLACE, 2, OXM_MPI_INT, data, counts, displacements, OXM_MPI_INT, 1),
        OXM_MPI_SUCCESS);
    int info = 0;
    EXPECT_EQ(OXM_MPI_Info_create(&info), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Info_set(info, "key", "value"), OXM_MPI_SUCCESS);
    const std::string handle = std::to_string(info);
    EXPECT_EQ(OXM_MPI_Info_free(&info), OXM_MPI_SUCCESS);
    EXPECT_EQ(mpi.texts(),
              (Texts{"Bcast(count=5, datatype=10, root=0, comm=1)",
                     "Gatherv(sendCount=2, sendType=8, recvBuffer=null, recvCounts=null, displacements=null, "
                     "recvType=8, root=0, comm=1)",
                     "Allgatherv(sendBuffer=IN_PLACE, sendCount=2, sendType=8, recvCounts=[1 2 3], "
                     "displacements=[0 1 3], recvType=8, comm=1)",
                     "Info_create()", "Info_set(info=" + handle + ", key=\"key\", value=\"value\")",
                     "Info_free(info=" + handle + ")"}));
    EXPECT_EQ(mpi.calls()[0].get("count"), 5);
    EXPECT_EQ(mpi.callsOf("Allgatherv")[0].arrays.at("displacements"), (std::vector<long long>{0, 1, 3}));
}

TEST(ScriptedMpi, movesDataOfCollectivesOnOneRank) {
    ScriptedMpi::start();
    const std::array<int, 3> data{4, 5, 6};
    const int three = 3;
    const int none = 0;
    const auto check = [&](const char* name, auto call) {
        std::array<int, 3> result{};
        EXPECT_EQ(call(result.data()), OXM_MPI_SUCCESS) << name;
        EXPECT_EQ(result, data) << name;
    };
    constexpr int INT = OXM_MPI_INT;
    check("Gather", [&](void* out) { return OXM_MPI_Gather(data.data(), 3, INT, out, 3, INT, 0, 1); });
    check("Gatherv",
          [&](void* out) { return OXM_MPI_Gatherv(data.data(), 3, INT, out, &three, &none, INT, 0, 1); });
    check("Allgather", [&](void* out) { return OXM_MPI_Allgather(data.data(), 3, INT, out, 3, INT, 1); });
    check("Allgatherv",
          [&](void* out) { return OXM_MPI_Allgatherv(data.data(), 3, INT, out, &three, &none, INT, 1); });
    check("Scatter", [&](void* out) { return OXM_MPI_Scatter(data.data(), 3, INT, out, 3, INT, 0, 1); });
    check("Scatterv",
          [&](void* out) { return OXM_MPI_Scatterv(data.data(), &three, &none, INT, out, 3, INT, 0, 1); });
    check("Alltoall", [&](void* out) { return OXM_MPI_Alltoall(data.data(), 3, INT, out, 3, INT, 1); });
    check("Alltoallv", [&](void* out) {
        return OXM_MPI_Alltoallv(data.data(), &three, &none, INT, out, &three, &none, INT, 1);
    });
    check("Reduce", [&](void* out) { return OXM_MPI_Reduce(data.data(), out, 3, INT, OXM_MPI_SUM, 0, 1); });
    check("Allreduce",
          [&](void* out) { return OXM_MPI_Allreduce(data.data(), out, 3, INT, OXM_MPI_MAX, 1); });
    check("Scan", [&](void* out) { return OXM_MPI_Scan(data.data(), out, 3, INT, OXM_MPI_SUM, 1); });
    check("Reduce_scatter",
          [&](void* out) { return OXM_MPI_Reduce_scatter(data.data(), out, &three, INT, OXM_MPI_SUM, 1); });
    int untouched = 7;
    EXPECT_EQ(OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &untouched, 1, INT, OXM_MPI_SUM, 1), OXM_MPI_SUCCESS);
    EXPECT_EQ(untouched, 7);
}

TEST(ScriptedMpi, failsAsScripted) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.fail("Barrier", 2, OXM_MPI_ERR_INTERN);
    EXPECT_EQ(OXM_MPI_Barrier(1), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Barrier(1), OXM_MPI_ERR_INTERN);
    EXPECT_EQ(OXM_MPI_Barrier(1), OXM_MPI_SUCCESS);
    mpi.failAny(2, OXM_MPI_ERR_OTHER);
    int value = 0;
    EXPECT_EQ(OXM_MPI_Comm_rank(1, &value), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Comm_size(1, &value), OXM_MPI_ERR_OTHER);
    EXPECT_EQ(mpi.calls().back().result, OXM_MPI_ERR_OTHER);
    int type = 7;
    mpi.fail("Type_contiguous", 1, OXM_MPI_ERR_OTHER);
    EXPECT_EQ(OXM_MPI_Type_contiguous(2, OXM_MPI_INT, &type), OXM_MPI_ERR_OTHER);
    EXPECT_EQ(type, 0);
    mpi.setAction("Bcast", [](const ScriptedCall& call) {
        *static_cast<int*>(call.addresses.at("buffer")) = 42;
        return OXM_MPI_SUCCESS;
    });
    EXPECT_EQ(OXM_MPI_Bcast(&value, 1, OXM_MPI_INT, 0, 1), OXM_MPI_SUCCESS);
    EXPECT_EQ(value, 42);
    for (const auto& [code, call] : std::vector<std::pair<int, int>>{
             {OXM_MPI_ERR_COMM, OXM_MPI_Barrier(9)},
             {OXM_MPI_ERR_TYPE, OXM_MPI_Send(&value, 1, 99, 0, 0, 1)},
             {OXM_MPI_ERR_RANK, OXM_MPI_Send(&value, 1, OXM_MPI_INT, 1, 0, 1)},
             {OXM_MPI_ERR_ROOT, OXM_MPI_Scatter(&value, 1, OXM_MPI_INT, &value, 1, OXM_MPI_INT, 3, 1)},
             {OXM_MPI_ERR_OP, OXM_MPI_Allreduce(&value, &value, 1, OXM_MPI_INT, 77, 1)}})
        EXPECT_EQ(call, code);
}

TEST(ScriptedMpi, completesRequestsAfterLooks) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setWorld(0, 4);
    mpi.setLooks(2);
    const int sent = 11;
    int received[2] = {};
    mpi.deliver(3, 5, &sent, sizeof sent);
    int requests[2];
    ASSERT_EQ(OXM_MPI_Irecv(&received[0], 1, OXM_MPI_INT, OXM_MPI_ANY_SOURCE, 5, 1, &requests[0]),
              OXM_MPI_SUCCESS);
    ASSERT_EQ(OXM_MPI_Isend(&sent, 1, OXM_MPI_INT, 2, 6, 1, &requests[1]), OXM_MPI_SUCCESS);
    EXPECT_EQ(mpi.liveHandles(), (std::map<std::string, int>{{"request", 2}}));
    OXM_MPI_Status_struct statuses[2];
    for (int expected : {0, 0, 1}) {
        int flag = -1;
        EXPECT_EQ(OXM_MPI_Testall(2, requests, &flag, statuses), OXM_MPI_SUCCESS);
        EXPECT_EQ(flag, expected);
    }
    EXPECT_EQ(received[0], 11);
    EXPECT_EQ(statuses[0].source, 3);
    EXPECT_EQ(requests[0], OXM_MPI_REQUEST_NULL);
    EXPECT_TRUE(mpi.liveHandles().empty());
    ASSERT_EQ(mpi.sent().size(), 1u);
    EXPECT_EQ(mpi.sent()[0].partner, 2);
    int stale = 4711;
    EXPECT_EQ(OXM_MPI_Wait(&stale, OXM_MPI_STATUS_IGNORE), OXM_MPI_ERR_REQUEST);

    // A scripted error in the statuses of a call that does its work all the same.
    mpi.setLooks(0);
    ASSERT_EQ(OXM_MPI_Isend(&sent, 1, OXM_MPI_INT, 2, 6, 1, &requests[0]), OXM_MPI_SUCCESS);
    ASSERT_EQ(OXM_MPI_Isend(&sent, 1, OXM_MPI_INT, 2, 6, 1, &requests[1]), OXM_MPI_SUCCESS);
    mpi.fail("Waitall", 1, OXM_MPI_ERR_IN_STATUS);
    mpi.setStatuses({{1, 2, 0, {}}, {1, 2, 6, {}}});
    EXPECT_EQ(OXM_MPI_Waitall(2, requests, statuses), OXM_MPI_ERR_IN_STATUS);
    EXPECT_EQ(statuses[0].error, 0);
    EXPECT_EQ(statuses[1].error, 6);
    EXPECT_EQ(requests[1], OXM_MPI_REQUEST_NULL);
}

TEST(ScriptedMpi, knowsWhatIsAlive) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    int group = 0;
    int comm = 0;
    int type = 0;
    int op = 0;
    int window = 0;
    void* base = nullptr;
    EXPECT_EQ(OXM_MPI_Comm_group(1, &group), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Comm_create(1, group, &comm), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Type_contiguous(3, OXM_MPI_DOUBLE, &type), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Op_create([](void*, void*, int*, int*) {}, 1, &op), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Win_allocate_shared(80, 8, 0, comm, &base, &window), OXM_MPI_SUCCESS);
    EXPECT_EQ(mpi.liveHandles(), (std::map<std::string, int>{
                                     {"comm", 1}, {"group", 1}, {"datatype", 1}, {"op", 1}, {"window", 1}}));
    OXM_MPI_Aint lowerBound = -1;
    OXM_MPI_Aint extent = -1;
    EXPECT_EQ(OXM_MPI_Type_get_extent(type, &lowerBound, &extent), OXM_MPI_SUCCESS);
    EXPECT_EQ(extent, 24);
    double triple[3] = {};
    EXPECT_EQ(OXM_MPI_Bcast(triple, 1, type, 0, comm), OXM_MPI_ERR_TYPE) << "not committed yet";
    EXPECT_EQ(OXM_MPI_Type_commit(&type), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Bcast(triple, 1, type, 0, comm), OXM_MPI_SUCCESS);
    for (const int code : {OXM_MPI_Win_free(&window), OXM_MPI_Op_free(&op), OXM_MPI_Type_free(&type),
                           OXM_MPI_Comm_free(&comm), OXM_MPI_Group_free(&group)})
        EXPECT_EQ(code, OXM_MPI_SUCCESS);
    EXPECT_TRUE(mpi.liveHandles().empty());
    int world = OXM_MPI_COMM_WORLD;
    EXPECT_EQ(OXM_MPI_Comm_free(&world), OXM_MPI_ERR_COMM);
}

TEST(ScriptedMpi, keepsFilesInMemory) {
    ScriptedMpi::start();
    int file = 0;
    EXPECT_EQ(OXM_MPI_File_open(1, "a", OXM_MPI_MODE_RDWR, 0, &file), OXM_MPI_ERR_NO_SUCH_FILE);
    ASSERT_EQ(OXM_MPI_File_open(1, "a", OXM_MPI_MODE_RDWR | OXM_MPI_MODE_CREATE, 0, &file), OXM_MPI_SUCCESS);
    const std::array<int, 4> data{1, 2, 3, 4};
    OXM_MPI_Status_struct status;
    EXPECT_EQ(OXM_MPI_File_write_at(file, 8, data.data(), 4, OXM_MPI_INT, &status), OXM_MPI_SUCCESS);
    OXM_MPI_Offset size = 0;
    EXPECT_EQ(OXM_MPI_File_get_size(file, &size), OXM_MPI_SUCCESS);
    EXPECT_EQ(size, 24);
    std::array<int, 4> read{};
    EXPECT_EQ(OXM_MPI_File_read_at(file, 16, read.data(), 4, OXM_MPI_INT, &status), OXM_MPI_SUCCESS);
    int count = 0;
    EXPECT_EQ(OXM_MPI_Get_count(&status, OXM_MPI_INT, &count), OXM_MPI_SUCCESS);
    EXPECT_EQ(count, 2) << "up to the end of the file";
    EXPECT_EQ(read, (std::array<int, 4>{3, 4, 0, 0}));
    EXPECT_EQ(OXM_MPI_File_close(&file), OXM_MPI_SUCCESS);
}

TEST(ScriptedMpi, hasAClockOfItsOwn) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setClock(10.0, 0.5);
    EXPECT_EQ(OXM_MPI_Wtime(), 10.0);
    EXPECT_EQ(OXM_MPI_Wtime(), 10.5);
    EXPECT_EQ(mpi.clockReadings(), 2);
}

} // namespace
