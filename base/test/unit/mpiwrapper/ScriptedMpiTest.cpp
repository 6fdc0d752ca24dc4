#include "support/ScriptedMpi.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>

// Where the scripted driver plays badly, the tests built on it fail. Here stands what they wouldn't notice:
// that it refuses nothing, or forgets what is alive.

namespace {

TEST(ScriptedMpi, refusesWhatNoMpiWouldTake) {
    ScriptedMpi::start();
    int value = 0;
    int stale = 4711;
    const std::pair<int, int> rows[] = {
        {OXM_MPI_ERR_COMM, OXM_MPI_Barrier(9)},
        {OXM_MPI_ERR_TYPE, OXM_MPI_Send(&value, 1, 99, 0, 0, 1)},
        {OXM_MPI_ERR_RANK, OXM_MPI_Send(&value, 1, OXM_MPI_INT, 1, 0, 1)},
        {OXM_MPI_ERR_ROOT, OXM_MPI_Scatter(&value, 1, OXM_MPI_INT, &value, 1, OXM_MPI_INT, 3, 1)},
        {OXM_MPI_ERR_OP, OXM_MPI_Allreduce(&value, &value, 1, OXM_MPI_INT, 77, 1)},
        {OXM_MPI_ERR_REQUEST, OXM_MPI_Wait(&stale, OXM_MPI_STATUS_IGNORE)},
        {OXM_MPI_ERR_NO_SUCH_FILE, OXM_MPI_File_open(1, "none", OXM_MPI_MODE_RDWR, 0, &value)},
    };
    for (const auto& [expected, code] : rows)
        EXPECT_EQ(code, expected);
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
    int request = 0;
    int info = 0;
    int file = 0;
    mpi.setLooks(1);
    EXPECT_EQ(OXM_MPI_Irecv(nullptr, 0, OXM_MPI_INT, OXM_MPI_ANY_SOURCE, 5, 1, &request), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_Info_create(&info), OXM_MPI_SUCCESS);
    EXPECT_EQ(OXM_MPI_File_open(1, "a", OXM_MPI_MODE_RDWR | OXM_MPI_MODE_CREATE, 0, &file), OXM_MPI_SUCCESS);
    EXPECT_EQ(mpi.liveHandles(), (std::map<std::string, int>{{"comm", 1},
                                                             {"group", 1},
                                                             {"datatype", 1},
                                                             {"op", 1},
                                                             {"window", 1},
                                                             {"request", 1},
                                                             {"info", 1},
                                                             {"file", 1}}));
    double triple[3] = {};
    EXPECT_EQ(OXM_MPI_Bcast(triple, 1, type, 0, comm), OXM_MPI_ERR_TYPE) << "not committed yet";
    for (const int code :
         {OXM_MPI_Win_free(&window), OXM_MPI_Op_free(&op), OXM_MPI_Type_free(&type), OXM_MPI_Comm_free(&comm),
          OXM_MPI_Group_free(&group), OXM_MPI_Request_free(&request), OXM_MPI_Info_free(&info),
          OXM_MPI_File_close(&file)})
        EXPECT_EQ(code, OXM_MPI_SUCCESS);
    EXPECT_TRUE(mpi.liveHandles().empty());
    int world = OXM_MPI_COMM_WORLD;
    EXPECT_EQ(OXM_MPI_Comm_free(&world), OXM_MPI_ERR_COMM);
}

} // namespace
