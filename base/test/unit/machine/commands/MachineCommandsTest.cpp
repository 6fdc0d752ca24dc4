// The machine's commands: answers and output in a process alone, and files as each role changes them.

#include "machine/commands/MachineCommands.h"
#include "machine/CpuTopology.h"
#include "machine/GlobalFloatingPointError.h"
#include "machine/MachineHost.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/EventLoggerManager.h"
#include "kernel/EventTracker.h"
#include "kernel/SignalHandler.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/System.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

struct Row {
    std::string request;
    std::string response;
    std::string third; ///< empty when there is none
};

/// The rows of a file of base/test/data/commands, with `name` in place of `word`.
std::vector<Row> readRows(const std::string& file, const char* word, const std::string& name) {
    std::vector<Row> rows;
    std::ifstream data(ORVEX_TEST_DATA "/commands/" + file);
    for (std::string line; std::getline(data, line);) {
        if (line.find('{') != 0)
            continue;
        Row& row = rows.emplace_back();
        row.request = replaceAll(line, word, name);
        std::getline(data, line);
        row.response = replaceAll(line, word, name);
        std::getline(data, line);
        row.third = replaceAll(line, word, name);
    }
    EXPECT_GT(rows.size(), 10u);
    return rows;
}

class MachineCommands : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!Controller::getSingleton().findCommand("GetHosts"))
            registerMachineCommands();
    }
    void SetUp() override {
        MachineTestAccess::startAfresh();
        CommandLine::Consumed consumed;
        MachineTestAccess::startCommunicators({"-s"}, consumed);
    }
    void TearDown() override { MachineTestAccess::startAfresh(); }

    static Properties run(const std::string& request) {
        Properties response;
        static_cast<void>(Controller::getSingleton().executeCommand(Properties(request), response));
        response.remove(Error::STACK_TRACE_TAG);
        return response;
    }
};

TEST_F(MachineCommands, AnswerAndPrint) {
    MachineTestAccess::options().processFileName = "pids.txt";
    for (const Row& row : readRows("serial.txt", "HOST", Platform::io().getHostName())) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(run(row.request).toString(),
                  replaceAll(row.response, "USER", Platform::system().getUserName()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.third.empty() ? "" : row.third + '\n')
            << row.request;
    }
    EXPECT_EQ(Machine::getIOVerbosityLevel(), 3);
}

TEST_F(MachineCommands, TellAProfileOfOneProcess) {
    Properties profile = run(R"({"command":"GetProfile"})");
    const std::vector<std::string> names = profile.getNames();
    for (const char* const key : {"written", "product", "session", "commandLine", "warnings", "build",
                                  "hosts", "start", "spans", "bills", "options"}) {
        EXPECT_TRUE(profile.hasName(key)) << key;
        profile.remove(key);
    }
    for (const CommandKey& key : Controller::getSingleton().findCommand("GetProfile")->getHelp().results)
        EXPECT_NE(std::ranges::find(names, key.name), names.end()) << key.name;
    profile.remove("messages");
    profile.remove("events");
    EXPECT_EQ(profile.toString(), R"({"Command":"GetProfile","format":"orvex-profile","version":1,"mpi":"",)"
                                  R"("ranks":1,"rankHost":[0],"memory":{"on":false}})");
}

TEST_F(MachineCommands, ChangeFilesByTheirRole) {
    const std::filesystem::path origin = std::filesystem::current_path();
    for (const auto mode : {Machine::SERIAL_MODE, Machine::MASTER_MODE, Machine::WORKER_MODE}) {
        const bool isWorker = mode == Machine::WORKER_MODE;
        MachineTestAccess::playRole(mode, 2, isWorker ? 1 : 0);
        const std::string root = testing::TempDir() + "files-" + std::to_string(mode);
        std::filesystem::remove_all(root);
        std::filesystem::create_directories(root + "/folder");
        std::filesystem::current_path(root);
        std::ofstream("file") << "12345";
        std::ofstream("\u00fcml\u00e4ut") << "";
        for (const Row& row : readRows("files.txt", "ROOT", root))
            EXPECT_EQ(run(row.request).toString(), isWorker && !row.third.empty() ? row.third : row.response)
                << row.request << " in mode " << mode;
        std::filesystem::current_path(origin);
        std::filesystem::remove_all(root);
    }
}

TEST_F(MachineCommands, SwitchEventLoggingAndDeveloperChecks) {
    for (const bool on : {true, false, true}) {
        const std::string flag = std::string(R"(","enableFlag":)") + (on ? "true}" : "false}");
        run(R"({"command":"EnableEventLogging)" + flag);
        EXPECT_EQ(EventTracker::getSingleton().getEventLoggerManager().isOn(), on);
        run(R"({"command":"SetDevErrorChecking)" + flag);
        EXPECT_EQ(MachineTestAccess::getDevErrorChecking(), on);
    }
}

