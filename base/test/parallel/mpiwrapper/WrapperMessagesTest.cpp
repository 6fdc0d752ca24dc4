#include "parallel/mpiwrapper/WrapperTestTools.h"

#include <algorithm>
#include <functional>
#include <set>

using namespace WrapperTest;

namespace {

TEST(WrapperRequests, CompleteInAnyOrderAndUseTheirSlotsAgain) {
    for (const bool waits : {true, false, true}) {
        // One message to and from each rank, itself included: first the receives, then the sends.
        std::vector<int> in(ranks(), -1);
        std::vector<int> out(ranks());
        std::vector<int> expected(ranks());
        std::vector<int> requests(2 * ranks());
        const int count = 2 * size();
        for (std::size_t i = 0; i < ranks(); ++i) {
            const int other = static_cast<int>(i);
            out[i] = 1000 * rank() + other;
            expected[i] = 1000 * other + rank();
            ORVEX_GOOD(OXM_MPI_Irecv(&in[i], 1, INT, other, 3, WORLD, &requests[i]));
            ORVEX_GOOD(OXM_MPI_Isend(&out[i], 1, INT, other, 3, WORLD, &requests[ranks() + i]));
        }
        EXPECT_LE(*std::ranges::max_element(requests), count) << "the slots of the round before are free";
        std::multiset<int> indices;
        for (int index = 0; index != OXM_MPI_UNDEFINED;) {
            int flag = 1;
            int values = 0;
            OXM_MPI_Status_struct status;
            if (waits)
                ORVEX_GOOD(OXM_MPI_Waitany(count, requests.data(), &index, &status));
            else
                ORVEX_GOOD(OXM_MPI_Testany(count, requests.data(), &index, &flag, &status));
            if (!flag) {
                index = 0;
                continue;
            }
            indices.insert(index);
            if (index >= size())
                continue;
            EXPECT_EQ(status.source, index == OXM_MPI_UNDEFINED ? OXM_MPI_ANY_SOURCE : index);
            ORVEX_GOOD(OXM_MPI_Get_count(&status, OXM_MPI_DOUBLE, &values));
            EXPECT_EQ(values, index == OXM_MPI_UNDEFINED ? 0 : OXM_MPI_UNDEFINED) << "half a value";
        }
        EXPECT_EQ(in, expected);
        EXPECT_EQ(requests, std::vector<int>(2 * ranks(), OXM_MPI_REQUEST_NULL));
        for (int index = OXM_MPI_UNDEFINED; index < count; ++index)
            EXPECT_EQ(indices.count(index), 1u) << index;
        ORVEX_GOOD(OXM_MPI_Waitall(count, requests.data(), OXM_MPI_STATUSES_IGNORE));
        ORVEX_GOOD(OXM_MPI_Waitall(0, nullptr, OXM_MPI_STATUSES_IGNORE));
    }
}

TEST(WrapperRequests, TellErrorsInTheirStatuses) {
    ORVEX_NEEDS_RANKS(2);
    const int out[4] = {1, 2, 3, 4};
    if (rank() == 0) {
        for (int tag : {30, 31, 32, 33})
            ORVEX_GOOD(OXM_MPI_Send(out, tag == 31 ? 2 : 4, INT, 1, tag, WORLD));
    } else if (rank() == 1) {
        int in[3][4] = {};
        int requests[3];
        for (int i = 0; i < 3; ++i)
            ORVEX_GOOD(OXM_MPI_Irecv(in[i], 2, INT, 0, 30 + i, WORLD, &requests[i]));
        // An MPI may leave at its first error and tell of the others as pending; then it is asked again.
        int errors[3] = {OXM_MPI_ERR_PENDING, OXM_MPI_ERR_PENDING, OXM_MPI_ERR_PENDING};
        int calls = 0;
        while (std::find(errors, errors + 3, OXM_MPI_ERR_PENDING) != errors + 3 && ++calls <= 3) {
            OXM_MPI_Status_struct statuses[3];
            const int code = OXM_MPI_Waitall(3, requests, statuses);
            ASSERT_TRUE(code == OXM_MPI_ERR_IN_STATUS || (calls > 1 && code == OXM_MPI_SUCCESS)) << code;
            for (int i = 0; i < 3; ++i)
                if (errors[i] == OXM_MPI_ERR_PENDING) {
                    errors[i] = statuses[i].error;
                    EXPECT_EQ(requests[i] == OXM_MPI_REQUEST_NULL, errors[i] != OXM_MPI_ERR_PENDING) << i;
                }
        }
        EXPECT_EQ(errors[0], OXM_MPI_ERR_TRUNCATE);
        EXPECT_EQ(errors[1], OXM_MPI_SUCCESS);
        EXPECT_EQ(errors[2], OXM_MPI_ERR_TRUNCATE);
        EXPECT_EQ(in[1][1], 2);
        EXPECT_NE(errorText(OXM_MPI_ERR_TRUNCATE).find("runcate"), std::string::npos);
        EXPECT_NE(errorText(OXM_MPI_ERR_IN_STATUS).find("tatus"), std::string::npos)
            << errorText(OXM_MPI_ERR_IN_STATUS);
        // The single forms give the error itself.
        OXM_MPI_Status_struct status;
        EXPECT_EQ(OXM_MPI_Recv(in[0], 2, INT, 0, 33, WORLD, &status), OXM_MPI_ERR_TRUNCATE);
        EXPECT_EQ(status.error, OXM_MPI_ERR_TRUNCATE);
    }
    ORVEX_GOOD(OXM_MPI_Barrier(WORLD));
}

TEST(WrapperRequests, TellRefusalsInTheirStatuses) {
    int requests[] = {OXM_MPI_REQUEST_NULL, 4711};
    int index = 0;
    int flag = 0;
    std::vector<OXM_MPI_Status_struct> statuses(2);
    const std::function<int()> calls[] = {
        [&] { return OXM_MPI_Waitall(2, requests, statuses.data()); },
        [&] { return OXM_MPI_Testall(2, requests, &flag, statuses.data()); },
        [&] { return OXM_MPI_Waitany(2, requests, &index, &statuses[0]); },
        [&] { return OXM_MPI_Testany(2, requests, &index, &flag, &statuses[0]); },
        [&] { return OXM_MPI_Wait(&requests[1], &statuses[0]); },
        [&] { return OXM_MPI_Test(&requests[1], &flag, &statuses[0]); },
    };
    for (const auto& call : calls) {
        index = flag = 7;
        statuses[0] = {7, 7, 7, {}};
        EXPECT_EQ(call(), OXM_MPI_ERR_REQUEST);
        EXPECT_EQ(statuses[0].error, OXM_MPI_ERR_REQUEST);
        EXPECT_EQ(statuses[0].source, OXM_MPI_ANY_SOURCE);
        EXPECT_TRUE(index == 7 || index == OXM_MPI_UNDEFINED);
        EXPECT_TRUE(flag == 7 || flag == 0);
    }
    EXPECT_EQ(statuses[1].error, OXM_MPI_ERR_REQUEST);
}

TEST(WrapperErrors, HaveTheirClassAndTheTextOfTheMpi) {
    int value = 0;
    int handle = 0;
    int stale = 4711;
    void* base = nullptr;
    const struct {
        const char* what;
        int code;
        int expected;
    } rows[] = {
        {"rank above", OXM_MPI_Send(&value, 1, INT, size(), 0, WORLD), OXM_MPI_ERR_RANK},
        {"any destination", OXM_MPI_Send(&value, 1, INT, OXM_MPI_ANY_SOURCE, 0, WORLD), OXM_MPI_ERR_RANK},
        {"negative source", OXM_MPI_Recv(&value, 1, INT, -1, 0, WORLD, nullptr), OXM_MPI_ERR_RANK},
        {"negative tag", OXM_MPI_Send(&value, 1, INT, 0, -1, WORLD), OXM_MPI_ERR_TAG},
        {"negative tag of a receive", OXM_MPI_Irecv(&value, 1, INT, 0, -1, WORLD, &handle), OXM_MPI_ERR_TAG},
        {"any tag of a send", OXM_MPI_Send(&value, 1, INT, 0, OXM_MPI_ANY_TAG, WORLD), OXM_MPI_ERR_TAG},
        {"negative count", OXM_MPI_Isend(&value, -1, INT, 0, 0, WORLD, &handle), OXM_MPI_ERR_COUNT},
        {"null communicator", OXM_MPI_Barrier(OXM_MPI_COMM_NULL), OXM_MPI_ERR_COMM},
        {"no communicator", OXM_MPI_Barrier(99999), OXM_MPI_ERR_COMM},
        {"no datatype", OXM_MPI_Send(&value, 1, 99999, 0, 0, WORLD), OXM_MPI_ERR_TYPE},
        {"root", OXM_MPI_Bcast(&value, 1, INT, size(), WORLD), OXM_MPI_ERR_ROOT},
        {"no operation", OXM_MPI_Allreduce(OXM_MPI_IN_PLACE, &value, 1, INT, 9999, WORLD), OXM_MPI_ERR_OP},
        {"no group", OXM_MPI_Comm_create(WORLD, 9999, &handle), OXM_MPI_ERR_GROUP},
        {"stale request", OXM_MPI_Wait(&stale, nullptr), OXM_MPI_ERR_REQUEST},
        {"stale requests", OXM_MPI_Waitall(1, &stale, nullptr), OXM_MPI_ERR_REQUEST},
        {"no window", OXM_MPI_Win_fence(0, 9999), OXM_MPI_ERR_WIN},
        {"stale info", OXM_MPI_Comm_split_type(WORLD, 0, 0, 4711, &handle), OXM_MPI_ERR_INFO},
        {"stale info of a window", OXM_MPI_Win_allocate_shared(8, 1, 4711, WORLD, &base, &handle),
         OXM_MPI_ERR_INFO},
        {"no function", OXM_MPI_Op_create(nullptr, 1, &handle), OXM_MPI_ERR_ARG},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.code, row.expected) << row.what << ": " << errorText(row.code);
        EXPECT_GT(errorText(row.expected).size(), 8u) << row.what;
    }
    // MPICH tells what was wrong, and that text mustn't get lost; Open MPI has one text for each class.
    EXPECT_EQ(OXM_MPI_Send(&value, 1, INT, size() + 41, 0, WORLD), OXM_MPI_ERR_RANK);
    const std::string text = errorText(OXM_MPI_ERR_RANK);
    if (std::string(ParallelTest::driver()) == "mpich2") {
        EXPECT_NE(text.find("value " + std::to_string(size() + 41)), std::string::npos) << text;
    } else {
        EXPECT_EQ(text, "MPI_ERR_RANK: invalid rank");
    }
}

} // namespace
