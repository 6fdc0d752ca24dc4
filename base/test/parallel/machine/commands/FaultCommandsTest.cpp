// Commands with a floating-point or segmentation fault on one, some or all ranks of a job: found by flags, by
// traps, and with the flags ignored. The command behind each of them starts clean.

#include "machine/commands/MachineCommands.h"

#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/FpeAgnosticMode.h"
#include "kernel/SignalHandler.h"

#include "parallel/machine/commands/ParallelCommands.h"
#include "support/TestCommand.h"

#include <set>

namespace {

/// Divides by zero, without a word, on the ranks in "ranks".
void divide(const Properties& args, Properties&) {
    const std::vector<unsigned> ranks = args.getOr("ranks", std::vector<unsigned>());
    const volatile double zero =
        std::count(ranks.begin(), ranks.end(), Machine::getPartitionId()) ? 0.0 : 1.0;
    volatile double quotient = 2.0;
    quotient = quotient / zero;
}

std::string logged(const std::set<std::string>& entries) {
    std::string text = entries.size() == 1 ? "error has been logged:\n  " + *entries.begin()
                                           : std::string("errors have been logged:");
    int number = 0;
    for (const std::string& entry : entries)
        if (entries.size() > 1)
            text += "\n" + std::to_string(++number) + ". " + entry;
    return "A floating point error has occurred. The following " + text +
           "\nPlease check your usage and inputs.";
}

struct Row {
    std::string command, args, message;
};

class FaultCommands : public ParallelCommands {
protected:
    void SetUp() override {
        if (!isSmallJob())
            GTEST_SKIP() << "in small jobs only";
        Controller& controller = Controller::getSingleton();
        if (!controller.findCommand("TestDivide")) {
            registerMachineCommands();
            controller.registerCommand(new TestCommand("TestDivide", divide));
        }
    }

    /// Runs each row, and a command without a fault behind it.
    static void expect(const std::vector<Row>& rows) {
        testing::internal::CaptureStdout();
        inCommandLoop([&] {
            for (const auto& [command, args, message] : rows) {
                EXPECT_EQ(Error::getMessage(run(command, Properties(args))), message) << command << args;
                EXPECT_EQ(Error::getMessage(run("TestDivide")), "") << "behind " << command << args;
            }
        });
        testing::internal::GetCapturedStdout();
    }
    /// The rows of the commands that record their values: the same, whether flags are looked at or not.
    std::vector<Row> recordingRows() const {
        std::vector<Row> rows;
        for (const char* command :
             {"InvokeDivideByZero", "InvokeOverflow", "InvokeInvalidFloatingPointOperation"})
            rows.push_back(
                {command, "{}",
                 logged({std::string("Non-finite value detected while calculating 'x' in Command '") +
                         command + "'."})});
        std::set<std::string> values{"The intermediate result isn't finite anymore!"};
        if (!isAlone)
            values.insert("Our result isn't finite anymore!");
        for (const char* args : {"{}", R"({"assertInCommand":true})"})
            rows.push_back({"GlobalFloatingPointErrorTesting", args, logged(values)});
        rows.push_back({"FpuTesting", R"({"op1":255,"op2":255,"op3":255,"isolated":true})", ""});
        return rows;
    }

    const std::string last = std::to_string(Machine::nProcesses() - 1);
    const bool isAlone = Machine::nProcesses() == 1;
    const std::string allRanks = R"({"ranks":[0,1,2,3,4,5,6]})";
};

TEST_F(FaultCommands, TellEachDistinctTextOnceByTheStatusFlags) {
    const std::string cause = ", the specific cause cannot be identified";
    const std::string division = "Floating-point exception: division by zero" + cause;
    std::vector<Row> rows = recordingRows();
    for (const std::string& ranks :
         {allRanks, R"({"ranks":[)" + last + "]}", R"({"ranks":[0,)" + last + "]}"})
        rows.push_back({"TestDivide", ranks, logged({division})});
    std::set<std::string> texts{division};
    if (!isAlone)
        texts.insert("Floating-point exception: overflow" + cause);
    rows.push_back({"GlobalFloatingPointErrorTesting", R"({"logErrors":false})", logged(texts)});
    expect(rows);
}

TEST_F(FaultCommands, TellOnlyWhatIsRecordedWhileTheFlagsAreIgnored) {
    std::vector<Row> rows = recordingRows();
    rows.push_back({"TestDivide", allRanks, ""});
    rows.push_back({"GlobalFloatingPointErrorTesting", R"({"logErrors":false})", ""});
    rows.push_back({"FpuTesting", "{}", ""}); // clears the flags
    FpeAgnosticMode::activate();
    expect(rows);
    FpeAgnosticMode::deactivate();
}

TEST_F(FaultCommands, FailByTrapsAndSegmentationFaultsOfAllRanks) {
    if (!ORVEX_PASSES_FAULTS)
        GTEST_SKIP();
    const std::string trap = "Floating point exception: ";
    const std::string segmentation = "Segmentation fault: address not mapped";
    SignalHandler::setCatchFpeSignals(true);
    expect({{"InvokeDivideByZero", "{}", trap + "division by zero"},
            {"InvokeOverflow", "{}", trap + "overflow"},
            {"InvokeInvalidFloatingPointOperation", "{}", trap + "invalid operation"},
            {"GlobalFloatingPointErrorTesting", "{}", trap + "division by zero"},
            {"TestDivide", allRanks, trap + "division by zero"},
            {"FpuTesting", R"({"op2":255,"isolated":true})", ""}, // no traps in a context
            {"FpuTesting", R"({"op3":4})", trap + "overflow"},
            {"InvokeSynchronousSegmentationError", "{}", segmentation},
            {"InvokeSynchronousSegmentationError", "{}", segmentation},
            {"InvokeOverflow", "{}", trap + "overflow"}});
    SignalHandler::setCatchFpeSignals(false);
    SignalHandler::uninstall();
}

} // namespace
