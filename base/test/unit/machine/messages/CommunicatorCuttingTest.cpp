// Messages too large for one call, proved by the calls that are made of them.

#include "machine/Communicator.h"

#include "support/ScriptedMpi.h"

#include "unit/machine/Failures.h"
#include "unit/machine/messages/CommunicatorTestAccess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

namespace {

using Texts = std::vector<std::string>;

class CommunicatorCutting : public testing::Test {
protected:
    /// A communicator of `size` ranks whose messages have at most `limit` bytes.
    Communicator& be(int rank, int size, std::size_t limit) {
        _communicator.reset(); // before its group's handle becomes another's
        mpi.reset();
        mpi.setWorld(rank, size);
        mpi.setMaxBufferSize(limit);
        _communicator = std::make_unique<Communicator>();
        mpi.clearCalls();
        return *_communicator;
    }
    /// One number of each call of `name`, a list each.
    Texts numbersOf(const std::string& name, const std::string& argument) {
        Texts numbers;
        for (const ScriptedCall& call : mpi.callsOf(name)) {
            const auto array = call.arrays.find(argument);
            std::string text;
            if (array == call.arrays.end())
                text = std::to_string(call.get(argument));
            else
                for (const long long number : array->second)
                    text += (text.empty() ? "" : " ") + std::to_string(number);
            numbers.push_back(text);
        }
        return numbers;
    }

    struct Cut {
        std::size_t limit;
        std::size_t count;
        Texts pieces;
    };

