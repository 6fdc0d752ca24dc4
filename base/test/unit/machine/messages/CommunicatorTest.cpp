#include "machine/Communicator.h"
#include "machine/ExitStatus.h"
#include "machine/FieldLoopState.h"
#include "machine/MachineLocks.h"
#include "machine/messages/CommunicatorStatistics.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/MessagingGate.h"
#include "kernel/OrvexVersion.h"

#include "unit/machine/Failures.h"
#include "unit/machine/messages/CommunicatorOperations.h"
#include "unit/machine/messages/CommunicatorTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <thread>

namespace {

/// The message and the condition of a refusal.
using Told = std::pair<const char*, const char*>;
using Texts = std::vector<std::string>;
using Handles = std::map<std::string, int>;

class CommunicatorOfThree : public testing::Test {
protected:
    CommunicatorOfThree() { mpi.setWorld(1, 3); }
    ~CommunicatorOfThree() override {
        EXPECT_TRUE(MessagingGate::isOpen());
        MpiCore::finalize(); // takes the lasting datatypes along
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
};

// Construction and identity

TEST_F(CommunicatorOfThree, KnowsItself) {
    mpi.setProcessorName("node7");
    {
        const Communicator comm;
        EXPECT_EQ(comm.myName(), "node7");
        EXPECT_EQ(comm.nativeHandle().forLibrary("Scripted MPI"), 1001);
        EXPECT_EQ(messageOf<InputError>([&] { comm.nativeHandle().forLibrary("MPICH"); }),
                  "The module is built with MPICH, but the job runs with Scripted MPI");
        mpi.clearCalls();
    }
    EXPECT_EQ(mpi.names(), Texts{"Group_free"}) << "the world itself is not freed";
    EXPECT_EQ(mpi.liveHandles(), Handles());
}

TEST_F(CommunicatorOfThree, RefusesABadIdentity) {
    struct Row {
        const char* call;
        const char* argument;
        int value;
        const char* message;
        const char* condition;
    };
    const Row rows[] = {
        {"Comm_size", "size", 0, "Zero or negative MPI comm size", "size > 0"},
        {"Comm_rank", "rank", -1, "Negative MPI rank", "rank >= 0"},
        {"Get_processor_name", "length", 2047, "Overflow on processor name",
         "namelen + 1 < OXM_MPI_MAX_PROCESSOR_NAME"},
    };
    for (const Row& row : rows) {
        mpi.setAction(row.call, [&](const ScriptedCall& call) {
            *static_cast<int*>(call.addresses.at(row.argument)) = row.value;
            return OXM_MPI_SUCCESS;
        });
        expectAssertion([] { Communicator(); }, row.message, row.condition, "Communicator.cpp");
        mpi.setAction(row.call, {});
        EXPECT_EQ(mpi.liveHandles(), Handles()) << row.call;
    }
}

TEST_F(CommunicatorOfThree, RefusesRanksThatItHasnt) {
    const Communicator comm;
    expectAssertion(
        [&] {
            comm.createCommunicator(std::vector{0u, 1u, 2u, 0u});
        },
        "Invalid number of ranks", "ranks.size() <= size", "Communicator.cpp");
    expectAssertion(
        [&] {
            comm.createCommunicator(std::vector{0u, 3u});
        },
        "Rank exceeds old communicator in createCommunicator()", "ranks[i] < size", "Communicator.cpp");
    Communicator().abort(ExitStatus::NON_RECOVERABLE_SERVER_ERROR);
    EXPECT_EQ(mpi.callsOf("Abort")[0].text(), "Abort(comm=1, code=32)");
}

TEST(CommunicatorTag, IsChecked) {
    using Tag = Communicator::Tag;
    for (const unsigned tag : {0u, 1u, 32766u, MpiCore::ANY_TAG})
        EXPECT_EQ(Tag(tag).value(), static_cast<int>(tag));
    for (const unsigned tag : {32767u, 32768u, MpiCore::ANY_TAG - 1, MpiCore::ANY_TAG + 1, 0xFFFFFFFFu})
        expectAssertion([&] { (void)Tag(tag); }, "out_of_bounds Communicator Tag",
                        "tag < upper_bound() || tag == MpiCore::ANY_TAG", "Communicator.cpp");
    EXPECT_EQ(Communicator::_defaultTag.value(), 32767);
}

// The gate

/// A command that isn't distributed to the ranks.
struct LocalCommand : NoResultCommand {
    explicit LocalCommand(std::function<void()> action) : body(std::move(action)) {}
    void execute(const Properties&) override { body(); }
    std::string getName() const override { return "LocalCommand"; }
    bool isThreaded(const Properties&) const override { return true; }

