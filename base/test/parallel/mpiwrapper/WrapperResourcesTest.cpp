#include "parallel/mpiwrapper/WrapperTestTools.h"

#include <filesystem>
#include <numeric>
#include <random>

using namespace WrapperTest;

namespace {

TEST(WrapperWindows, ShareTheMemoryOfOneRank) {
    int supported = 0;
    ORVEX_GOOD(OXM_MPI_Supports_v3_shared_memory(&supported));
    ASSERT_EQ(supported, 1);
    int node = 0;
    ORVEX_GOOD(OXM_MPI_Comm_split_type(WORLD, OXM_MPI_COMM_TYPE_SHARED, 0, OXM_MPI_INFO_NULL, &node));
    for (const std::size_t count : {std::size_t{1000}, std::size_t{0}}) {
        const auto bytes = static_cast<OXM_MPI_Aint>(count * sizeof(int));
        int window = 0;
        void* base = nullptr;
        ORVEX_GOOD(OXM_MPI_Win_allocate_shared(rank() == 0 ? bytes : 0, sizeof(int), OXM_MPI_INFO_NULL, node,
                                               &base, &window));
        OXM_MPI_Aint windowSize = -1;
        int unit = -1;
        ORVEX_GOOD(OXM_MPI_Win_shared_query(window, 0, &windowSize, &unit, &base));
        EXPECT_EQ(windowSize, bytes);
        if (count) {
            EXPECT_EQ(unit, static_cast<int>(sizeof(int)));
            int* const data = static_cast<int*>(base);
            ORVEX_GOOD(OXM_MPI_Win_fence(0, window));
            if (rank() == size() - 1)
                std::iota(data, data + count, 7);
            ORVEX_GOOD(OXM_MPI_Win_fence(0, window));
            EXPECT_EQ(data[0], 7);
            EXPECT_EQ(data[count - 1], 7 + static_cast<int>(count) - 1);
        }
        ORVEX_GOOD(OXM_MPI_Win_free(&window));
        EXPECT_EQ(window, OXM_MPI_WIN_NULL);
    }
    ORVEX_GOOD(OXM_MPI_Comm_free(&node));
}

TEST(WrapperFiles, TellTheClassOfAFailure) {
    constexpr int CREATE = OXM_MPI_MODE_RDWR | OXM_MPI_MODE_CREATE;
    int number = static_cast<int>(std::random_device{}());
    ORVEX_GOOD(OXM_MPI_Bcast(&number, 1, INT, 0, WORLD));
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("orvex-file-test-" + std::to_string(number));
    const char* const name = path.c_str();
    int file = 77;
    EXPECT_EQ(OXM_MPI_File_open(WORLD, name, OXM_MPI_MODE_RDWR, OXM_MPI_INFO_NULL, &file),
              OXM_MPI_ERR_NO_SUCH_FILE)
        << errorText(OXM_MPI_ERR_NO_SUCH_FILE);
    EXPECT_EQ(file, OXM_MPI_FILE_NULL);
    EXPECT_GT(errorText(OXM_MPI_ERR_NO_SUCH_FILE).size(), 8u);
    EXPECT_EQ(OXM_MPI_File_open(WORLD, name, 0, OXM_MPI_INFO_NULL, &file), OXM_MPI_ERR_AMODE);
    EXPECT_EQ(OXM_MPI_File_open(WORLD, name, CREATE, 4711, &file), OXM_MPI_ERR_INFO);
    EXPECT_EQ(file, OXM_MPI_FILE_NULL);
    OXM_MPI_Offset size = 0;
    EXPECT_EQ(OXM_MPI_File_get_size(4711, &size), OXM_MPI_ERR_FILE);
    ORVEX_GOOD(
        OXM_MPI_File_open(WORLD, name, CREATE | OXM_MPI_MODE_DELETE_ON_CLOSE, OXM_MPI_INFO_NULL, &file));
    int value = 0;
    OXM_MPI_Status_struct status{};
    EXPECT_EQ(OXM_MPI_File_read_at(file, -8, &value, 1, INT, &status), OXM_MPI_ERR_ARG);
    EXPECT_EQ(status.error, OXM_MPI_ERR_ARG);
    ORVEX_GOOD(OXM_MPI_File_close(&file));
    ORVEX_GOOD(OXM_MPI_Barrier(WORLD));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(WrapperFiles, GiveHintsBack) {
    int info = 0;
    ORVEX_GOOD(OXM_MPI_Info_create(&info));
    ORVEX_GOOD(OXM_MPI_Info_set(info, "panfs_layout_type", "3"));
    char value[33] = "old";
    int flag = -1;
    ORVEX_GOOD(OXM_MPI_Info_get(info, "panfs_layout_type", 32, value, &flag));
    EXPECT_EQ(flag, 1);
    EXPECT_STREQ(value, "3");
    ORVEX_GOOD(OXM_MPI_Info_get(info, "no_such_key", 32, value, &flag));
    EXPECT_EQ(flag, 0);
    EXPECT_STREQ(value, "3") << "untouched without the key";
    ORVEX_GOOD(OXM_MPI_Info_free(&info));
    EXPECT_EQ(info, OXM_MPI_INFO_NULL);
    EXPECT_NE(OXM_MPI_Info_set(4711, "key", "value"), OXM_MPI_SUCCESS);
}

TEST(WrapperProcess, KnowsItsMpi) {
    char text[OXM_MPI_MAX_PROCESSOR_NAME] = "";
    int length = -1;
    ORVEX_GOOD(OXM_MPI_Get_processor_name(text, &length));
    EXPECT_GT(length, 0);
    EXPECT_EQ(std::strlen(text), static_cast<std::size_t>(length));
    ORVEX_GOOD(OXM_MPI_Get_mpi_name(text, &length, sizeof text));
    EXPECT_STREQ(text, std::string(ParallelTest::driver()) == "mpich2" ? "MPICH" : "Open MPI");
    ORVEX_GOOD(OXM_MPI_Get_mpi_version(text, &length, sizeof text));
    EXPECT_EQ(std::string(text).find_first_not_of("0123456789.abcrc"), std::string::npos) << text;
    EXPECT_GT(length, 2);
    EXPECT_EQ(OXM_MPI_Get_max_buffer_size(), 0x7FFFFFFFu);
    int disable = -1;
    ORVEX_GOOD(OXM_MPI_disable_cpu_bind_collision_test(&disable));
    EXPECT_EQ(disable, 0);
    EXPECT_GT(OXM_MPI_Wtick(), 0.0);
    EXPECT_EQ(OXM_MPI_Init(nullptr, nullptr), OXM_MPI_ERR_OTHER) << "it runs already";
}

} // namespace