    static void expectOversize(const std::function<void()>& run, unsigned count) {
        expectAssertion(run,
                        "An oversized communication message has been detected.\nMessage count = " +
                            std::to_string(count) + "\nMessage size = " + std::to_string(8 * count) +
                            "\nMax count = 2147483647.\n"
                            "Oversized messages may imply too few parallel processes are being used.\n",
                        "false", "CommunicatorCounts.cpp");
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
    /// Blocks of a vector gather or scatter of 4 ranks.
    const std::vector<unsigned> counts{5, 0, 1, 4};
    std::vector<double> data = std::vector<double>(100);

private:
    std::unique_ptr<Communicator> _communicator;
};

TEST_F(CommunicatorCutting, HalvesABroadcastUntilItFits) {
    const Cut rows[] = {
        {8, 5, {"1", "1", "1", "1", "1"}},
        {40, 5, {"5"}}, // exactly the limit
        {39, 5, {"2", "3"}},
        {32, 5, {"2", "3"}},
        {32, 12, {"3", "3", "3", "3"}}, // three times the limit
        {16, 7, {"1", "2", "2", "2"}},
        {8, 0, {}},
    };
    for (const Cut& row : rows) {
        Communicator& comm = be(1, 3, row.limit);
        comm.broadcast(data.data(), row.count, 2);
        EXPECT_EQ(numbersOf("Bcast", "count"), row.pieces) << row.limit << " " << row.count;
    }
    Communicator& comm = be(0, 3, 4);
    expectOversize([&] { comm.broadcast(data.data(), 3, 0); }, 1);
    EXPECT_TRUE(mpi.calls().empty()) << "no rank gets ahead of one that refuses";
}

TEST_F(CommunicatorCutting, CutsCountsBeyondOneCall) {
    Communicator& comm = be(0, 2, ~std::size_t(0) / 16);
    auto* const far = reinterpret_cast<char*>(0x100000);
    comm.broadcast(far, 2147483647, 0);
    std::vector<char*> places;
    mpi.setAction("Bcast", [&](const ScriptedCall& call) {
        places.push_back(static_cast<char*>(call.addresses.at("buffer")));
        return OXM_MPI_SUCCESS;
    });
    comm.broadcast(far, 4294967295, 0);
    EXPECT_EQ(numbersOf("Bcast", "count"), (Texts{"2147483647", "2147483647", "1073741824", "1073741824"}));
    EXPECT_EQ(places, (std::vector<char*>{far, far + 2147483647, far + 3221225471}));
}

TEST_F(CommunicatorCutting, CutsGathersByTheWholeMessage) {
    const Cut rows[] = {
        {120, 5, {"5"}},    {119, 5, {"2", "3"}}, {48, 5, {"2", "1", "2"}}, {24, 4, {"1", "1", "1", "1"}},
        {8, 2, {"1", "1"}}, // one element of each rank can't be cut
        {8, 1, {"1"}},      {8, 0, {}},
    };
    for (const Cut& row : rows) {
        SCOPED_TRACE(testing::Message() << row.limit << " " << row.count);
        for (const int rank : {0, 2}) {
            Communicator& comm = be(rank, 3, row.limit);
            comm.gather(data.data(), row.count, data.data() + 50, 2);
            EXPECT_EQ(numbersOf("Gather", "sendCount"), row.pieces);
            comm.allGather(data.data(), row.count, data.data() + 50);
            EXPECT_EQ(numbersOf("Allgather", "recvCount"), row.pieces);
            comm.scatter(data.data() + 50, data.data(), row.count, 2);
            EXPECT_EQ(numbersOf("Scatter", "recvCount"), row.pieces);
        }
    }
    Communicator& comm = be(0, 3, 7);
    EXPECT_THROW(comm.gather(data.data(), 2, data.data() + 50, 0), InternalError);
    EXPECT_THROW(comm.scatter(data.data() + 50, data.data(), 1, 0), InternalError);
    EXPECT_TRUE(mpi.calls().empty());
}

TEST_F(CommunicatorCutting, ChecksTheResultOfAGather) {
    using Access = CommunicatorTestAccess;
    Communicator& comm = be(0, 3, 100);
    const Access::In send{data.data(), 1, OXM_MPI_DOUBLE, 8};
    const Access::Out large{data.data(), 13, OXM_MPI_DOUBLE, 8};
    expectOversize([&] { Access::gather(comm, send, large); }, 13);
    expectOversize([&] { Access::allGather(comm, send, large); }, 13);
}

TEST_F(CommunicatorCutting, CutsVectorsByTheTotalOfTheRoot) {
    // Lower halves: 2 0 0 2, upper halves: 3 0 1 2. The lower pass is judged by 10 / 2 elements, the upper
    // one by 10 / 2 + 4, which no rank but the root knows better.
    struct Row {
        std::size_t limit;
        Texts totals; // the broadcasts of a pass that may cut
        Texts counts;
    };
    const Row rows[] = {
        {80, {"10"}, {"5 0 1 4"}},
        {79, {"10"}, {"2 0 0 2", "3 0 1 2"}},
        {72, {"10"}, {"2 0 0 2", "3 0 1 2"}},
        {71, {"10", "6"}, {"2 0 0 2", "3 0 1 2"}},
        {40, {"10", "6", "4"}, {"2 0 0 2", "1 0 0 1", "2 0 1 1"}},
        {24, {"10", "4", "2", "6", "4", "3"}, {"1 0 0 1", "1 0 0 1", "1 0 0 1", "1 0 0 0", "1 0 1 1"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.limit);
        Communicator& comm = be(1, 4, row.limit);
        Texts totals;
        const auto noteTotal = [&](const ScriptedCall& call) {
            unsigned long long total = 0;
            std::memcpy(&total, call.addresses.at("buffer"), sizeof total);
            totals.push_back(std::to_string(total));
            return OXM_MPI_SUCCESS;
        };
        mpi.setAction("Bcast", noteTotal);
        comm.gatherVector(data.data(), 0, data.data() + 50, counts.data(), nullptr, 1);
        EXPECT_EQ(numbersOf("Gatherv", "recvCounts"), row.counts);
        EXPECT_EQ(totals, row.totals);
        totals.clear();
        comm.scatterVector(data.data() + 50, counts.data(), nullptr, data.data(), 0, 1);
        EXPECT_EQ(numbersOf("Scatterv", "sendCounts"), row.counts);
        EXPECT_EQ(totals, row.totals);
    }
}

TEST_F(CommunicatorCutting, CutsAnAllGatherByTheTotalThatAllKnow) {
    struct Row {
        std::size_t limit;
        std::vector<unsigned> counts;
        Texts pieces;
        Texts places;
    };
    const Row rows[] = {
        {80, counts, {"5 0 1 4"}, {"0 5 5 6"}},
        {79, counts, {"2 0 0 2", "3 0 1 2"}, {"0 2 2 2", "0 3 3 4"}},
        // No block of the last piece can be cut.
        {8,
         counts,
         {"1 0 0 1", "1 0 0 1", "1 0 0 1", "1 0 0 0", "1 0 1 1"},
         {"0 1 1 1", "0 1 1 1", "0 1 1 1", "0 1 1 1", "0 1 1 2"}},
        // One element of one rank travels in the upper piece.
        {8, {0, 0, 2, 0}, {"0 0 1 0", "0 0 1 0"}, {"0 0 0 1", "0 0 0 1"}},
    };
    for (const Row& row : rows) {
        Communicator& comm = be(2, 4, row.limit);
        comm.allGatherVector(data.data(), 1, data.data() + 50, row.counts.data(), nullptr);
        EXPECT_EQ(numbersOf("Allgatherv", "recvCounts"), row.pieces) << row.limit;
        EXPECT_EQ(numbersOf("Allgatherv", "displacements"), row.places) << row.limit;
    }
}

TEST_F(CommunicatorCutting, HasALimitOfEachCommunicator) {
    Communicator& comm = be(0, 1, 1000);
    Communicator other;
    testing::internal::CaptureStdout();
    comm.setMaxBufferSize(16);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Warning, modifying the maximum message size from 1000 to 16\n");
    EXPECT_EQ(comm.getMaxBufferSize(), 16u);
    EXPECT_EQ(other.getMaxBufferSize(), 1000u);
}

} // namespace
