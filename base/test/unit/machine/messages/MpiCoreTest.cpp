#include "machine/MpiCore.h"
#include "machine/messages/MpiWallTimer.h"

#include "kernel/Error.h"
#include "support/ScriptedMpi.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

namespace {

using Statuses = std::vector<OXM_MPI_Status_struct>;

OXM_MPI_Status_struct statusOf(int error) {
    OXM_MPI_Status_struct status{};
    status.error = error;
    return status;
}

TEST(MpiCore, TurnsErrorsIntoExceptions) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setErrorText(5, "bad communicator");
    mpi.setErrorText(6, "bad rank");
    const Statuses four{statusOf(0), statusOf(5), statusOf(0), statusOf(6)};
    struct Row {
        std::function<void()> handle;
        std::string message;
        bool isPrinted = true;
    };
    const Row rows[] = {
        {[&] { MpiCore::handleError(0); }, "", false},
        {[&] { MpiCore::handleError(0, four); }, "", false},
        {[&] { MpiCore::handleError(5); }, "MPI Error : bad communicator", false},
        {[&] { MpiCore::handleError(6, four[1]); }, "MPI Errors[6] : bad rank"},
        {[&] { MpiCore::handleError(17, four[1]); }, "MPI Errors[17] : Status index[0] : bad communicator\n"},
        {[&] { MpiCore::handleError(17, four); },
         "MPI Errors[17] : Status index[1] : bad communicator\nStatus index[3] : bad rank\n"},
        {[&] { MpiCore::handleError(17, Statuses(2, statusOf(0))); }, "MPI Errors[17] : "},
    };
    for (const Row& row : rows) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(messageOf<NonRecoverableError>(row.handle), row.message) << row.message;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  row.isPrinted ? "MPI Error : " + row.message + "\n" : "")
            << row.message;
    }
    // A driver may tell any length: no more is read than it can have written.
    for (const auto& [told, read] : {std::pair(-1, 0), std::pair(3, 3), std::pair(99999, 2048)}) {
        mpi.setAction("Error_string", [told = told](const ScriptedCall& call) {
            *static_cast<int*>(call.addresses.at("length")) = told;
            return OXM_MPI_SUCCESS;
        });
        EXPECT_EQ(messageOf<NonRecoverableError>([] { MpiCore::handleError(5); }).size(),
                  std::string("MPI Error : ").size() + std::size_t(read));
    }
}

TEST(MpiCore, AsksTheDriver) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    for (const bool works : {true, false, true}) {
        mpi.setSharedMemorySupport(works);
        EXPECT_EQ(MpiCore::hasMpiSharedMemory(), works);
    }
    mpi.fail("Supports_v3_shared_memory", 1, OXM_MPI_ERR_OTHER);
    expectAssertion([] { MpiCore::hasMpiSharedMemory(); }, "MPI_Supports_v3_shared_memory failed",
                    "OXM_MPI_Supports_v3_shared_memory(&shmSupported) == OXM_MPI_SUCCESS", "MpiCore.cpp");
    for (const int value : {0, 1, 2}) {
        mpi.setBindCollisionTestDisabled(value);
        EXPECT_EQ(MpiCore::disableCpuBindingCollisionTest(), value == 1) << value;
    }
}

class OnFinalization : public TypedObserver<> {
public:
    explicit OnFinalization(std::function<void()> action) : _action(std::move(action)) {
        MpiCore::getOnFinalizationObservable().attach(*this);
    }
    ~OnFinalization() override { MpiCore::getOnFinalizationObservable().detach(*this); }
    void update() override { _action(); }

private:
    std::function<void()> _action;
};

TEST(MpiCore, TellsItsObserversOfTheEnd) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    const auto callsWhile = [&](auto... actions) {
        ScriptedMpi::start();
        mpi.clearCalls();
        [[maybe_unused]] const OnFinalization observers[sizeof...(actions) + 1] = {OnFinalization(actions)...,
                                                                                   OnFinalization([] {})};
        MpiCore::finalize();
        return mpi.names();
    };
    const std::vector<std::string> once{"Finalize"};
    EXPECT_EQ(callsWhile(), once);
    std::string order;
    std::unique_ptr<OnFinalization> later;
    const OnFinalization first([&] {
        order += "first ";
        later.reset();
    });
    later = std::make_unique<OnFinalization>([&] { order += "detached "; });
    const OnFinalization last([&] { order += "last "; });
    EXPECT_EQ(callsWhile(), once);
    EXPECT_EQ(order, "first last ");
    // From within an observer it closes at once; the outer call then finds the layer closed.
    EXPECT_NE(messageOf<NonRecoverableError>([&] { callsWhile([] { MpiCore::finalize(); }); }), "");
    EXPECT_EQ(order, "first last first last ");
    EXPECT_EQ(messageOf<NonRecoverableError>([&] { callsWhile([] { MpiCore::handleError(6); }); }),
              "MPI Error : scripted error 6");
    EXPECT_EQ(mpi.names().back(), "Finalize") << "an observer's failure doesn't keep the layer open";
    EXPECT_EQ(callsWhile(), once) << "the mark of the running pass has gone";
    ScriptedMpi::start();
}

TEST(MpiWallTimer, AnswersByItsState) {
    ScriptedMpi::start().setClock(100.0, 1.0);
    MpiCore::MpiWallTimer timer;
    double dt = -1.0;
    EXPECT_EQ(timer.getElapsedTime(dt), 1);
    EXPECT_EQ(dt, -1.0);
    const int answers[] = {timer.stop(), timer.start(), timer.start(), timer.getElapsedTime(dt),
                           timer.stop()};
    EXPECT_TRUE(std::ranges::equal(answers, std::array{1, 0, 1, 0, 0}));
    EXPECT_EQ(dt, 1.0);
    EXPECT_EQ(timer.resolution(), OXM_MPI_Wtick());
}

} // namespace