    std::function<void()> body;
};

TEST_F(CommunicatorOfThree, RefusesEachOperationAtItsGate) {
    testing::internal::CaptureStdout();
    Communicator comm;
    Communicator narrow; // the gate comes before the size of a message
    narrow.setMaxBufferSize(1);
    const auto expectRefusal = [&](const char* message, const char* condition, const char* file) {
        for (const CommunicatorOperation& operation : communicatorOperations())
            for (Communicator* each : {&comm, &narrow}) {
                SCOPED_TRACE(operation.name);
                mpi.clearCalls();
                if (operation.isUngated)
                    EXPECT_NO_THROW(operation.run(*each));
                else
                    expectAssertion([&] { operation.run(*each); }, message, condition, file);
                const bool mayCall = operation.isUngated || operation.name == "allReduce records";
                EXPECT_TRUE(mayCall || mpi.calls().empty()) << mpi.calls()[0].text();
            }
        expectAssertion([&] { comm.send(1, 1); }, "Cannot send to self", "dest!=_myRank",
                        "CommunicatorPointToPoint.cpp");
    };
    std::optional<Machine::SerialCritical> serial(std::in_place);
    std::optional<Machine::ParallelPerformanceCritical> performance(std::in_place);
    FieldLoopState::setBusy();
    auto* const command = new LocalCommand([&] {
        expectRefusal("Parallel is explicitly locked", "! _serialCriticalLock", "GroundLocks.cpp");
        serial.reset();
        // A release version goes on to the next check.
        if (OrvexVersion::isDevelopmentVersion())
            expectRefusal("Parallel locked out in performance critical section", "!_performanceCriticalLock",
                          "GroundLocks.cpp");
        else
            expectRefusal("Parallel has been explicitly locked whilst running a non-distributed command",
                          "!Controller::isSerialCritical()", "MessageGate.cpp");
        performance.reset();
        expectRefusal("Parallel has been explicitly locked whilst running a non-distributed command",
                      "!Controller::isSerialCritical()", "MessageGate.cpp");
    });
    Controller::reset();
    Controller::getSingleton().setThreadedCommands(false);
    Controller::getSingleton().registerCommand(command);
    Properties request;
    command->addSelfTo(request);
    Controller::getSingleton().enqueue({request, "test", {}});
    Controller::getSingleton().processQueuedCommands();
    Controller::reset();
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(performance) << "the command has run";
    std::thread([&] {
        expectRefusal("Parallel is explicitly locked out of FieldLoops", "!FieldLoopState::busy()",
                      "MessageGate.cpp");
        FieldLoopState::setIdle();
        expectRefusal("Parallel messaging can only be called from the main thread", "Thread::isMain()",
                      "MessageGate.cpp");
    }).join();
    MessagingGate::set(MessagingGate::FIELD_LOOP,
                       false); // the other thread left the main thread's word alone
    for (const CommunicatorOperation& operation : communicatorOperations())
        EXPECT_NO_THROW(operation.run(comm)) << operation.name;
}

// Timer and statistics

TEST_F(CommunicatorOfThree, TimesEachOperationThatSucceeds) {
    Communicator comm;
    Communicator other;
    mpi.setClock(0.0, 1.0);
    for (const CommunicatorOperation& operation : communicatorOperations())
        operation.run(comm);
    EXPECT_EQ(mpi.clockReadings(), 0);
    other.enableCommunicationTimer(true);
    comm.enableCommunicationTimer(true);
    EXPECT_FALSE(MessagingGate::isOpen());
    other.enableCommunicationTimer(false);
    double expected = 0.0;
    for (const CommunicatorOperation& operation : communicatorOperations()) {
        operation.run(comm);
        for (const std::string& event : operation.events)
            expected += event.starts_with("FreeRequest") ? 0.0 : 1.0;
        EXPECT_EQ(comm.getCommunicationTime(), expected) << operation.name;
    }
    mpi.fail("Barrier", 1, OXM_MPI_ERR_OTHER);
    EXPECT_THROW(comm.synchronise(), NonRecoverableError);
    other.synchronise();
    EXPECT_EQ(comm.getCommunicationTime(), expected);
    EXPECT_EQ(other.getCommunicationTime(), 0.0);
}

class Recorder : public CommunicatorStatistics {
public:
    Recorder() { _before = install(this); }
    ~Recorder() override { install(_before); }
    void* open(Kind, const char* name, unsigned bytes) override {
        ++isOpen;
        _entry = std::string(name).substr(std::string("Communicator::").size()) + " " + std::to_string(bytes);
        return this;
    }
    void close(Kind kind, void* event, unsigned partner) noexcept override {
        EXPECT_EQ(event, this);
        --isOpen;
        events.push_back(_entry + (kind == POINT_TO_POINT ? " " + std::to_string(partner) : ""));
    }

