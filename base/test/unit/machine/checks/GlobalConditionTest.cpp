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
#include <tuple>

namespace {

class SerialChecks : public testing::Test {
protected:
    void SetUp() override {
        MachineTestAccess::startAfresh();
        std::feclearexcept(FE_ALL_EXCEPT);
    }
    void TearDown() override { std::feclearexcept(FE_ALL_EXCEPT); }
};

TEST_F(SerialChecks, ConditionIsTheLocalOneInEveryMode) {
    for (int mode = 0; mode <= 4; ++mode)
        for (const bool condition : {true, false}) {
            const auto each = static_cast<GlobalCondition::ModeEnum>(mode);
            EXPECT_EQ(GlobalCondition(condition, each), condition) << mode;
            EXPECT_EQ(GlobalErrorCheck::holds(condition, each, "here.cpp", 1), condition) << mode;
        }
}

TEST_F(SerialChecks, SerialCriticalCodeOffendsDevelopmentVersionsOnly) {
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