TEST_F(MachineCommands, WarnOfSetAffinityAndRefuseMoreFlagsThanThereAreProcessors) {
    const unsigned count = Machine::getHost().getCpuTopology().getNumberLpus();
    Properties args(R"({"command":"SetAffinity"})");
    args.set("mask", std::vector<bool>(count + 1, true));
    testing::internal::CaptureStdout();
    const Properties response = run(args.toString());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Warning: SetAffinity is intended for testing purposes only.\n"
              "Using it may well result in performance degradation\n");
    EXPECT_EQ(Error::getMessage(response), "\"mask\" may hold at most " + std::to_string(count) +
                                               " flags, one for each logical processing unit, but it holds " +
                                               std::to_string(count + 1));
}

TEST_F(MachineCommands, PrintTheFloatingPointStatusAroundEachSetOfOperations) {
    const auto print = [](const std::string& first, const std::string& second, const std::string& third) {
        return "Warning: The FpuTesting command is intended for testing purposes only.\n"
               "Initial check for FPEs ...\nClearing FPE status register ...\n"
               "Performing operations #1 ...\n" +
               first + "Performing operations #2 ...\n" + second +
               "Clearing FPE status register ...\nPerforming operations #3 ...\n" + third +
               "Clearing FPE status register ...\nFinal check for FPEs ...\n";
    };
    const std::string check = "Checking FPE status register ...\n";
    const std::string inContext = "Checking FPE status register (context)...\n";
    const std::string inf = "  result = inf\n";
    const std::string nan = "  result = -nan\n";
    const std::string division = "  FPE: DIV by zero\n";
    const std::string invalid = "  FPE: invalid operation\n";
    const std::string overflow = "  FPE: overflow\n";
    const struct {
        std::string arguments, printed;
    } rows[] = {
        {"", print(check, check, check)},
        {R"(,"op1":1,"op2":4,"op3":2)",
         print(inf + check + division, inf + check + division + overflow, nan + check + invalid)},
        {R"(,"op1":1,"op2":4,"isolated":true)",
         print(inf + check + division, inf + inContext + overflow + check + division, check)},
        {R"(,"op1":56,"op2":64,"op3":133)",
         print("  result = 1.11254e-308\n  result = 4.94066e-324\n  result = 4.94066e-24\n" + check, check,
               inf + inf + check + division + invalid + overflow)},
    };
    for (const auto& row : rows) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(run(R"({"command":"FpuTesting")" + row.arguments + "}").toString(),
                  R"({"Command":"FpuTesting","pass":true,"message":"Successfully executed FPU testing."})");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.printed) << row.arguments;
        EXPECT_EQ(messageOf<Error>(&GlobalFloatingPointError::assertNoError), "") << row.arguments;
    }
}

TEST_F(MachineCommands, FailBySegmentationFaultsWithAddressAndStack) {
    if (!ORVEX_PASSES_FAULTS)
        GTEST_SKIP();
    SignalHandler::install();
    for (const char* who : {"Master", "Synchronous", "Asynchronous"}) {
        Properties response;
        const Properties command(std::string(R"({"command":"Invoke)") + who + R"(SegmentationError"})");
        EXPECT_FALSE(Controller::getSingleton().executeCommand(command, response));
        EXPECT_EQ(Error::getMessage(response), "Segmentation fault: address not mapped");
        EXPECT_EQ(response.getString("Address"), "0x10");
        EXPECT_NE(response.getString(Error::STACK_TRACE_TAG).find("writeToUnmappedAddress"),
                  std::string::npos);
    }
    SignalHandler::uninstall();
}

TEST_F(MachineCommands, StandOnTheHostOfAProcessAlone) {
    const MachineHost& host = Machine::getHost();
    EXPECT_TRUE(host.firstProcessOnHost() && !host.masterOnHost());
    EXPECT_EQ(host.getHostPidMap(),
              (MachineHost::HostPidMap{
                  {host.getHostName(), {static_cast<unsigned>(Platform::process().getPid()), 0u}}}));
    expectAssertion([&] { host.getIntraHostComm(); }, "Cannot access Intra-host Communicator in serial",
                    "hasIntraHostComm()", "MachineHost.cpp");
    CommandLine::Consumed consumed;
    expectAssertion([&] { MachineTestAccess::startCommunicators({"-s"}, consumed); }, "Host already enabled",
                    "!_host", "MachineStart.cpp");
}

} // namespace
