// Conditions, checks, reports and floating-point errors folded over a job of any number of ranks.

#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/GlobalFloatingPointError.h"
#include "machine/GlobalReport.h"
#include "machine/Machine.h"

#include "kernel/ObservableFromClient.h"
#include "kernel/OrvexVersion.h"
#include "platform/FloatingPointErrorRecord.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <string>

namespace {

unsigned rank() {
    return Machine::getPartitionId();
}
unsigned lastRank() {
    return Machine::nProcesses() - 1;
}

/// All collective checks on, or off.
class ParallelChecks : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (Machine::isSerial())
            GTEST_SKIP() << "for a job";
        Machine::getSingleton().setDevErrorChecking(GetParam());
    }
    void TearDown() override { Machine::getSingleton().setDevErrorChecking(true); }
    static bool checks() { return Machine::getSingleton().hasDevErrorChecking(); }
};

INSTANTIATE_TEST_SUITE_P(Checks, ParallelChecks, testing::Values(true, false),
                         [](const auto& row) { return row.param ? "on" : "off"; });

TEST_P(ParallelChecks, modesFoldTheLocalConditions) {
    using Mode = GlobalCondition::ModeEnum;
    struct Row {
        const char* trueOn;
        bool local;
        bool onAll;
        bool onAny;
        bool onMaster;
    };
    const bool alone = Machine::nProcesses() == 1;
    const Row rows[] = {
        {"all", true, true, true, true},
        {"none", false, false, false, false},
        {"the master", rank() == 0, alone, true, true},
        {"the last", rank() == lastRank(), alone, true, alone},
        {"all but the last", rank() != lastRank(), false, !alone, !alone},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(GlobalCondition(row.local, Mode::ON_ALL), row.onAll) << row.trueOn;
        EXPECT_EQ(GlobalCondition(row.local, Mode::ON_ANY), row.onAny) << row.trueOn;
        EXPECT_EQ(GlobalCondition(row.local, Mode::ON_MASTER), row.onMaster) << row.trueOn;
        EXPECT_EQ(GlobalCondition(row.local, static_cast<Mode>(4)), row.local) << row.trueOn;
        const auto invariant = [&] {
            EXPECT_EQ(GlobalCondition(row.local, Mode::ON_ALL_INVARIANT), row.local);
        };
        if (checks() && row.onAny && !row.onAll)
            expectAssertion(invariant, "Invalid use of ON_ALL_INVARIANT; conditions differ",
                            "trueCount == 0 || trueCount == Machine::nProcesses()", "GlobalCondition.cpp");
        else
            invariant();
    }
}

TEST_P(ParallelChecks, errorIsRaisedOnAllRanks) {
    const auto check = [](bool condition, GlobalCondition::ModeEnum mode) {
        int evaluations = 0;
        const auto message = messageOf<InputError>([&] {
            ORVEX_GLOBAL_CHECK((++evaluations, condition), mode, InputError("bad, ", 2, Properties()));
        });
        EXPECT_EQ(evaluations, 1);
        return message;
    };
    EXPECT_EQ(check(rank() != lastRank(), GlobalCondition::ON_ALL), "bad, ");
    EXPECT_EQ(check(rank() == lastRank(), GlobalCondition::ON_ANY), "");
    EXPECT_EQ(check(rank() != 0, GlobalCondition::ON_MASTER), "bad, ");
    EXPECT_EQ(check(false, GlobalCondition::ON_ALL_INVARIANT), "bad, ");
    EXPECT_EQ(check(true, GlobalCondition::ON_ALL), "");
}

TEST_P(ParallelChecks, rankAtAnotherCheckIsTold) {
    const bool astray = rank() == lastRank() && Machine::nProcesses() > 1;
    const std::string file = astray ? "base/src/machine/elsewhere.cpp" : "base/src/machine/here.cpp";
    const int line = astray ? 7 : 5;
    for (const auto mode : {GlobalCondition::ON_ALL, GlobalCondition::ON_ANY, GlobalCondition::ON_MASTER,
                            GlobalCondition::ON_ALL_INVARIANT}) {
        const auto check = [&] { EXPECT_TRUE(GlobalErrorCheck::holds(true, mode, file.c_str(), line)); };
        if (astray && checks())
            expectAssertion(check,
                            "Mismatched contexts for global error check:\n"
                            "   line: 7, file: base/src/machine/elsewhere.cpp\n"
                            "   master line: 5, master file: base/src/machine/here.cpp",
                            "line == lineMaster", "elsewhere.cpp", 7);
        else
            check();
    }
    // Only lines are compared.
    EXPECT_EQ(messageOf<InternalError>(
                  [&] { GlobalErrorCheck::holds(true, GlobalCondition::ON_ALL, file.c_str(), 5); }),
              "");
    // All ranks are in step still.
    unsigned sum = 1;
    Machine::globalCommunicator().allReduce(sum, Communicator::SUM);
    EXPECT_EQ(sum, Machine::nProcesses());
}

TEST_P(ParallelChecks, reportAddsUpTheCells) {
    std::string told;
    ObservableFromClient::setNotifier(
        [&](const std::string& kind, const std::string& text) { told += kind + '|' + text; });
    const double value = 1234567.0;
    GlobalReport::limit("Pressure", "Fluid", 0, &value);
    GlobalReport::limit("Pressure", "Fluid", rank() == lastRank() ? 3000000000 : 0, &value);
    GlobalReport::limit("Density", "Air", 1, nullptr);
    ObservableFromClient::setNotifier({});
    EXPECT_EQ(told, "ConsoleMessage|Pressure limited to 1.23457e+06 in 3000000000 cells in region "
                    "Fluid\nConsoleMessage|Density limited in " +
                        std::to_string(Machine::nProcesses()) + " cells in region Air\n");
}

TEST_P(ParallelChecks, floatingPointRecordsOfAllRanksBecomeOneError) {
    const auto messageFor = [](const std::string& entries, bool several) {
        return "A floating point error has occurred. The following " +
               std::string(several ? "errors have" : "error has") + " been logged:" + entries +
               "\nPlease check your usage and inputs.";
    };
    struct Row {
        const char* name;
        std::string record;
        std::string message;
    };
    const unsigned ranks = Machine::nProcesses();
    const char* const texts[] = {"flux", "area", "mass"};
    const std::string distinct = ranks == 1   ? "\n  flux"
                                 : ranks == 2 ? "\n1. area\n2. flux"
                                              : "\n1. area\n2. flux\n3. mass";
    const Row rows[] = {
        {"the last rank only", rank() == lastRank() ? "flux" : "", messageFor("\n  flux", false)},
        {"the same on all", "flux", messageFor("\n  flux", false)},
        {"distinct", texts[rank() % 3], messageFor(distinct, ranks > 1)},
    };
    for (const Row& row : rows) {
        if (!row.record.empty())
            FloatingPointErrorRecord::set(row.record);
        EXPECT_EQ(messageOf<FloatingPointError>(&GlobalFloatingPointError::assertNoError), row.message)
            << row.name;
        EXPECT_EQ(messageOf<Error>(&GlobalFloatingPointError::assertNoError), "") << row.name;
    }
}

} // namespace
