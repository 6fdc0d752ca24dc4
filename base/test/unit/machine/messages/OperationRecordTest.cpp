#include "machine/messages/OperationRecord.h"

#include "machine/Communicator.h"
#include "machine/messages/CollectiveHistory.h"

#include "support/ScriptedMpi.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Snapshot = OperationRecord::Snapshot;

/// As another thread sees it.
Snapshot look() {
    Snapshot snapshot;
    std::thread([&snapshot] { snapshot = OperationRecord::read(); }).join();
    return snapshot;
}

/// As in "send, global, 3 ranks, 8 bytes, partner 2".
std::string textOf(const Snapshot& snapshot) {
    return snapshot.operation + ", " + snapshot.communicator + ", " + std::to_string(snapshot.bytes) +
           " bytes, partner " + std::to_string(snapshot.partner);
}

class Records : public testing::Test {
protected:
    Records() { mpi.setWorld(1, 3); }
    ~Records() override { MpiCore::finalize(); }

    /// The view of another thread while `run` stands in its wrapper call `name`, which fails.
    Snapshot during(const std::string& name, const std::function<void()>& run) {
        Snapshot seen;
        mpi.setAction(name, [&seen](const ScriptedCall&) {
            seen = look();
            return OXM_MPI_ERR_OTHER;
        });
        try {
            run();
        } catch (const NonRecoverableError&) {
            // The record has to end all the same.
        }
        mpi.setAction(name, {});
        return seen;
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
    double value = 0.0;
    std::vector<double> three = std::vector<double>(3);
};

} // namespace

TEST_F(Records, TellAnotherThreadTheOperationInWhichTheMainThreadStands) {
    Communicator comm;
    auto sub = comm.createCommunicator({2, 1});
    Communicator::RequestStack requests;
    unsigned from = 0;
    const auto receive = [&] { comm.iRecv(value, 2, requests); };
    const std::tuple<const char*, std::function<void()>, std::string> rows[] = {
        {"Send", [&] { comm.send(value, 2); }, "send, global, 3 ranks, 8 bytes, partner 2"},
        {"Ssend", [&] { sub->syncSend(three.data(), 3, 0); }, "send, of 2 ranks, 24 bytes, partner 0"},
        {"Recv", [&] { comm.recv(value, 0); }, "recv, global, 3 ranks, 8 bytes, partner 0"},
        {"Recv", [&] { comm.recvFromAny(value, from); }, "recv, global, 3 ranks, 8 bytes, partner -1"},
        {"Irecv", receive, "iRecv, global, 3 ranks, 8 bytes, partner 2"},
        {"Probe", [&] { comm.probe<int>(from = 2, from, from); },
         "probe, global, 3 ranks, 0 bytes, partner 2"},
        {"Wait", [&] { receive(), requests.wait(); }, "wait, , 0 bytes, partner -1"},
        {"Wait", [&] { comm.wait(requests); }, "wait, global, 3 ranks, 0 bytes, partner -1"},
        {"Waitany", [&] { requests.waitAny(from); }, "waitAny, , 0 bytes, partner -1"},
        {"Bcast", [&] { sub->broadcast(value, 1); }, "broadcast, of 2 ranks, 8 bytes, partner 1"},
        {"Reduce", [&] { comm.reduce(three, Communicator::MAX, 2); },
         "reduce, global, 3 ranks, 24 bytes, partner 2"},
        {"Allreduce", [&] { comm.allReduce(three, Communicator::SUM); },
         "allReduce, global, 3 ranks, 24 bytes, partner -1"},
        {"Barrier", [&] { comm.synchronise(); }, "synchronise, global, 3 ranks, 0 bytes, partner -1"},
        {"Isend", [&] { comm.noSpinSynchronise(1.0); },
         "noSpinSynchronise, global, 3 ranks, 0 bytes, partner -1"},
        {"Allreduce",
         [&] { // a composite that has collectives of another communicator in it
             CollectiveHistory::of(comm).noteFromOutside(
                 CollectiveHistory::wordOf(Collective::LEAVE_HYBRID_CONTEXT, 0));
             constexpr static MessageOperation MEET{"HybridMpiThreadContext::leaveHybridContext",
                                                    CommunicatorStatistics::GLOBAL, true,
                                                    Collective::LEAVE_HYBRID_CONTEXT};
             const OperationRecord::Composite meeting(MEET);
             sub->allReduce(value, Communicator::SUM);
         },
         "leaveHybridContext, global, 3 ranks, 0 bytes, partner -1"},
        {"Comm_create", [&] { comm.createCommunicator({1}); },
         "createCommunicator, global, 3 ranks, 0 bytes, partner -1"},
        {"Comm_free", [&] { sub.reset(); }, "freeCommunicator, of 2 ranks, 0 bytes, partner -1"},
    };
    for (const bool isTimed : {false, true}) { // the road behind the gate, too
        comm.enableCommunicationTimer(isTimed);
        sub = comm.createCommunicator({2, 1});
        for (const auto& [call, run, text] : rows) {
            const Snapshot seen = during(call, run);
            EXPECT_TRUE(seen.isInside) << text;
            EXPECT_EQ(textOf(seen), text);
            EXPECT_FALSE(look().isInside) << text;
        }
        requests.free();
    }
}

