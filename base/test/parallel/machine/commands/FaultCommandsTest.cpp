// Commands with a floating-point or segmentation fault on one, some or all ranks of a job, by flags, by
// traps, and with the flags ignored. Behind each of them the next command starts clean.

#include "machine/Machine.h"
#include "machine/commands/MachineCommands.h"

#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/FpeAgnosticMode.h"
#include "kernel/SignalHandler.h"

#include "parallel/machine/commands/ParallelCommands.h"
#include "support/TestCommand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <map>
#include <string>
#include <vector>

namespace {

/// Divides by zero, without a word, on the ranks in "ranks".
void divide(const Properties& args, Properties&) {
    const std::vector<unsigned> ranks = args.getOr("ranks", std::vector<unsigned>());
    const bool isChosen = std::count(ranks.begin(), ranks.end(), Machine::getPartitionId()) != 0;
    const volatile double zero = isChosen ? 0.0 : 1.0;
    volatile double quotient = 2.0;
    quotient = quotient / zero;
}

class FaultCommands : public ParallelCommands {
protected:
    void SetUp() override {
        Controller& controller = Controller::getSingleton();
        if (!controller.findCommand("InvokeOverflow"))
            registerMachineCommands();
        if (!controller.findCommand("TestDivide"))
            controller.registerCommand(new TestCommand("TestDivide", divide));
        testing::internal::CaptureStdout();
    }
    void TearDown() override { testing::internal::GetCapturedStdout(); }

    /// The message of the command's error, empty when it has none.
    static std::string failureOf(const std::string& name, const std::string& args = "{}") {
        return Error::getMessage(run(name, Properties(args)));
    }
    static std::string divideOn(const std::vector<unsigned>& ranks) {
        return Error::getMessage(run("TestDivide", ranks));
    }
    static std::string messageFor(const std::string& entry) {
        return "A floating point error has occurred. The following error has been logged:\n  " + entry +
               "\nPlease check your usage and inputs.";
    }
    static std::string messageFor(const std::string& first, const std::string& second,
                                  const std::string& ofMaster) {
        return Machine::nProcesses() == 1
                   ? messageFor(ofMaster)
                   : "A floating point error has occurred. The following errors have been logged:\n1. " +
                         first + "\n2. " + second + "\nPlease check your usage and inputs.";
    }
    static std::string valueIn(const std::string& command) {
        return messageFor("Non-finite value detected while calculating 'x' in Command '" + command + "'.");
    }
    static std::vector<unsigned> allRanks() {
        std::vector<unsigned> ranks;
        for (unsigned rank = 0; rank < Machine::nProcesses(); ++rank)
            ranks.push_back(rank);
        return ranks;
    }
    static void expectNextIsClean() { EXPECT_EQ(divideOn({}), ""); }

    /// The commands that record their values, with the flags looked at or not.
    static void expectRecords() {
        for (const char* name :
             {"InvokeDivideByZero", "InvokeOverflow", "InvokeInvalidFloatingPointOperation"}) {
            EXPECT_EQ(failureOf(name), valueIn(name));
            expectNextIsClean();
        }
        const std::string ofMaster = "The intermediate result isn't finite anymore!";
        for (const char* args : {"{}", R"({"assertInCommand":true})"})
            EXPECT_EQ(failureOf("GlobalFloatingPointErrorTesting", args),
                      messageFor("Our result isn't finite anymore!", ofMaster, ofMaster));
        EXPECT_EQ(failureOf("FpuTesting", R"({"op1":255,"op2":255,"op3":255})"), "");
        expectNextIsClean();
    }
};

TEST_F(FaultCommands, TellEachDistinctTextOnceByTheStatusFlags) {
    inCommandLoop([] {
        expectRecords();
        const std::string cause = ", the specific cause cannot be identified";
        const std::string division = "Floating-point exception: division by zero" + cause;
        const unsigned last = Machine::nProcesses() - 1;
        for (const std::vector<unsigned>& ranks :
             {std::vector{0u}, std::vector{last}, {0u, last}, allRanks()}) {
            EXPECT_EQ(divideOn(ranks), messageFor(division));
            expectNextIsClean();
        }
        const std::string overflow = "Floating-point exception: overflow" + cause;
        EXPECT_EQ(failureOf("GlobalFloatingPointErrorTesting", R"({"logErrors":false})"),
                  messageFor(division, overflow, division));
        expectNextIsClean();
    });
}

TEST_F(FaultCommands, TellOnlyWhatIsRecordedWhileTheFlagsAreIgnored) {
    FpeAgnosticMode::activate();
    inCommandLoop([] {
        expectRecords();
        EXPECT_EQ(divideOn(allRanks()), "");
        EXPECT_EQ(failureOf("GlobalFloatingPointErrorTesting", R"({"logErrors":false})"), "");
        EXPECT_EQ(failureOf("FpuTesting"), ""); // clears the flags
    });
    FpeAgnosticMode::deactivate();
    EXPECT_EQ(std::fetestexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW), 0);
}

TEST_F(FaultCommands, FailByTraps) {
    if (!ORVEX_PASSES_FAULTS)
        GTEST_SKIP();
    SignalHandler::setCatchFpeSignals(true);
    inCommandLoop([] {
        const std::string division = "Floating point exception: division by zero";
        const std::map<std::string, std::string> rows = {
            {"InvokeDivideByZero", division},
            {"InvokeOverflow", "Floating point exception: overflow"},
            {"InvokeInvalidFloatingPointOperation", "Floating point exception: invalid operation"},
            {"GlobalFloatingPointErrorTesting", division}};
        for (const auto& [name, message] : rows) {
            const Properties response = run(name);
            EXPECT_EQ(Error::getMessage(response), message);
            EXPECT_EQ(response.getString("Signal"), "SIGFPE");
            expectNextIsClean();
        }
        EXPECT_EQ(divideOn(allRanks()), division);
        EXPECT_EQ(failureOf("FpuTesting", R"({"op2":255,"isolated":true})"), "") << "no traps in a context";
        EXPECT_EQ(failureOf("FpuTesting", R"({"op3":4})"), "Floating point exception: overflow");
        expectNextIsClean();
    });
    SignalHandler::setCatchFpeSignals(false);
    SignalHandler::uninstall();
}

TEST_F(FaultCommands, FailByASegmentationFaultOfAllRanks) {
    if (!ORVEX_PASSES_FAULTS)
        GTEST_SKIP();
    SignalHandler::install();
    inCommandLoop([] {
        for (int round = 0; round < 3; ++round) {
            const Properties response = run("InvokeSynchronousSegmentationError");
            EXPECT_EQ(Error::getMessage(response), "Segmentation fault: address not mapped");
            EXPECT_EQ(response.getString("Address"), "0x10");
            const unsigned last = Machine::nProcesses() - 1;
            EXPECT_EQ(response.getString(CommandController::RANKS_KEY),
                      last == 0 ? "0" : "0-" + std::to_string(last));
            expectNextIsClean();
        }
        if (Machine::nProcesses() == 1) { // there is no rank 1
            EXPECT_EQ(failureOf("InvokeAsynchronousSegmentationError"), "");
        }
    });
    SignalHandler::uninstall();
}

} // namespace
