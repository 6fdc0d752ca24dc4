#include "machine/RequestStack.h"
#include "machine/MachineLocks.h"
#include "machine/PersistentRequestStack.h"

#include "support/ScriptedMpi.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using Stack = MpiCore::RequestStack;
using PersistentStack = MpiCore::PersistentRequestStack;
using Texts = std::vector<std::string>;
using Sources = std::vector<unsigned>;
constexpr unsigned NONE = 0xFFFFFFFF;

class Requests : public testing::Test {
protected:
    Requests() { mpi.setWorld(0, 9); }

    /// Receives from ranks 1, 2, ... without messages for them.
    template <class Requests>
    void fill(Requests& stack, int count) {
        constexpr bool isPersistent = std::is_same_v<Requests, PersistentStack>;
        const auto begin = isPersistent ? &OXM_MPI_Recv_init : &OXM_MPI_Irecv;
        for (int source = 1; source <= count; ++source)
            ASSERT_EQ(begin(room, 1, OXM_MPI_INT, source, 0, 1, stack.push_back()), OXM_MPI_SUCCESS);
        mpi.clearCalls();
    }
    bool nothingLives() { return mpi.liveHandles().empty(); }
    /// Runs what raises, and gives its message.
    std::string quietMessageOf(const std::function<void()>& operation) {
        testing::internal::CaptureStderr();
        const std::string message = messageOf<NonRecoverableError>(operation);
        testing::internal::GetCapturedStderr();
        return message;
    }

    /// None of the stack's own calls passes the gate that this lock shuts.
    const Machine::SerialCritical locked;
    int room[1] = {};
    ScriptedMpi& mpi = ScriptedMpi::start();
};

TEST_F(Requests, AreNotTouchedWithoutAny) {
    Stack stack;
    PersistentStack persistent;
    Sources sources{4, 5};
    unsigned source = 3;
    mpi.clearCalls();
    stack.wait();
    stack.wait(sources);
    EXPECT_EQ(sources, (Sources{4, 5}));
    stack.waitAny(source);
    EXPECT_EQ(source, NONE);
    EXPECT_TRUE(stack.test());
    EXPECT_TRUE(stack.testAny(source = 3));
    EXPECT_EQ(source, NONE);
    stack.cancel();
    stack.cancelNoWait();
    stack.free();
    persistent.start();
    EXPECT_EQ(stack.pop(), 0);
    EXPECT_TRUE(mpi.calls().empty());
}

TEST_F(Requests, StayUntilATestFindsThemComplete) {
    Stack stack;
    mpi.setLooks(2);
    fill(stack, 2);
    EXPECT_FALSE(stack.test());
    EXPECT_FALSE(stack.test());
    EXPECT_EQ(stack.size(), 2u);
    EXPECT_TRUE(stack.test());
    EXPECT_EQ(mpi.names(), (Texts{"Testall", "Testall", "Testall"}));
    EXPECT_TRUE(stack.empty() && nothingLives());

    unsigned source = 0;
    fill(stack, 2);
    EXPECT_FALSE(stack.testAny(source));
    EXPECT_EQ(source, NONE);
    EXPECT_EQ(stack.size(), 2u);
    stack.wait();
}

TEST_F(Requests, MoveDownWhenOneCompletes) {
    Stack stack;
    fill(stack, 3);
    unsigned source = 0;
    mpi.setIndex(1);
    stack.waitAny(source);
    EXPECT_EQ(source, 2u);
    mpi.setIndex(1);
    EXPECT_TRUE(stack.testAny(source));
    EXPECT_EQ(source, 3u);
    Sources sources;
    stack.wait(sources);
    EXPECT_EQ(sources, Sources{1});
    for (const bool waits : {true, false}) {
        fill(stack, 1);
        mpi.setIndex(OXM_MPI_UNDEFINED);
        expectAssertion([&] { waits ? stack.waitAny(source) : void(stack.testAny(source)); },
                        waits ? "RequestStack::waitAny returned undefined!"
                              : "RequestStack::testAny returned undefined!",
                        "false", "RequestStack.cpp");
        EXPECT_EQ(stack.size(), 1u);
        stack.wait();
    }
}

TEST_F(Requests, AreCancelledAndFreed) {
    Stack stack;
    const std::pair<std::function<void()>, Texts> rows[] = {
        {[&] {
             stack.cancelNoWait();
             EXPECT_EQ(stack.size(), 2u);
             stack.wait();
         },
         {"Cancel", "Cancel", "Waitall"}},
        {[&] { stack.cancel(); }, {"Cancel", "Cancel", "Waitall"}},
        {[&] { stack.free(); }, {"Request_free", "Request_free"}},
    };
    for (const auto& [run, calls] : rows) {
        fill(stack, 2);
        run();
        EXPECT_EQ(mpi.names(), calls);
        EXPECT_TRUE(stack.empty() && nothingLives());
    }
    stack.push_back();
    *stack.push_back() = 17;
    EXPECT_EQ(stack.pop(), 17);
    EXPECT_EQ(stack.pop(), 0);
    EXPECT_TRUE(stack.empty());
}

TEST_F(Requests, BelongToOneStack) {
    int request = 0;
    ASSERT_EQ(OXM_MPI_Irecv(room, 1, OXM_MPI_INT, 1, 0, 1, &request), OXM_MPI_SUCCESS);
    Stack full(request);
    EXPECT_EQ(request, 0);
    EXPECT_EQ(full.size(), 1u);
    Stack empty;
    Stack copy(empty);
    copy = empty;
    EXPECT_TRUE(copy.empty());
    PersistentStack persistent;
    fill(persistent, 1);
    const std::function<void()> copies[] = {[&] { Stack{full}; }, [&] { empty = full; },
                                            [&] { full = empty; }, [&] { PersistentStack{persistent}; }};
    for (const auto& run : copies)
        expectAssertion(run, "Cannot copy or assign non-empty request stacks",
                        "this->_requests.empty() && rhs._requests.empty()", "RequestStack.cpp");
    full.wait();
    PersistentStack other;
    EXPECT_EQ(&(other = persistent), &other);
    EXPECT_TRUE(other.empty());
    EXPECT_EQ(persistent.size(), 1u);
    persistent.free();
}

