// Conditions, checks and reports folded over a job of any number of ranks.

#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/GlobalReport.h"
#include "machine/Machine.h"

#include "kernel/ObservableFromClient.h"

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

/// Conditions and errors alike.
TEST_P(ParallelChecks, ModesFoldTheLocalConditions) {
    using Mode = GlobalCondition::ModeEnum;
    const auto expect = [](bool local, Mode mode, bool result) {
        EXPECT_EQ(GlobalCondition(local, mode), result);
        int evaluations = 0;
        EXPECT_EQ(messageOf<InputError>([&] {
                      ORVEX_GLOBAL_CHECK((++evaluations, local), mode, InputError("bad, ", 2, Properties()));
                  }),
                  result ? "" : "bad, ");
        EXPECT_EQ(evaluations, 1);
    };
    const bool alone = Machine::nProcesses() == 1;
    const struct {
        const char* trueOn;
        bool local, onAll, onAny, onMaster;
    } rows[] = {
        {"all", true, true, true, true},
        {"none", false, false, false, false},
        {"the master", rank() == 0, alone, true, true},
        {"the last", rank() == lastRank(), alone, true, alone},
        {"all but the last", rank() != lastRank(), false, !alone, !alone},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.trueOn);
        expect(row.local, Mode::ON_ALL, row.onAll);
        expect(row.local, Mode::ON_ANY, row.onAny);
        expect(row.local, Mode::ON_MASTER, row.onMaster);
        expect(row.local, static_cast<Mode>(4), row.local);
        if (checks() && row.onAny && !row.onAll)
            expectAssertion([&] { GlobalCondition(row.local, Mode::ON_ALL_INVARIANT); },
                            "Invalid use of ON_ALL_INVARIANT; conditions differ",
                            "trueCount == 0 || trueCount == Machine::nProcesses()", "GlobalCondition.cpp");
        else if (row.onAny == row.onAll)
            expect(row.local, Mode::ON_ALL_INVARIANT, row.local);
    }
}

TEST_P(ParallelChecks, ARankAtAnotherCheckIsTold) {
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

TEST_P(ParallelChecks, TheReportAddsUpTheCells) {
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

} // namespace
