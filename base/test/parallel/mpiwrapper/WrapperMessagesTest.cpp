#include "parallel/mpiwrapper/WrapperTestTools.h"

#include <algorithm>
#include <functional>
#include <numeric>

using namespace WrapperTest;

namespace {

TEST(WrapperMessages, countIsUndefinedForPartsOfElements) {
    const char bytes[6] = {};
    double in[2] = {};
    OXM_MPI_Status_struct status;
    ORVEX_GOOD(OXM_MPI_Sendrecv(bytes, 6, OXM_MPI_BYTE, nextRank(), 1, in, 16, OXM_MPI_BYTE, previousRank(),
                                1, WORLD, &status));
    EXPECT_TRUE(status.source == previousRank() && status.tag == 1 && status.error == OXM_MPI_SUCCESS);
    int count = 0;
    ORVEX_GOOD(OXM_MPI_Get_count(&status, OXM_MPI_BYTE, &count));
    EXPECT_EQ(count, 6);
    ORVEX_GOOD(OXM_MPI_Get_count(&status, OXM_MPI_INT, &count));
    EXPECT_EQ(count, OXM_MPI_UNDEFINED);
}

TEST(WrapperMessages, nobodyIsAPartnerToo) {
    int value = 5;
    OXM_MPI_Status_struct status;
    ORVEX_GOOD(OXM_MPI_Send(&value, 1, INT, OXM_MPI_PROC_NULL, 0, WORLD));
    ORVEX_GOOD(OXM_MPI_Recv(&value, 1, INT, OXM_MPI_PROC_NULL, 0, WORLD, &status));
    EXPECT_EQ(value, 5);
    EXPECT_EQ(status.source, OXM_MPI_PROC_NULL);
    EXPECT_EQ(status.tag, OXM_MPI_ANY_TAG);
}

/// One message to and from each rank, itself included.
class Exchange {
public:
    Exchange() : _in(ranks(), -1), _out(ranks()) {
        std::iota(_out.begin(), _out.end(), 1000 * rank());
        requests.resize(2 * ranks());
        for (std::size_t i = 0; i < ranks(); ++i) {
            const int other = static_cast<int>(i);
            EXPECT_TRUE(isGood(OXM_MPI_Irecv(&_in[i], 1, INT, other, 3, WORLD, &requests[i])));
            EXPECT_TRUE(isGood(OXM_MPI_Isend(&_out[i], 1, INT, other, 3, WORLD, &requests[ranks() + i])));
        }
    }
    int count() const { return static_cast<int>(requests.size()); }
    void expectDone() const {
        for (int other = 0; other < size(); ++other)
            EXPECT_EQ(_in[static_cast<std::size_t>(other)], 1000 * other + rank());
        for (int request : requests)
            EXPECT_EQ(request, OXM_MPI_REQUEST_NULL);
    }
    std::vector<int> requests;

private:
    std::vector<int> _in;
    std::vector<int> _out;
};

TEST(WrapperRequests, anyOfThemUntilNoneIsLeft) {
    for (const bool waits : {true, false}) {
        Exchange exchange;
        std::vector<bool> completed(exchange.requests.size(), false);
        for (std::size_t done = 0; done < completed.size();) {
            int index = -5;
            int flag = 1;
            OXM_MPI_Status_struct status;
            if (waits)
                ORVEX_GOOD(OXM_MPI_Waitany(exchange.count(), exchange.requests.data(), &index, &status));
            else
                ORVEX_GOOD(
                    OXM_MPI_Testany(exchange.count(), exchange.requests.data(), &index, &flag, &status));
            if (!flag)
                continue;
            ASSERT_GE(index, 0);
            ASSERT_FALSE(completed[static_cast<std::size_t>(index)]) << "each once";
            completed[static_cast<std::size_t>(index)] = true;
            if (index < size()) {
                EXPECT_EQ(status.source, index);
            }
            ++done;
        }
        exchange.expectDone();
        int index = -5;
        int flag = -1;
        OXM_MPI_Status_struct status;
        ORVEX_GOOD(OXM_MPI_Waitany(exchange.count(), exchange.requests.data(), &index, &status));
        EXPECT_EQ(index, OXM_MPI_UNDEFINED);
        EXPECT_EQ(status.source, OXM_MPI_ANY_SOURCE);
        ORVEX_GOOD(OXM_MPI_Testany(exchange.count(), exchange.requests.data(), &index, &flag, &status));
        EXPECT_EQ(index, OXM_MPI_UNDEFINED);
        EXPECT_EQ(flag, 1);
    }
}

TEST(WrapperRequests, testsLookWithoutWaiting) {
    ORVEX_NEEDS_RANKS(2);
    int in = -1;
    int request = 0;
    ORVEX_GOOD(OXM_MPI_Irecv(&in, 1, INT, previousRank(), 8, WORLD, &request));
    const int live = request;
    int flag = -1;
    ORVEX_GOOD(OXM_MPI_Test(&request, &flag, OXM_MPI_STATUS_IGNORE));
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(request, live);
    ORVEX_GOOD(OXM_MPI_Testall(1, &request, &flag, OXM_MPI_STATUSES_IGNORE));
    EXPECT_EQ(flag, 0);
    ORVEX_GOOD(OXM_MPI_Barrier(WORLD));
    const int out = rank() + 50;
    ORVEX_GOOD(OXM_MPI_Send(&out, 1, INT, nextRank(), 8, WORLD));
    OXM_MPI_Status_struct status;
    while (!flag)
        ORVEX_GOOD(OXM_MPI_Test(&request, &flag, &status));
    EXPECT_EQ(in, previousRank() + 50);
    EXPECT_EQ(status.source, previousRank());
    EXPECT_EQ(request, OXM_MPI_REQUEST_NULL);

    Exchange exchange;
    std::vector<OXM_MPI_Status_struct> statuses(exchange.requests.size());
    for (flag = 0; !flag;)
        ORVEX_GOOD(OXM_MPI_Testall(exchange.count(), exchange.requests.data(), &flag, statuses.data()));
    exchange.expectDone();
    EXPECT_EQ(statuses[1].source, 1);
}

TEST(WrapperRequests, slotsAreUsedAgain) {
    int highest = 0;
    for (int round = 0; round < 200; ++round) {
        Exchange exchange;
        highest = std::max(highest, *std::max_element(exchange.requests.begin(), exchange.requests.end()));
        for (int again = 0; again < 2; ++again)
            ORVEX_GOOD(OXM_MPI_Waitall(exchange.count(), exchange.requests.data(), OXM_MPI_STATUSES_IGNORE));
        exchange.expectDone();
    }
    ORVEX_GOOD(OXM_MPI_Waitall(0, nullptr, OXM_MPI_STATUSES_IGNORE));
    EXPECT_LE(highest, 2 * size());
}

TEST(WrapperRequests, persistentOnesStayUntilFreed) {
    int in[2] = {-1, -1};
    int requests[2] = {0, 0};
    ORVEX_GOOD(OXM_MPI_Recv_init(&in[0], 1, INT, previousRank(), 20, WORLD, &requests[0]));
    ORVEX_GOOD(OXM_MPI_Recv_init(&in[1], 1, INT, previousRank(), 21, WORLD, &requests[1]));
    const std::vector<int> handles(requests, requests + 2);
    for (int round = 0; round < 3; ++round) {
        if (round == 0) {
            ORVEX_GOOD(OXM_MPI_Start(&requests[0]));
            ORVEX_GOOD(OXM_MPI_Start(&requests[1]));
        } else {
            ORVEX_GOOD(OXM_MPI_Startall(2, requests));
        }
        const int out[2] = {rank() + round, rank() - round};
        int sends[2];
        for (int i = 0; i < 2; ++i)
            ORVEX_GOOD(OXM_MPI_Isend(&out[i], 1, INT, nextRank(), 20 + i, WORLD, &sends[i]));
        OXM_MPI_Status_struct statuses[2];
        ORVEX_GOOD(OXM_MPI_Waitall(2, requests, statuses));
        ORVEX_GOOD(OXM_MPI_Waitall(2, sends, OXM_MPI_STATUSES_IGNORE));
        EXPECT_EQ(in[0], previousRank() + round);
        EXPECT_EQ(in[1], previousRank() - round);
        EXPECT_EQ(statuses[1].tag, 21);
        EXPECT_EQ(std::vector<int>(requests, requests + 2), handles);
    }
    for (int& request : requests) {
        ORVEX_GOOD(OXM_MPI_Request_free(&request));
        EXPECT_EQ(request, OXM_MPI_REQUEST_NULL);
    }
    int stale = handles[0];
    EXPECT_EQ(OXM_MPI_Start(&stale), OXM_MPI_ERR_REQUEST);
}

TEST(WrapperRequests, cancelledOnesComplete) {
    int in = -1;
    int request = 0;
    ORVEX_GOOD(OXM_MPI_Irecv(&in, 1, INT, previousRank(), 999, WORLD, &request));
    ORVEX_GOOD(OXM_MPI_Cancel(&request));
    ORVEX_GOOD(OXM_MPI_Wait(&request, OXM_MPI_STATUS_IGNORE));
    EXPECT_EQ(request, OXM_MPI_REQUEST_NULL);
}

TEST(WrapperRequests, errorsStandInTheirStatuses) {
    ORVEX_NEEDS_RANKS(2);
    const int out[4] = {1, 2, 3, 4};
    if (rank() == 0) {
        for (int tag : {30, 31, 32})
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
    }
    // The single forms give the error itself.
    if (rank() == 0)
        ORVEX_GOOD(OXM_MPI_Send(out, 4, INT, 1, 33, WORLD));
    if (rank() == 1) {
        int in[2];
        OXM_MPI_Status_struct status;
        EXPECT_EQ(OXM_MPI_Recv(in, 2, INT, 0, 33, WORLD, &status), OXM_MPI_ERR_TRUNCATE);
        EXPECT_EQ(status.error, OXM_MPI_ERR_TRUNCATE);
    }
    ORVEX_GOOD(OXM_MPI_Barrier(WORLD));
}

TEST(WrapperRequests, refusalsStandInTheirStatuses) {
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

TEST(WrapperErrors, haveTheirClassAndTheMpisText) {
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
