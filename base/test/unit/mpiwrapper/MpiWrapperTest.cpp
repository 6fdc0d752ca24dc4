#include "mpiwrapper/MpiFunctions.h"
#include "mpiwrapper/drivers/HandleTable.h"
#include "support/ScriptedMpi.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <tuple>
#include <utility>

namespace {

std::string errorText(int code) {
    char text[OXM_MPI_MAX_ERROR_STRING];
    int length = -1;
    EXPECT_EQ(OXM_MPI_Error_string(code, text, &length), OXM_MPI_SUCCESS);
    EXPECT_EQ(std::strlen(text), static_cast<std::size_t>(length));
    return text;
}

/// Calls a function with zeros, which it must not look at.
template <class... Arguments>
int callWithZeros(int (*function)(Arguments...)) {
    return function(Arguments{}...);
}

void expectRefusals(int expected, int expectedOfFiles) {
#define CALL(name, parameters, arguments) EXPECT_EQ(callWithZeros(&OXM_MPI_##name), expected) << #name;
#define CALL_FILE(name, parameters, arguments)                                                               \
    EXPECT_EQ(callWithZeros(&OXM_MPI_##name), expectedOfFiles) << #name;
    ORVEX_MPI_RUNNING_FUNCTIONS(CALL)
    ORVEX_MPI_FILE_FUNCTIONS(CALL_FILE)
#undef CALL_FILE
#undef CALL
    EXPECT_EQ(OXM_MPI_Finalize(), expected);
}

// The tests of this file change the state of the wrapper in the process, so the order matters: the first test
// sees a process without a driver. CTest runs the program as one test.

TEST(MpiWrapperStart, EveryFunctionRefusesWithoutDriver) {
    expectRefusals(OXM_MPI_ERR_NO_DRIVER, OXM_MPI_ERR_NO_PARALLEL_IO);
    int flag = 7;
    EXPECT_EQ(OXM_MPI_Supports_v3_shared_memory(&flag), OXM_MPI_ERR_NO_DRIVER);
    EXPECT_EQ(OXM_MPI_disable_cpu_bind_collision_test(&flag), OXM_MPI_ERR_NO_DRIVER);
    EXPECT_EQ(OXM_MPI_Enable_trace(), OXM_MPI_ERR_NO_DRIVER);
    EXPECT_EQ(OXM_MPI_Init(nullptr, nullptr), OXM_MPI_ERR_NO_DRIVER);
    EXPECT_STREQ(OXM_MPI_Get_initialize_error(), "No MPI driver is loaded");
    EXPECT_EQ(OXM_MPI_Wtime(), 0.0);
    EXPECT_EQ(OXM_MPI_Get_max_buffer_size(), 0u);
    EXPECT_EQ(errorText(OXM_MPI_ERR_NO_DRIVER), "No MPI driver is loaded");
    EXPECT_EQ(errorText(OXM_MPI_ERR_TRUNCATE), "Message truncated on receive");
    EXPECT_EQ(errorText(987654), "Unknown error code 987654");
    EXPECT_EQ(errorText(-3), "Unknown error code -3");
    for (int code = 0; code < OXM_MPI_ERR_LASTCODE; ++code)
        EXPECT_NE(errorText(code).find_first_not_of("0123456789"), std::string::npos) << code;
}

TEST(MpiWrapperStart, RefusesWhatIsNoDriverAndKeepsTheOldOne) {
    const std::pair<const char*, const char*> modules[] = {
        {ORVEX_WRONG_DRIVERS "/libOrvexNoDriver.so",
         R"( isn't an MPI driver: it has no symbol "orvexMpiDriver")"},
        {ORVEX_WRONG_DRIVERS "/libOrvexOtherVersion.so",
         " is an MPI driver with interface version 77, but version 2 is needed"},
        {ORVEX_WRONG_DRIVERS "/libOrvexOtherFunctions.so",
         " is an MPI driver with another list of functions (8 bytes instead of "},
        {ORVEX_WRONG_DRIVERS "/libOrvexEmptyDriver.so",
         " is an MPI driver that lacks an indispensable function"},
    };
    ScriptedMpi& mpi = ScriptedMpi::start();
    EXPECT_STREQ(OXM_MPI_Get_initialize_error(), "");
    for (const auto& [path, reason] : modules) {
        void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        ASSERT_TRUE(library) << dlerror();
        EXPECT_EQ(OXM_MPI_Initialize(library), OXM_MPI_ERR_BAD_DRIVER);
        EXPECT_TRUE(std::string(OXM_MPI_Get_initialize_error()).starts_with(path + std::string(reason)))
            << OXM_MPI_Get_initialize_error();
        EXPECT_EQ(OXM_MPIO_Initialize(library), OXM_MPI_ERR_BAD_DRIVER);
        mpi.clearCalls();
        EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_SUCCESS);
        EXPECT_EQ(mpi.texts(), std::vector<std::string>{"Barrier(comm=1)"});
        EXPECT_EQ(dlclose(library), 0);
    }
    EXPECT_EQ(OXM_MPI_Initialize(nullptr), OXM_MPI_ERR_BAD_DRIVER);
    EXPECT_STREQ(OXM_MPI_Get_initialize_error(), "No library was given to take an MPI driver from");
}

TEST(MpiWrapperStart, ServesWhatItsPhaseAllows) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    EXPECT_EQ(OXM_MPI_Init(nullptr, nullptr), OXM_MPI_ERR_OTHER);
    EXPECT_STREQ(OXM_MPI_Get_initialize_error(), "MPI runs already");
    const double before = OXM_MPI_Wtime();
    mpi.setAction("Finalize", [&](const ScriptedCall&) {
        const int readings = mpi.clockReadings();
        EXPECT_GE(OXM_MPI_Wtime(), before);
        EXPECT_EQ(mpi.clockReadings(), readings) << "other threads no longer reach an MPI that ends";
        return OXM_MPI_SUCCESS;
    });
    EXPECT_EQ(OXM_MPI_Finalize(), OXM_MPI_SUCCESS);
    expectRefusals(OXM_MPI_ERR_NOT_RUNNING, OXM_MPI_ERR_NOT_RUNNING);
    const double after = OXM_MPI_Wtime();
    EXPECT_GE(after, before);
    EXPECT_LT(after - before, 5.0) << "the clock goes on after the end";
    EXPECT_GT(OXM_MPI_Wtick(), 0.0);
    EXPECT_EQ(OXM_MPI_Init(nullptr, nullptr), OXM_MPI_ERR_NOT_RUNNING);

    ASSERT_EQ(OXM_MPI_Initialize(ScriptedMpi::library()), OXM_MPI_SUCCESS);
    expectRefusals(OXM_MPI_ERR_NOT_RUNNING, OXM_MPI_ERR_NO_PARALLEL_IO);
    int works = 0;
    EXPECT_EQ(OXM_MPI_Supports_v3_shared_memory(&works), OXM_MPI_SUCCESS);
    EXPECT_EQ(works, 1);
    EXPECT_EQ(errorText(OXM_MPI_ERR_NO_PARALLEL_IO), "Parallel files aren't supported by this MPI driver");
    EXPECT_EQ(errorText(OXM_MPI_ERR_TAG), "Invalid tag") << "the driver isn't asked before its start";
}

TEST(MpiWrapperStart, TellsWhyTheStartFailed) {
    ScriptedMpi& mpi = ScriptedMpi::load();
    mpi.reset();
    ASSERT_EQ(OXM_MPI_Initialize(ScriptedMpi::library()), OXM_MPI_SUCCESS);
    mpi.fail("Init", 1, OXM_MPI_ERR_LAUNCHER);
    mpi.setErrorText(OXM_MPI_ERR_LAUNCHER, "another launcher, rank 1 of 4");
    EXPECT_EQ(OXM_MPI_Init(nullptr, nullptr), OXM_MPI_ERR_LAUNCHER);
    EXPECT_STREQ(OXM_MPI_Get_initialize_error(), "another launcher, rank 1 of 4");
    EXPECT_EQ(errorText(OXM_MPI_ERR_LAUNCHER), "another launcher, rank 1 of 4");
    EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_ERR_NOT_RUNNING);
    EXPECT_EQ(OXM_MPI_Init(nullptr, nullptr), OXM_MPI_SUCCESS) << "a second try may succeed";
}