TEST_F(Requests, AreLetGoWithAWarningByADyingStack) {
    for (const bool isPersistent : {false, true}) {
        SCOPED_TRACE(isPersistent);
        auto stack = isPersistent ? std::make_unique<PersistentStack>() : std::make_unique<Stack>();
        fill(*stack, 2);
        mpi.fail("Request_free", 1, OXM_MPI_ERR_OTHER);
        testing::internal::CaptureStdout();
        stack.reset();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Warning : Request stack is non-empty!\n");
        EXPECT_EQ(mpi.names(), (Texts{"Request_free", "Request_free"}));
        mpi.reset();
        mpi.setWorld(0, 9);
    }
    // Receives that were started are taken back first, except one that is through already.
    auto stack = std::make_unique<PersistentStack>();
    fill(*stack, 2);
    stack->start();
    mpi.fail("Cancel", 1, OXM_MPI_ERR_OTHER);
    mpi.setLooks(1);
    mpi.clearCalls();
    testing::internal::CaptureStdout();
    stack.reset();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mpi.names(), (Texts{"Cancel", "Cancel", "Test", "Request_free", "Request_free"}));
}

TEST_F(Requests, ThatArePersistentServeOneStart) {
    for (const int count : {1, 3}) {
        const std::string all = count > 1 ? "all" : "";
        PersistentStack stack;
        fill(stack, count);
        stack.start();
        stack.wait();
        Texts expected{"Start" + all, "Wait" + all};
        expected.insert(expected.end(), std::size_t(count), "Request_free");
        EXPECT_EQ(mpi.names(), expected);
        EXPECT_TRUE(stack.empty() && nothingLives());
    }
    PersistentStack stack;
    fill(stack, 2);
    stack.start();
    unsigned source = 0;
    mpi.setIndex(1);
    stack.waitAny(source);
    EXPECT_EQ(source, 2u);
    EXPECT_EQ(mpi.names(), (Texts{"Startall", "Waitany", "Request_free"}));
    EXPECT_TRUE(stack.test());
    EXPECT_TRUE(stack.empty() && nothingLives());
}

TEST_F(Requests, StayInAStackThatFails) {
    mpi.setErrorText(5, "five");
    mpi.setErrorText(6, "six");
    struct Row {
        const char* call;
        int nth;
        int count;
        std::function<void(Stack&)> run;
        std::string message; ///< of a plain code
    };
    unsigned source = 0;
    const Row rows[] = {
        {"Wait", 1, 1, [](Stack& stack) { stack.wait(); }, "MPI Errors[5] : five"},
        {"Waitall", 1, 2, [](Stack& stack) { stack.wait(); }, "MPI Errors[5] : five"},
        {"Test", 1, 1, [](Stack& stack) { stack.test(); }, "MPI Errors[5] : five"},
        {"Testall", 1, 2, [](Stack& stack) { stack.test(); }, "MPI Errors[5] : five"},
        {"Waitany", 1, 2, [&](Stack& stack) { stack.waitAny(source); }, "MPI Errors[5] : five"},
        {"Testany", 1, 2, [&](Stack& stack) { stack.testAny(source); }, "MPI Error : five"},
        {"Cancel", 2, 2, [](Stack& stack) { stack.cancel(); }, "MPI Error : five"},
        {"Request_free", 2, 2, [](Stack& stack) { stack.free(); }, "MPI Error : five"},
    };
    for (const Row& row : rows) {
        Stack stack;
        fill(stack, row.count);
        mpi.fail(row.call, row.nth, 5);
        EXPECT_EQ(quietMessageOf([&] { row.run(stack); }), row.message) << row.call;
        EXPECT_EQ(stack.size(), std::size_t(row.count)) << row.call;
        row.run(stack);
        stack.wait();
        EXPECT_TRUE(nothingLives()) << row.call;
    }

    // After an error in the statuses some slots are null, and each of these still empties the stack.
    const std::function<void(Stack&)> ends[] = {rows[0].run, rows[2].run, rows[6].run, rows[7].run};
    Stack stack;
    for (const auto& end : ends)
        for (const bool waits : {true, false}) {
            fill(stack, 2);
            mpi.fail(waits ? "Waitall" : "Testall", 1, OXM_MPI_ERR_IN_STATUS);
            mpi.setStatuses({{1, 0, 0, {}}, {2, 0, 6, {}}});
            EXPECT_EQ(quietMessageOf([&] { waits ? stack.wait() : void(stack.test()); }),
                      "MPI Errors[17] : Status index[1] : six\n");
            EXPECT_EQ(stack.size(), 2u);
            end(stack);
            EXPECT_TRUE(stack.empty() && nothingLives());
        }

    // A driver that leaves a request alive behind a completion.
    fill(stack, 1);
    mpi.setAction("Wait", [](const ScriptedCall&) { return OXM_MPI_SUCCESS; });
    expectAssertion([&] { stack.wait(); }, "Clearing non-null Request!",
                    "_requests[i] == OXM_MPI_REQUEST_NULL", "RequestStack.cpp");
    mpi.setAction("Wait", {});
    stack.wait();
}

} // namespace
