// Conditions and floating-point checks of a process alone; those of a job are tested in one.

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

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <cfenv>

namespace {

class SerialChecks : public testing::Test {
protected:
    void SetUp() override {
        MachineTestAccess::startAfresh();
        std::feclearexcept(FE_ALL_EXCEPT);
    }
    void TearDown() override { std::feclearexcept(FE_ALL_EXCEPT); }
};

using GlobalCondition_ = SerialChecks;
using GlobalFloatingPointError_ = SerialChecks;

TEST_F(GlobalCondition_, isTheLocalOneInEveryMode) {
    for (int mode = 0; mode <= 4; ++mode)
        for (const bool condition : {true, false}) {
            const auto each = static_cast<GlobalCondition::ModeEnum>(mode);
            EXPECT_EQ(GlobalCondition(condition, each), condition) << mode;
            EXPECT_EQ(GlobalErrorCheck::holds(condition, each, "here.cpp", 1), condition) << mode;
        }
}

TEST_F(GlobalCondition_, serialCriticalCodeOffendsDevelopmentVersionsOnly) {
    const Machine::SerialCritical lock;
    const std::string expected =
        OrvexVersion::isDevelopmentVersion()
            ? "Coding error: GlobalCondition attempted in a serial-critical code section"
            : "";
    EXPECT_EQ(messageOf<InternalError>([] { GlobalCondition(true, GlobalCondition::ON_ALL); }), expected);
}

std::string messageFor(const std::string& entry) {
    return "A floating point error has occurred. The following error has been logged:\n  " + entry +
           "\nPlease check your usage and inputs.";
}

/// What the flags alone tell, in both kinds of version.
const std::string FLAG_TEXT = "Floating-point exception: division by zero";

TEST_F(GlobalFloatingPointError_, pendingFaultBecomesOneErrorAndIsGone) {
    const std::string development =
        ", context: Unexpected FPE. If you see this message, please find the root cause that led to the FPE, "
        "assign to "
        "the appropriate group for mitigation, and add the HPC group as watchers for consultation.";
    const std::string release = ", the specific cause cannot be identified";
    struct Row {
        const char* name;
        std::function<void()> record;
        std::string entry;
    };
    const std::vector<Row> rows = {
        {"nothing saved", [] {}, FLAG_TEXT + (OrvexVersion::isDevelopmentVersion() ? development : release)},
        {"context", [] { GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext("flux"); },
         FLAG_TEXT + ", context: flux"},
        {"empty context", [] { GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext(std::string()); },
         FLAG_TEXT + ", context: "},
        {"no context", [] { GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext(nullptr); },
         FLAG_TEXT + release},
        {"the later record counts",
         [] {
             GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext("first");
             FloatingPointErrorRecord::set("second");
         },
         "second"},
    };
    for (const Row& row : rows) {
        std::feraiseexcept(FE_DIVBYZERO);
        row.record();
        EXPECT_EQ(messageOf<FloatingPointError>(&GlobalFloatingPointError::assertNoError),
                  messageFor(row.entry))
            << row.name;
        EXPECT_EQ(std::fetestexcept(FE_DIVBYZERO), 0) << row.name;
        EXPECT_EQ(messageOf<Error>(&GlobalFloatingPointError::assertNoError), "") << row.name;
    }
    std::feraiseexcept(FE_DIVBYZERO);
    EXPECT_EQ(messageOf<FloatingPointError>([] {
                  GlobalFloatingPointExceptionStatus::AssertNoException(MachineTestAccess::assertNoFpeKey());
              }),
              messageFor(FLAG_TEXT + release));
}

TEST_F(GlobalFloatingPointError_, flagsStayWhereNobodyMayLook) {
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

TEST_F(GlobalFloatingPointError_, placesWhereTheCheckIsRefused) {
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