TEST_F(Records, MoveWithEachOperationAndNotWithALookInVain) {
    Communicator comm;
    Communicator::RequestStack requests;
    unsigned from = 0;
    unsigned tag = 0;
    unsigned count = 0;
    mpi.setLooks(2);
    const auto moves = [&](const std::function<void()>& run) {
        const Snapshot before = look();
        run();
        const Snapshot after = look();
        EXPECT_EQ(after.generation, OperationRecord::getGeneration());
        return std::vector<std::uint64_t>{after.generation - before.generation,
                                          after.operations - before.operations,
                                          after.collectives - before.collectives, after.looks - before.looks};
    };
    using Moves = std::vector<std::uint64_t>;
    EXPECT_EQ(moves([] {}), (Moves{0, 0, 0, 0}));
    EXPECT_EQ(moves([&] { comm.send(value, 2); }), (Moves{2, 1, 0, 0}));
    EXPECT_EQ(moves([&] { comm.allReduce(value, Communicator::MIN); }), (Moves{2, 1, 1, 0}));
    EXPECT_EQ(moves([&] { comm.iRecv(value, 2, requests); }), (Moves{2, 1, 0, 0}));
    EXPECT_EQ(moves([&] { EXPECT_FALSE(comm.test(requests) || comm.test(requests)); }), (Moves{0, 0, 0, 2}));
    EXPECT_EQ(moves([&] { EXPECT_TRUE(comm.test(requests)); }), (Moves{2, 1, 0, 0}));
    EXPECT_EQ(moves([&] { EXPECT_FALSE(comm.iProbe<int>(from = 2, tag = 1, count)); }), (Moves{0, 0, 0, 1}));
    EXPECT_EQ(moves([&] { comm.noSpinSynchronise(1.0); }), (Moves{2, 1, 1, 0}))
        << "one, whatever it is made of";
}

TEST_F(Records, TellTheCommandAtWorkAndCountFromItsBegin) {
    Communicator comm;
    EXPECT_EQ(look().command, "");
    comm.send(value, 2);
    const std::uint64_t before = OperationRecord::getGeneration();
    OperationRecord::beginCommand("Solve");
    EXPECT_NE(OperationRecord::getGeneration(), before);
    comm.allReduce(value, Communicator::MIN);
    comm.send(value, 2);
    OperationRecord::beginCommand("Inner");
    comm.synchronise();
    Snapshot seen = look();
    EXPECT_EQ(seen.command, "Inner");
    EXPECT_EQ(seen.operations, 1u);
    OperationRecord::setFailure("it diverged");
    EXPECT_EQ(look().failure, "it diverged");
    OperationRecord::endCommand();
    seen = look();
    EXPECT_EQ(seen.command, "Solve");
    EXPECT_EQ(seen.failure, "");
    EXPECT_EQ(seen.operations, 3u);
    EXPECT_EQ(seen.collectives, 2u);
    EXPECT_GT(seen.commandSeconds, 0.0);
    OperationRecord::endCommand();
    OperationRecord::endCommand(); // of none
    EXPECT_EQ(look().command, "");
}

TEST_F(Records, NeverMixTwoOperations) {
    Communicator comm;
    std::atomic<bool> goOn{true};
    std::atomic<int> looks{0};
    std::thread reader([&] {
        while (goOn.load()) {
            const Snapshot seen = OperationRecord::read();
            ++looks;
            if (!seen.isInside)
                continue;
            const bool isSend = textOf(seen) == "send, global, 3 ranks, 8 bytes, partner 2";
            const bool isBroadcast = textOf(seen) == "broadcast, global, 3 ranks, 24 bytes, partner 0";
            if (!isSend && !isBroadcast)
                ADD_FAILURE() << textOf(seen);
        }
    });
    for (int i = 0; i < 20000 || looks.load() < 100; ++i) {
        comm.send(value, 2);
        comm.broadcast(three.data(), 3, 0);
        mpi.clearCalls();
    }
    goOn = false;
    reader.join();
}

TEST(CollectiveWords, AreTextsAndCanBeTakenBack) {
    using History = CollectiveHistory;
    const std::pair<std::uint64_t, std::string> rows[] = {
        {History::wordOf(Collective::SYNCHRONISE, 0), "synchronise"},
        {History::wordOf(Collective::BROADCAST, 8, 0), "broadcast(root 0, 8 bytes)"},
        {History::wordOf(Collective::GATHER_VECTOR, 0, 100'000), "gatherVector(root 100000)"},
        {History::wordOf(Collective::ALL_REDUCE, 4, -1, OXM_MPI_MAXLOC, OXM_MPI_FLOAT_INT),
         "allReduce(4 bytes, max location, of float with location)"},
        {History::wordOf(Collective::SCAN, 16, -1, History::CUSTOM_REDUCTION), "scan(16 bytes, a function)"},
        {History::wordOf(Collective::REDUCE, 4, 6, OXM_MPI_SUM, OXM_MPI_INT),
         "reduce(root 6, 4 bytes, sum, of int)"},
        {History::wordOf(Collective::WRITE_FILE, 0), "writeAtAll of a file"},
        {0, "nothing more"},
    };
    std::uint64_t hash = 12345;
    for (const auto& [word, text] : rows) {
        EXPECT_EQ(History::describe(word), text);
        EXPECT_EQ(History::takeBack(History::extend(hash, word), word), hash);
        hash = History::extend(hash, word);
    }
    EXPECT_NE(History::extend(History::extend(0, rows[0].first), rows[1].first),
              History::extend(History::extend(0, rows[1].first), rows[0].first));
}