    Texts events;
    int isOpen = 0;

private:
    CommunicatorStatistics* _before;
    std::string _entry;
};

TEST_F(CommunicatorOfThree, TellsStatisticsOfEachOperation) {
    Communicator comm;
    Recorder recorder;
    for (const CommunicatorOperation& operation : communicatorOperations()) {
        recorder.events.clear();
        operation.run(comm);
        EXPECT_EQ(recorder.events, operation.events) << operation.name;
        EXPECT_EQ(recorder.isOpen, 0);
    }
    recorder.events.clear();
    mpi.fail("Send", 1, OXM_MPI_ERR_OTHER);
    mpi.fail("Barrier", 1, OXM_MPI_ERR_OTHER);
    EXPECT_THROW(comm.send(1, 2), NonRecoverableError);
    EXPECT_THROW(comm.synchronise(), NonRecoverableError);
    EXPECT_EQ(recorder.events, (Texts{"Send 4 0", "Synchronise 0"})) << "an exception closes with partner 0";
    EXPECT_EQ(recorder.isOpen, 0);
}

// Failures

/// Each wrapper call of each operation fails in turn: the error comes out, nothing stays behind, and the next
/// use succeeds.
TEST_F(CommunicatorOfThree, OutlivesEachFailure) {
    Communicator comm;
    // What nobody frees a second time when its free fails.
    const std::map<std::string, std::string> lost{
        {"Type_free", "datatype"}, {"Op_free", "op"}, {"Comm_free", "comm"}, {"Group_free", "group"}};
    const auto failEachCallOf = [&](const CommunicatorOperation& operation) {
        const auto run = [&] { operation.run(comm); };
        const auto forgetTypes = [] { MpiCore::getOnFinalizationObservable().notify(); };
        mpi.clearCalls();
        run();
        const int calls = int(mpi.calls().size());
        forgetTypes();
        for (int nth = 1; nth <= calls; ++nth) {
            Handles expected = mpi.liveHandles();
            mpi.clearCalls();
            mpi.failAny(nth, OXM_MPI_ERR_OTHER);
            testing::internal::CaptureStderr();
            const std::string message = messageOf<NonRecoverableError>(run);
            testing::internal::GetCapturedStderr();
            ASSERT_GE(int(mpi.calls().size()), nth);
            const ScriptedCall failed = mpi.calls()[std::size_t(nth) - 1];
            // The reduction tells of a type that couldn't be made, and a destructor tells nobody.
            const bool isLast = nth == calls && (failed.name == "Type_free" || failed.name == "Group_free");
            const bool isSilent = isLast || failed.name == "Comm_group" || failed.name == "Comm_free";
            EXPECT_EQ(message.empty(), isSilent) << failed.text();
            forgetTypes();
            if (lost.contains(failed.name) && (isSilent || failed.name != "Group_free"))
                ++expected[lost.at(failed.name)];
            EXPECT_EQ(mpi.liveHandles(), expected) << failed.text();
            EXPECT_NO_THROW(run()) << "after the failure of " << failed.text();
            forgetTypes();
        }
    };
    for (const std::size_t limit : {comm.getMaxBufferSize(), std::size_t(8)}) { // whole and cut
        testing::internal::CaptureStdout();
        comm.setMaxBufferSize(limit);
        for (const CommunicatorOperation& operation : communicatorOperations()) {
            SCOPED_TRACE(testing::Message() << operation.name << " with a limit of " << limit);
            failEachCallOf(operation);
        }
        testing::internal::GetCapturedStdout();
    }
}

// Arguments that don't fit together

TEST_F(CommunicatorOfThree, RefusesItselfAsPartner) {
    Communicator comm;
    double value = 0.0;
    int number = 0;
    Communicator::RequestStack requests;
    Communicator::PersistentRequestStack prepared;
    const Told toSelf{"Cannot send to self", "dest!=_myRank"};
    const Told fromSelf{"Cannot recv from self", "source!=_myRank"};
    const Told either{"Cannot sendrecv to/from self", "dest!=_myRank && source!=_myRank"};
    const std::pair<std::function<void()>, Told> rows[] = {
        {[&] { comm.send(value, 1); }, toSelf},
        {[&] { comm.syncSend(value, 1); }, toSelf},
        {[&] { comm.iSend(value, 1, requests); }, toSelf},
        {[&] { comm.iSyncSend(value, 1, requests); }, toSelf},
        {[&] { comm.recv(value, 1); }, fromSelf},
        {[&] { comm.iRecv(value, 1, requests); }, fromSelf},
        {[&] { comm.recvInit(value, 1, prepared); }, fromSelf},
        {[&] { comm.sendrecv(value, 1, value, 2); }, either},
        {[&] { comm.sendrecv(value, 0, value, 1); }, either},
        {[&] { comm.sendrecv(value, 0, number, 2); },
         {"Communicator::sendrecv", "sendbuf.type == recvbuf.type"}},
    };
    mpi.clearCalls();
    for (const auto& [run, error] : rows)
        expectAssertion(run, error.first, error.second, "CommunicatorPointToPoint.cpp");
    EXPECT_TRUE(requests.empty() && prepared.empty() && mpi.calls().empty());
}

TEST_F(CommunicatorOfThree, RefusesBlocksThatArentThoseOfAllRanks) {
    Communicator comm;
    const std::vector<double> three(3);
    const std::vector<double> four(4);
    std::vector<double> got(2);
    std::vector<unsigned> counts;
    const auto scatterVector = [&](const std::vector<unsigned>& lengths) {
        return [&, lengths] { comm.scatterVector(three, lengths, got, 1); };
    };
    const auto allToAllVector = [&](const std::vector<unsigned>& lengths) {
        return [&, lengths] { comm.allToAllVector(three, lengths, got, counts); };
    };
    const Told equal{"Communicator::scatter : mismatched counts", "send.size() == size()*recv.size()"};
    const Told blocks{"Communicator : mismatched block counts",
                      "counts.size() == size() && send.size() == total"};
    const std::pair<std::function<void()>, Told> rows[] = {
        {[&] { comm.scatter(four, got[0], 1); }, equal},
        {[&] { comm.scatter(three, got, 1); }, equal},
        {scatterVector({}), blocks},
        {scatterVector({1, 2}), blocks},
        {scatterVector({1, 1, 1, 0}), blocks},
        {scatterVector({1, 1, 2}), blocks},
        {allToAllVector({}), blocks},
        {allToAllVector({1, 2}), blocks},
        {allToAllVector({3, 1, 0}), blocks},
        {[&] { comm.allToAll(four, got); },
         {"Communicator::allToAll : mismatched counts", "send.size() % size() == 0"}},
    };
    expectAssertion([&] { comm.reduceScatter(four, got, Communicator::SUM); },
                    "Communicator::reduceScatter : mismatched counts",
                    "sendbuf.size == SizeType(size())*recvbuf.size", "CommunicatorReductions.cpp");
    mpi.clearCalls();
    for (const auto& [run, error] : rows)
        expectAssertion(run, error.first, error.second, "CommunicatorCounts.cpp");
    EXPECT_TRUE(mpi.calls().empty());
    EXPECT_EQ(got.size(), 2u);
    // A rank other than the root hands out nothing.
    EXPECT_NO_THROW(comm.scatter(four, got, 0));
    EXPECT_NO_THROW(comm.scatterVector(three, {1}, got, 0));
}

/// A container as large as none in memory can be.
struct Endless {
    std::size_t size() const { return 4294967296u; }
    char* data() { return nullptr; }
    void resize(std::size_t) {}
};

TEST_F(CommunicatorOfThree, RefusesCountsThatTheWrapperCantTake) {
    const auto messageFor = [](unsigned long long value, unsigned long long bound) {
        return "Invalid integer cast.\nAn oversized message size or displacement has been detected.\n"
               "Oversized messages may imply too few parallel processes are being used.\nActual value = " +
               std::to_string(value) + "\nMax value = " + std::to_string(bound) + "\n";
    };
    Communicator comm;
    mpi.clearCalls();
    const double* const nothing = nullptr;
    const std::array<double, 2>* const pairs = nullptr;
    expectAssertion([&] { comm.send(nothing, 2147483648u, 2); }, messageFor(2147483648, 2147483647), "false",
                    "MessageBuffers.cpp");
    EXPECT_THROW(comm.send(pairs, 1073741824u, 2), InternalError);
    expectAssertion([&] { comm.broadcast(static_cast<char*>(nullptr), 4294967296ull, 0); },
                    messageFor(4294967296ull, 4294967295ull), "false", "MessageBuffers.cpp");
    // All ranks know the total, and refuse it alike.
    double* const nowhere = nullptr;
    for (const unsigned root : {1u, 2u}) {
        EXPECT_THROW(comm.gather(nothing, 1431655766, nowhere, root), InternalError);
        EXPECT_THROW(comm.scatter(nothing, nowhere, 1431655766, root), InternalError);
    }
    const char* const oversized = "An oversized communication message has been detected.";
    const char* const sentCount = "s.size <= std::numeric_limits<mssg_count_t>::max()";
    const char* const receivedCount = "r.size <= std::numeric_limits<mssg_count_t>::max()";
    const std::string_view endlessText(nullptr, 4294967296u);
    Endless endless;
    std::string text;
    unsigned source = 0;
    const std::pair<const char*, std::function<void()>> containers[] = {
        {sentCount, [&] { comm.send(endlessText, 2); }},
        {sentCount, [&] { comm.sendrecv(endlessText, 2, text, 0); }},
        {receivedCount, [&] { comm.recv(endless, 2); }},
        {receivedCount, [&] { comm.recvFromAny(endless, source); }},
    };
    for (const auto& [condition, run] : containers)
        expectAssertion(run, oversized, condition, "CommunicatorCounts.cpp");
    // One that has a count, but is too long for one message, sends no count ahead of its refusal.
    const std::string_view longText(nullptr, 2147483648u);
    EXPECT_THROW(comm.send(longText, 2), InternalError);
    EXPECT_THROW(comm.sendrecv(longText, 2, text, 0), InternalError);
    mpi.setAction("Alltoall", [](const ScriptedCall& call) {
        std::fill_n(static_cast<unsigned*>(call.addresses.at("recvBuffer")), 3, 1431655765u);
        return OXM_MPI_SUCCESS;
    });
    std::vector<unsigned> received;
    expectAssertion(
        [&] {
            comm.allToAllVector(text, {0, 0, 0}, text, received);
        },
        messageFor(4294967295ull, 2147483647), "false", "MessageBuffers.cpp");
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(mpi.names(), Texts{"Alltoall"}) << "all else was refused before its first call";
    mpi.setWorld(0, 3);
    Communicator master;
    expectAssertion([&] { CommunicatorTestAccess::gatherCounts(master, 4294967296ull); },
                    "Overflow in recv counts container",
                    "s.size <= std::numeric_limits<typename PrimitiveArray::Array<C>::t>::max()",
                    "CommunicatorCounts.cpp");
    mpi.setAction("Gather", [](const ScriptedCall& call) {
        std::fill_n(static_cast<unsigned*>(call.addresses.at("recvBuffer")), 3, 1431655766u);
        return OXM_MPI_SUCCESS;
    });
    expectAssertion([&] { CommunicatorTestAccess::gatherCounts(master, 1); },
                    std::string(oversized) + "\nMessage count = 4294967298\nMax count = 4294967295.\n" +
                        Communicator::_oversizedMessageHint + "\n",
                    "false", "CommunicatorCounts.cpp");
}

// The tests that it brings itself

TEST_F(CommunicatorOfThree, TellsAFaultThatItsOwnTestFinds) {
    const auto test = [&](int rank) {
        mpi.reset();
        mpi.setWorld(rank, 3);
        mpi.setProcessorName("here");
        Communicator comm;
        const unsigned values[] = {1001, 1003};
        mpi.deliver(1, 0, &values[0], sizeof values[0]);
        mpi.deliver(2, 0, &values[1], sizeof values[1]);
        testing::internal::CaptureStdout();
        const std::string message = messageOf<InternalError>([&] { comm.testCommunicator(); });
        return testing::internal::GetCapturedStdout() + message;
    };
    const std::string begin = "\nTesting communicator here\n";
    EXPECT_EQ(test(0), begin + "Comm here: received 1001 from 1\nComm here: received 1003 from 2\n"
                               "Communicator failed recv check");
    EXPECT_EQ(test(2), begin + "Communicator failed broadcast check");
}

TEST_F(CommunicatorOfThree, MeasuresKibibytesASecond) {
    Communicator comm;
    mpi.setClock(0.0, 0.5);
    std::vector<double> sent;
    mpi.setAction("Gather", [&](const ScriptedCall& call) {
        const auto* const speeds = static_cast<const double*>(call.addresses.at("sendBuffer"));
        sent.assign(speeds, speeds + call.get("sendCount"));
        return OXM_MPI_SUCCESS;
    });
    std::vector<double> results{7.0};
    mpi.clearCalls();
    comm.performanceTest(results, 1025, 2);
    EXPECT_EQ(sent, (std::vector<double>{4.0, 0.0, 4.0})); // 2050 bytes are 2 KiB, in half a second
    EXPECT_EQ(results, std::vector<double>{7.0});
    Texts partners;
    for (const ScriptedCall& call : mpi.calls())
        if (call.takes("dest") || call.takes("source"))
            partners.push_back(call.name + std::to_string(call.get(call.takes("dest") ? "dest" : "source")));
    EXPECT_EQ(partners, (Texts{"Recv0", "Recv0", "Recv0", "Ssend0", "Ssend0", "Ssend0", "Ssend2", "Ssend2",
                               "Ssend2", "Recv2", "Recv2", "Recv2"}));
    const Machine::SerialCritical lock;
    EXPECT_THROW(comm.performanceTest(results, 8, 1), InternalError) << "the gather is gated";
}

TEST(CommunicatorSleep, IsShortInLargeJobs) {
    EXPECT_EQ(CommunicatorTestAccess::getSleep(512), 10u);
    EXPECT_EQ(CommunicatorTestAccess::getSleep(513), 1u);
}

} // namespace