TEST(MpiWrapper, KeepsNameAndVersion) {
    for (const auto& [set, get, original] :
         {std::tuple(&OXM_MPI_Set_mpi_name, &OXM_MPI_Get_mpi_name, "Scripted MPI"),
          std::tuple(&OXM_MPI_Set_mpi_version, &OXM_MPI_Get_mpi_version, "1.0")}) {
        ScriptedMpi::start();
        ASSERT_EQ(OXM_MPI_Finalize(), OXM_MPI_SUCCESS);
        ScriptedMpi::start();
        char text[OXM_MPI_MAX_LIBRARY_VERSION_STRING];
        int length = 0;
        const auto textIn = [&, read = get](int capacity) {
            EXPECT_EQ(read(text, &length, capacity), OXM_MPI_SUCCESS);
            return std::string(text);
        };
        EXPECT_EQ(textIn(sizeof text), original);
        EXPECT_EQ(set("Cluster MPI", 12), OXM_MPI_SUCCESS);
        EXPECT_EQ(textIn(sizeof text), "Cluster MPI");
        EXPECT_EQ(length, 11);
        EXPECT_EQ(textIn(8), "Cluster") << "cut to the capacity";
        EXPECT_EQ(set("Cluster MPI", 4), OXM_MPI_SUCCESS);
        EXPECT_EQ(textIn(sizeof text), "Clus") << "no more than the length is read";
        EXPECT_EQ(set(std::string(5000, 'x').c_str(), 5001), OXM_MPI_SUCCESS);
        EXPECT_EQ(textIn(sizeof text).size(), sizeof text - 1);
        EXPECT_EQ(set(nullptr, 3), OXM_MPI_ERR_ARG);
        EXPECT_EQ(get(text, &length, 0), OXM_MPI_ERR_ARG);
    }
}

