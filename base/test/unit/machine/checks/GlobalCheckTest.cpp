// Messages and assertions of the checks of a job, on a driver that plays the other ranks, and the checks of a
// process alone.

#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/GlobalFloatingPointError.h"
#include "machine/GlobalFloatingPointExceptionStatus.h"
#include "machine/MachineLocks.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/IsolatedFpuContext.h"
#include "kernel/OrvexVersion.h"
#include "kernel/SignalHandler.h"
#include "kernel/ThreadParallelContext.h"
#include "platform/FloatingPointErrorRecord.h"

#include "support/ScriptedMpi.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cstring>
#include <memory>
#include <tuple>

namespace {

using Texts = std::vector<std::string>;

const std::string FOLD = "Allreduce(sendBuffer=IN_PLACE, count=1, datatype=7, op=3, comm=1)";
const std::string MASTER_VALUE = "Bcast(count=1, datatype=1, root=0, comm=1)";
const std::string LINE = "Bcast(count=1, datatype=8, root=0, comm=1)";
const char* const HERE = "base/src/machine/here.cpp";

/// Rank 1 of a job, whose other ranks find what it finds.
class GlobalCheck : public testing::Test {
protected:
    GlobalCheck() {
        mpi.setWorld(1, 12);
        MachineTestAccess::startAfresh();
        play(12);
        MachineTestAccess::makeGlobalCommunicator();
        Machine::getSingleton().setDevErrorChecking(true);
        setTrueRanks(12);
        mpi.clearCalls();
    }
    ~GlobalCheck() override {
        MachineTestAccess::dropGlobalCommunicator();
        MachineTestAccess::startAfresh();
    }

