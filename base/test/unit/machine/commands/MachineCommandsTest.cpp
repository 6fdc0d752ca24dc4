// The machine's commands in a process alone: what they answer, print and switch.

#include "machine/commands/MachineCommands.h"
#include "machine/CpuTopology.h"
#include "machine/MachineHost.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/EventLoggerManager.h"
#include "kernel/EventTracker.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/System.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

namespace {

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

    static Properties run(const std::string& name, const std::string& args = "{}") {
        Properties command(args);
        command.set(Command::COMMAND_TAG, name);
        Properties response;
        static_cast<void>(Controller::getSingleton().executeCommand(command, response));
        response.remove("Command");
        return response;
    }
};

TEST_F(MachineCommands, AnswerAndPrint) {
    MachineTestAccess::options().processFileName = "pids.txt";
    Properties hosts;
    hosts.set("Number Processes", 1u);
    hosts.set("Rank[0]", Platform::io().getHostName());
    Properties user;
    user.set("username", Platform::system().getUserName());
    struct Row {
        const char* name;
        const char* args;
        std::string response;
        const char* printed;
    };
    const std::vector<Row> rows = {
        {"GetProcessFileName", "{}", R"({"filename":"pids.txt"})", ""},
        {"GetHosts", "{}", hosts.toString(), ""},
        {"GetMpiVersion", "{}", R"({"Vendor":"","Version":"","MpiVersion":""})", ""},
        {"GetNumberOfWorkers", "{}", R"({"NumberOfWorkers":1})", ""},
        {"GetInterconnectName", "{}", R"({"Interconnect":""})", ""},
        {"GetUserName", "{}", user.toString(), ""},
        {"GetDoublePrecision", "{}", R"({"doubleprecision":true})", ""},
        {"PerformPerformanceTest", "{}", R"({"Number of Processes":1})", ""},
        {"GetCommunicationTimes", "{}", R"({"CommunicationTimes":[0.0]})", ""},
        {"PrintProcessSummary", "{}", "{}", ""},
        {"EnableIODebug", R"({"ioVerbosityLevel":3})", "{}", "Setting the i/o debug level to : 3\n"},
        {"EnableCommunicationTimer", R"({"enableFlag":true})", "{}", ""},
        {"EnableMpiDriverTracing", R"({"enableFlag":true})", "{}", ""},
        {"EnableProcessLogFile", R"({"enableFlag":true})", "{}", ""},
        {"EnableSlaveCout", R"({"enableflag":true})", "{}", ""},
        {"SetMaximumMessageBufferSize", R"({"size":64})", "{}",
         "Warning: cannot set message buffer size in serial!\n"},
    };
    for (const Row& row : rows) {
        testing::internal::CaptureStdout();
        const Properties response = run(row.name, row.args);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.printed) << row.name;
        EXPECT_EQ(response.toString(), Properties(row.response).toString()) << row.name;
    }
    EXPECT_EQ(Machine::getIOVerbosityLevel(), 3);
}

TEST_F(MachineCommands, SwitchEventLoggingAndDeveloperChecks) {
    for (const bool on : {true, false, true}) {
        const std::string args = on ? R"({"enableFlag":true})" : R"({"enableFlag":false})";
        run("EnableEventLogging", args);
        EXPECT_EQ(EventTracker::getSingleton().getEventLoggerManager().isOn(), on);
        run("SetDevErrorChecking", args);
        EXPECT_EQ(MachineTestAccess::getDevErrorChecking(), on);
    }
    EXPECT_FALSE(Error::isErrorIn(run("ReportLogging")));
}

TEST_F(MachineCommands, WarnOfSetAffinityAndRefuseMoreFlagsThanThereAreProcessors) {
    const unsigned count = Machine::getHost().getCpuTopology().getNumberLpus();
    Properties args;
    args.set("mask", std::vector<bool>(count + 1, true));
    testing::internal::CaptureStdout();
    const Properties response = run("SetAffinity", args.toString());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Warning: SetAffinity is intended for testing purposes only.\n"
              "Using it may well result in performance degradation\n");
    EXPECT_EQ(Error::getMessage(response), "\"mask\" may hold at most " + std::to_string(count) +
                                               " flags, one for each logical processing unit, but it holds " +
                                               std::to_string(count + 1));
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