TEST(MpiWrapper, TracesWhileAsked) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setWorld(2, 4);
    mpi.setLooks(1);
    int received = 0;
    int pending = 0;
    ASSERT_EQ(OXM_MPI_Irecv(&received, 1, OXM_MPI_INT, 1, 8, OXM_MPI_COMM_WORLD, &pending), OXM_MPI_SUCCESS);
    const int waiting = pending;
    mpi.setLooks(0);
    ASSERT_EQ(OXM_MPI_Enable_trace(), OXM_MPI_SUCCESS);
    testing::internal::CaptureStderr();
    const double value = 3.0;
    int request = 0;
    OXM_MPI_Status_struct status;
    EXPECT_EQ(OXM_MPI_Isend(&value, 1, OXM_MPI_DOUBLE, 1, 7, OXM_MPI_COMM_WORLD, &request), OXM_MPI_SUCCESS);
    const int handle = request;
    EXPECT_EQ(OXM_MPI_Wait(&request, &status), OXM_MPI_SUCCESS);
    mpi.fail("Barrier", 1, OXM_MPI_ERR_COMM);
    EXPECT_EQ(OXM_MPI_Barrier(5), OXM_MPI_ERR_COMM);
    int requests[] = {0, 0};
    EXPECT_EQ(OXM_MPI_Waitall(2, requests, OXM_MPI_STATUSES_IGNORE), OXM_MPI_SUCCESS);
    int flag = 0;
    for (int look = 0; look < 2; ++look)
        EXPECT_EQ(OXM_MPI_Test(&pending, &flag, &status), OXM_MPI_SUCCESS);
    std::string lines = testing::internal::GetCapturedStderr();
    for (const auto& [unsure, name] :
         {std::pair(std::string("0x[0-9a-f]+|[0-9.]+(?= us)"), "#"),
          std::pair(std::to_string(handle), "SENT"), std::pair(std::to_string(waiting), "WAITING")})
        lines = std::regex_replace(lines, std::regex(unsure), name);
    // Of a request that isn't complete no status is set.
    EXPECT_EQ(
        lines,
        R"(MPI rank 2: Isend(buffer=#, count=1, datatype=10, dest=1, tag=7, comm=1, request) = 0 in # us request=SENT
MPI rank 2: Wait(request=SENT, status) = 0 in # us request=0 status={source=2 tag=7 error=0}
MPI rank 2: Barrier(comm=5) = 5 in # us
MPI rank 2: Waitall(count=2, requests=[0 0], statuses) = 0 in # us
MPI rank 2: Test(request=WAITING, flag, status) = 0 in # us request=WAITING flag=0
MPI rank 2: Test(request=WAITING, flag, status) = 0 in # us request=0 flag=1 status={source=1 tag=8 error=0}
)");

    mpi.setWorld(0, 1);
    ASSERT_EQ(OXM_MPI_Enable_trace(), OXM_MPI_SUCCESS);
    testing::internal::CaptureStderr();
    EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_SUCCESS);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("MPI rank 0: Barrier"));
    ASSERT_EQ(OXM_MPI_Disable_trace(), OXM_MPI_SUCCESS);
    testing::internal::CaptureStderr();
    EXPECT_EQ(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD), OXM_MPI_SUCCESS);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(HandleTable, SlotsAreFreedOnceAndOnlyLiveOnesChange) {
    HandleTable<int> table;
    table.reset({-1, 10}, 4);
    const int handle = table.add(20);
    for (const int each : {0, 1, handle, 77, -3})
        table.set(each, 21);
    EXPECT_EQ(table.get(1), 10);
    EXPECT_EQ(table.get(handle), 21);
    EXPECT_EQ(table.get(77), -1);
    EXPECT_EQ(table.find(21), handle);
    EXPECT_EQ(table.find(99), 0);
    table.remove(handle);
    table.remove(handle);
    table.set(handle, 22);
    EXPECT_FALSE(handle == 0 || table.isNullOrLive(handle));
    EXPECT_EQ(table.add(30), handle);
    EXPECT_NE(table.add(40), handle);
}

} // namespace
