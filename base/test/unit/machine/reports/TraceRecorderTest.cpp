#include "machine/reports/TraceRecorder.h"

#include "machine/Communicator.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Error.h"
#include "kernel/EventLoggerManager.h"
#include "support/ScriptedMpi.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using TraceLayout::Record;

constexpr std::size_t MANY = 1000;

class Trace : public testing::Test {
protected:
    Trace() { mpi.setWorld(1, 3); }
    ~Trace() override {
        recorder.release(number);
        EventTracker::reset();
        MpiCore::finalize();
    }

    /// As the channel does it, beside the main thread.
    void begin(double seconds = 1000.0, std::size_t room = MANY) {
        std::thread([&] { recorder.begin(++number, seconds, room); }).join();
    }
    /// The records in the order of the ends: as in "send 8 bytes to 2", with "<" for a begin and ">"
    /// for an end that was cut, and the depth as spaces.
    std::vector<std::string> end() {
        std::thread([&] { summary = recorder.end(number); }).join();
        const std::vector<std::string> names = recorder.fetchNames(number, 0, MANY);
        const std::string bytes = recorder.fetchRecords(number, 0, MANY);
        records.resize(bytes.size() / sizeof(Record));
        std::memcpy(records.data(), bytes.data(), bytes.size());
        std::vector<std::string> texts;
        for (const Record& record : records)
            texts.push_back(((record.flags & TraceLayout::CUT_BEGIN) != 0 ? "<" : "") +
                            names.at(record.name) +
                            (record.partner >= 0 ? " " + std::to_string(record.partner) : "") +
                            (record.bytes != 0 ? " " + std::to_string(record.bytes) : "") +
                            (record.communicator != 0 ? " " + names.at(record.communicator) : "") +
                            ((record.flags & TraceLayout::CUT_END) != 0 ? ">" : ""));
        return texts;
    }
    /// Runs `act` on the main thread while it stands in the wrapper call `name`.
    void during(const std::string& name, const std::function<void()>& act, const std::function<void()>& run) {
        mpi.setAction(name, [&act](const ScriptedCall&) {
            act();
            return OXM_MPI_SUCCESS;
        });
        run();
        mpi.setAction(name, {});
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
    TraceRecorder& recorder = TraceRecorder::getSingleton();
    TraceRecorder::Summary summary;
    std::vector<Record> records;
    std::uint64_t number = 100;
    double value = 0.0;
};

using Texts = std::vector<std::string>;

} // namespace

TEST_F(Trace, TakesDownOperationsEventsAndCommandsThatNest) {
    Communicator comm;
    Communicator::RequestStack requests;
    unsigned from = 0;
    mpi.setLooks(1);
    comm.send(value, 2);
    begin();
    OperationRecord::beginCommand("Solve");
    {
        const std::string innerName = "inner";
        const EventTracker::Track outer("Class", "outer");
        const EventTracker::Track inner("Class", innerName);
        comm.send(value, 2);
        comm.allReduce(value, Communicator::SUM);
    }
    comm.recvFromAny(value, from);
    comm.iRecv(value, 2, requests);
    EXPECT_FALSE(comm.test(requests));
    EXPECT_TRUE(comm.test(requests));
    OperationRecord::endCommand();
    EXPECT_EQ(end(), (Texts{"Send 2 8 global, 3 ranks", "AllReduce 8 global, 3 ranks", "Class::inner",
                            "Class::outer", "Recv " + std::to_string(from) + " 8 global, 3 ranks",
                            "iRecv 2 8 global, 3 ranks", "Test global, 3 ranks", "Solve"}));
    EXPECT_EQ(records[1].kind, TraceLayout::COLLECTIVE_MEETING);
    EXPECT_EQ(records[5].requests, records[6].requests);
    EXPECT_NE(records[5].requests, 0u);
    EXPECT_EQ(records[0].epoch, summary.epoch + 1);
    EXPECT_LE(records[3].begin, records[2].begin);
    EXPECT_LE(records[1].end, records[2].end);
    comm.send(value, 2);
    EXPECT_EQ(end().size(), 8u) << "nothing after the end";
}

TEST_F(Trace, CutsWhatIsOpenToItsSpan) {
    Communicator comm;
    OperationRecord::beginCommand("Solve");
    during(
        "Send", [&] { begin(); }, [&] { comm.send(value, 2); });
    const EventTracker::Track open("Class", "open");
    Texts texts;
    during(
        "Recv", [&] { texts = end(); }, [&] { comm.recv(value, 0); });
    OperationRecord::endCommand();
    EXPECT_EQ(texts,
              (Texts{"<send 2 8 global, 3 ranks", "Recv 0 8 global, 3 ranks>", "Class::open>", "<Solve>"}));
    for (const Record& record : records) {
        EXPECT_GE(record.begin, summary.begin);
        EXPECT_LE(record.end, summary.end);
    }
}

TEST_F(Trace, AnEventFromBeforeIsKnownWhileEventsAreCounted) {
    EventTracker::getSingleton().getEventLoggerManager().switchOn();
    {
        const EventTracker::Track before("Class", "before");
        begin();
        const EventTracker::Track after("Class", "after");
    }
    EXPECT_EQ(end(), (Texts{"Class::after", "<Class::before"}));
}

TEST_F(Trace, AnOperationThatFailsEndsAsWell) {
    Communicator comm;
    begin();
    mpi.setAction("Bcast", [](const ScriptedCall&) { return OXM_MPI_ERR_OTHER; });
    EXPECT_THROW(comm.broadcast(value, 1), NonRecoverableError);
    mpi.setAction("Bcast", {});
    comm.synchronise();
    EXPECT_EQ(end(), (Texts{"Broadcast 1 8 global, 3 ranks", "Synchronise global, 3 ranks"}));
}

TEST_F(Trace, CountsWhatHasNoRoomAndEndsByItself) {
    Communicator comm;
    begin(1000.0, 2);
    for (int i = 0; i < 5; ++i)
        comm.send(value, 2);
    EXPECT_EQ(end().size(), 2u);
    EXPECT_EQ(summary.dropped, 3u);
    begin(1e-9);
    comm.send(value, 2);
    EXPECT_FALSE(OperationTrace::isOn());
    EXPECT_EQ(end(), Texts());
    EXPECT_THROW(recorder.end(number - 1), InputError);
    recorder.release(number);
    EXPECT_THROW(recorder.end(number), InputError);
}