    static void play(unsigned ranks) { MachineTestAccess::playRole(Machine::WORKER_MODE, ranks, 1); }
    /// Of each condition that holds here.
    void setTrueRanks(unsigned count) {
        mpi.setAction("Allreduce", [count](const ScriptedCall& call) {
            *static_cast<unsigned*>(call.addresses.at("recvBuffer")) *= count;
            return OXM_MPI_SUCCESS;
        });
    }
    /// The master stands at line 99 of "far.cpp".
    void leadMasterAstray() {
        mpi.setAction("Bcast", [](const ScriptedCall& call) {
            void* const buffer = call.addresses.at("buffer");
            if (call.get("datatype") == OXM_MPI_INT)
                *static_cast<int*>(buffer) = 99;
            else if (call.get("datatype") == OXM_MPI_UINT64)
                *static_cast<std::uint64_t*>(buffer) = 7;
            else
                std::memcpy(buffer, "far.cpp", 7);
            return OXM_MPI_SUCCESS;
        });
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
    const bool hasChecks = OrvexVersion::isDevelopmentVersion();
};

TEST_F(GlobalCheck, SendsWhatItsModeNeedsAndWithChecksTheLine) {
    const struct {
        GlobalCondition::ModeEnum mode;
        unsigned ranks;
        Texts always, withChecks;
    } rows[] = {
        {GlobalCondition::ON_ALL, 13, {FOLD}, {LINE, FOLD}},
        {GlobalCondition::ON_ANY, 13, {FOLD}, {LINE, FOLD}},
        {GlobalCondition::ON_MASTER, 13, {MASTER_VALUE}, {LINE, FOLD}},
        {GlobalCondition::ON_ALL_INVARIANT, 12, {}, {FOLD, LINE, FOLD}},
        {GlobalCondition::ON_ALL_INVARIANT, 13, {}, {}},
    };
    for (const auto& row : rows)
        for (const bool checks : {true, false}) {
            play(row.ranks);
            setTrueRanks(row.ranks);
            Machine::getSingleton().setDevErrorChecking(checks);
            mpi.clearCalls();
            EXPECT_TRUE(GlobalErrorCheck::holds(true, row.mode, HERE, 5));
            Texts expected = row.always;
            if (checks && hasChecks)
                expected.insert(expected.end(), row.withChecks.begin(), row.withChecks.end());
            EXPECT_EQ(mpi.texts(), expected) << row.mode << ", " << row.ranks << " ranks, checks " << checks;
        }
}

TEST_F(GlobalCheck, IsRefusedInSerialCriticalCode) {
    const Machine::SerialCritical lock;
    expectAssertion([] { GlobalCondition(true, GlobalCondition::ON_ALL_INVARIANT); },
                    "Coding error: GlobalCondition attempted in a serial-critical code section",
                    "! _serialCriticalLock", "GlobalCondition.cpp");
    EXPECT_EQ(mpi.texts(), Texts());
}

TEST_F(GlobalCheck, AFailingMessageOfAnExemptCheckRestoresTheLock) {
    if (!hasChecks)
        return;
    const Machine::ParallelPerformanceCritical lock;
    leadMasterAstray();
    for (int nth = 1; nth <= 5; ++nth) {
        mpi.clearCalls();
        mpi.failAny(nth, OXM_MPI_ERR_OTHER);
        EXPECT_EQ(messageOf<Error>(
                      [] { GlobalErrorCheck::holds(true, GlobalCondition::ON_ALL_INVARIANT, HERE, 5); }),
                  "MPI Error : scripted error 15")
            << nth;
        EXPECT_EQ(mpi.calls().size(), static_cast<std::size_t>(nth) + 1) << "the last asks for the text";
        EXPECT_EQ(Machine::getPerformanceCriticalLock(), 1u) << nth;
    }
}

/// A process alone.
class SerialChecks : public testing::Test {
protected:
    void SetUp() override {
        MachineTestAccess::startAfresh();
        std::feclearexcept(FE_ALL_EXCEPT);
    }
    void TearDown() override { std::feclearexcept(FE_ALL_EXCEPT); }
};

std::string messageFor(const std::string& entry) {
    return "A floating point error has occurred. The following error has been logged:\n  " + entry +
           "\nPlease check your usage and inputs.";
}

/// The text of the flags alone, in both kinds of version.
const std::string FLAG_TEXT = "Floating-point exception: division by zero";

TEST_F(SerialChecks, APendingFaultBecomesOneErrorAndIsGone) {
    using namespace GlobalFloatingPointExceptionStatus;
    const std::string development =
        ", context: Unexpected FPE. If you see this message, please find the root cause that led to the FPE, "
        "assign to the appropriate group for mitigation, and add the HPC group as watchers for consultation.";
    const std::string release = ", the specific cause cannot be identified";
    const std::tuple<const char*, std::function<void()>, std::string> rows[] = {
        {"nothing saved", [] {}, FLAG_TEXT + (OrvexVersion::isDevelopmentVersion() ? development : release)},
        {"context", [] { TestAndSaveLocalContext("flux"); }, FLAG_TEXT + ", context: flux"},
        {"empty context", [] { TestAndSaveLocalContext(std::string()); }, FLAG_TEXT + ", context: "},
        {"no context", [] { TestAndSaveLocalContext(nullptr); }, FLAG_TEXT + release},
        {"flags tell less than a record", [] { FloatingPointErrorRecord::set("flux"); }, "flux"},
        {"the later record counts",
         [] {
             TestAndSaveLocalContext("first");
             FloatingPointErrorRecord::set("second");
         },
         "second"},
    };
    for (const auto& [name, record, entry] : rows) {
        SCOPED_TRACE(name);
        std::feraiseexcept(FE_DIVBYZERO);
        record();
        EXPECT_EQ(messageOf<FloatingPointError>(&GlobalFloatingPointError::assertNoError), messageFor(entry));
        EXPECT_EQ(std::fetestexcept(FE_DIVBYZERO), 0);
        EXPECT_EQ(messageOf<Error>(&GlobalFloatingPointError::assertNoError), "");
    }
    std::feraiseexcept(FE_DIVBYZERO);
    EXPECT_EQ(messageOf<FloatingPointError>([] { AssertNoException(MachineTestAccess::assertNoFpeKey()); }),
              messageFor(FLAG_TEXT + release));
}

TEST_F(SerialChecks, FlagsStayWhereNobodyMayLook) {
    const auto test = [] {
        std::feraiseexcept(FE_DIVBYZERO);
        EXPECT_EQ(messageOf<Error>(&GlobalFloatingPointError::assertNoError), "");
        EXPECT_NE(std::fetestexcept(FE_DIVBYZERO), 0);
        std::feclearexcept(FE_ALL_EXCEPT);
    };
    FpeAgnosticMode::activate();
    test();
    FpeAgnosticMode::deactivate();
    {
        const IsolatedFpuContext isolated(false);
        test();
    }
    SignalHandler::_catchFpeSignals = true;
    test();
    SignalHandler::_catchFpeSignals = false;
}

TEST_F(SerialChecks, TheCheckIsRefusedWhereItCannotBeCollective) {
    {
        const Machine::SerialCritical lock;
        EXPECT_EQ(messageOf<InternalError>(&GlobalFloatingPointError::assertNoError),
                  "Cannot check global floating point error status in serial critical code. The status check "
                  "must be "
                  "called collectively on all processes.");
    }
    ThreadParallelContext::_threadParallelContext = 1;
    EXPECT_EQ(
        messageOf<InternalError>(&GlobalFloatingPointError::assertNoError),
        "Cannot check global floating point error status from within a hybrid MPI thread context. The status "
        "check must be called collectively on all processes.");
    ThreadParallelContext::_threadParallelContext = 0;
}

} // namespace
