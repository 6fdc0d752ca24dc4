// The locks that keep message passing out of a region, their bits in the gate, and what lifts them.

#include "machine/MachineLocks.h"
#include "machine/FieldLoopState.h"

#include "kernel/MessagingGate.h"
#include "kernel/OrvexVersion.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <utility>

class MachineLocksTestAccess {
public:
    static void setVerbose(bool on) {
        Machine::ParallelPerformanceCritical::TemporaryExemption::_verbose = on;
    }
};

namespace {

using SerialCritical = Machine::SerialCritical;
using PerformanceCritical = Machine::ParallelPerformanceCritical;
using TemporaryExemption = PerformanceCritical::TemporaryExemption;

/// The text that `operation` writes on the standard output.
template <class F>
std::string printedBy(F operation) {
    testing::internal::CaptureStdout();
    operation();
    return testing::internal::GetCapturedStdout();
}

class MachineLocks : public testing::Test {
protected:
    void SetUp() override { MachineTestAccess::startAfresh(); }
    void TearDown() override {
        EXPECT_FALSE(Machine::isSerialCritical());
        EXPECT_EQ(Machine::getPerformanceCriticalLock(), 0u);
        EXPECT_FALSE(FieldLoopState::busy());
        EXPECT_TRUE(MessagingGate::isOpen());
    }
};

TEST_F(MachineLocks, LiftsANestedSerialCriticalWithTheLast) {
    const auto assertion = [] { Machine::assertNotSerialCritical("not here"); };
    {
        SerialCritical outer;
        outer.bye();
        { const SerialCritical inner; }
        EXPECT_TRUE(MessagingGate::has(MessagingGate::SERIAL_CRITICAL));
        expectAssertion(assertion, "not here", "! _serialCriticalLock", "GroundLocks.cpp");
    }
    assertion();
}

TEST_F(MachineLocks, RestoresTheDepthThatAnExemptionTook) {
    const PerformanceCritical locks[3];
    {
        const PerformanceCritical::Exemption exemption;
        EXPECT_EQ(Machine::getPerformanceCriticalLock(), 0u);
        const PerformanceCritical::Exemption nested;
        EXPECT_TRUE(MessagingGate::isOpen());
    }
    EXPECT_EQ(Machine::getPerformanceCriticalLock(), 3u);
    EXPECT_TRUE(MessagingGate::has(MessagingGate::PERFORMANCE_CRITICAL));
}

TEST_F(MachineLocks, LeavesLocksToTheMainThread) {
    const PerformanceCritical lock;
    MachineLocksTestAccess::setVerbose(true);
    const std::string printed = printedBy([] {
        std::thread([] {
            const SerialCritical serial;
            const PerformanceCritical performance;
            const PerformanceCritical::Exemption exemption;
            const TemporaryExemption temporary("OXMP-1");
            EXPECT_FALSE(Machine::isSerialCritical());
            EXPECT_EQ(Machine::getPerformanceCriticalLock(), 1u);
            MachineTestAccess::tellSignalRaised();
            EXPECT_EQ(Machine::getPerformanceCriticalLock(), 1u);
        }).join();
    });
    EXPECT_EQ(printed, "");
    EXPECT_EQ(printedBy([] { TemporaryExemption("OXMP-1"); }),
              "[OXMP-1] Granting temporary exemption to parallel lock.\n");
    MachineLocksTestAccess::setVerbose(false);
}

TEST_F(MachineLocks, LiftsAllAfterASignalAndTheGuardsWarn) {
    const std::string printed = printedBy([] {
        const SerialCritical serial;
        const PerformanceCritical performance;
        FieldLoopState::setBusy();
        EXPECT_TRUE(FieldLoopState::busy());
        EXPECT_TRUE(MessagingGate::has(MessagingGate::FIELD_LOOP));
        MachineTestAccess::tellSignalRaised();
        EXPECT_TRUE(MessagingGate::isOpen());
        EXPECT_FALSE(FieldLoopState::busy());
    });
    EXPECT_EQ(printed, "Warning : PerformanceCritical lock out of synch..\n"
                       "Warning : SerialCritical lock out of synch..\n");
}

TEST_F(MachineLocks, StopsAForbiddenCallInADevelopmentVersionWithItsChecksOn) {
    const auto assertion = [] { Machine::assertNotParallelPerformanceCritical("too slow here"); };
    for (const bool checks : {true, false}) {
        Machine::getSingleton().setDevErrorChecking(checks);
        EXPECT_EQ(printedBy(assertion), "") << "without a lock";
        const PerformanceCritical lock;
        if (!checks || !OrvexVersion::isDevelopmentVersion()) {
            EXPECT_EQ(printedBy(assertion), "");
            continue;
        }
        const std::string printed = printedBy([&] {
            expectAssertion(assertion, "too slow here", "!_performanceCriticalLock", "GroundLocks.cpp");
        });
        const std::regex explanation("PerformanceCriticalLock detected:\n"
                                     "  This message is generated when communication is invoked\n"
                                     "  in a performance critical section of code. Critical sections\n"
                                     "  include Term::eval\\(FvBoundary&\\), Term::eval\\(FvRegion&\\).\n"
                                     "  Communication should be moved outside the critical section\n"
                                     "  using existing patterns such as a two-pass Term.\n"
                                     "Back trace : [^\n]+\n");
        EXPECT_TRUE(std::regex_match(printed, explanation)) << printed;
    }
}

TEST_F(MachineLocks, WantsTheNumberOfAProblemForATemporaryExemption) {
    constexpr std::pair<const char*, bool> ROWS[] = {
        {"OXMP-1234", true}, {"OXMP_7", true},    {"", false},         {"OXMP", false},
        {"oxmp-1", false},   {"OXMP1234", false}, {"OXMP-12a", false},
    };
    const auto countIn = [](const std::string& text) {
        return std::stoul(text.substr(text.find_first_of("0123456789")));
    };
    unsigned long granted = countIn(printedBy(&TemporaryExemption::printExemptions));
    for (const auto& [id, good] : ROWS) {
        const PerformanceCritical lock;
        const auto exempt = [id = id] {
            const TemporaryExemption exemption(id);
            EXPECT_EQ(Machine::getPerformanceCriticalLock(), 0u);
        };
        if (good || !OrvexVersion::isDevelopmentVersion()) {
            exempt();
            ++granted;
        } else {
            expectAssertion(
                exempt,
                "Badly constructed JIRA ID passed to ParallelPerformanceCritical::TemporaryExemption!",
                "isJiraId(_jiraId)", "GroundLocks.cpp");
        }
        EXPECT_EQ(Machine::getPerformanceCriticalLock(), 1u);
    }
    // The exit observer tells all that were granted in this process.
    EXPECT_EQ(printedBy([] {
                  Properties nothing;
                  TemporaryExemption::getExitObserver().update(nothing);
              }),
              "A Total of " + std::to_string(granted) +
                  " temporary exemptions to the parallel performance critical lock have been granted.\n");
}

} // namespace
