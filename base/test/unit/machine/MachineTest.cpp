// The process before, beside and without a job: roles, accessors, session and process files, the ways to the
// end.

#include "machine/Machine.h"
#include "machine/Communicator.h"
#include "machine/MachineHost.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

namespace {

std::string contentOf(const std::wstring& path) {
    std::ostringstream text;
    text << std::ifstream(StringHelper::toString(path)).rdbuf();
    return text.str();
}

class MachineTest : public testing::Test {
protected:
    void SetUp() override {
        MachineTestAccess::startAfresh();
        _directory = Platform::filesystem().makeTemporaryDirectory(
            Platform::filesystem().getDefaultTemporaryDirectory(), L"orvex-machine-test");
    }
    void TearDown() override {
        MachineTestAccess::startAfresh();
        EXPECT_TRUE(Platform::filesystem().deleteTree(_directory));
    }
    std::wstring path(const std::wstring& name) const {
        return Platform::filesystem().join(_directory, name);
    }
    std::string narrow(const std::wstring& name) const { return StringHelper::toString(path(name)); }

    std::wstring _directory;
};

} // namespace

TEST_F(MachineTest, BeforeMainTheProcessIsSerial) {
    EXPECT_TRUE(Machine::isSerial());
    EXPECT_FALSE(Machine::isMaster());
    EXPECT_FALSE(Machine::isParallel());
    EXPECT_FALSE(Machine::isProxyServer());
    EXPECT_FALSE(Machine::isProxySessionDaemon());
    EXPECT_EQ(Machine::nProcesses(), 1u);
    EXPECT_EQ(Machine::getPartitionId(), 0u);
    EXPECT_EQ(Machine::getSingleton().getState(), Machine::AWAITING_COMMAND);
    EXPECT_EQ(Machine::getSingleton().getTaskId(), -1);
    EXPECT_FALSE(Machine::getSingleton().getExitStatus().hasError());
    Machine::getSingleton().setParallelIo(true);
    EXPECT_FALSE(Machine::getSingleton().isParallelIo());
    EXPECT_EQ(Machine::getSingleton().getTotalCommunicationTime(), 0.0);
    EXPECT_FALSE(Machine::getSingleton().communicationTimerEnabled());
    std::vector<std::string> hosts = {"old"};
    Machine::getSingleton().getHostsOnMaster(hosts);
    EXPECT_EQ(hosts, std::vector<std::string>{Platform::io().getHostName()});
}

TEST_F(MachineTest, WhatDoesNotExistYetIsAnInternalError) {
    struct Row {
        std::function<void()> access;
        const char* message;
        const char* condition;
    };
    const std::vector<Row> rows = {
        {[] { Machine::globalCommunicator(); }, "Attempt to access GlobalCommunicator in serial",
         "isParallel()"},
        {[] { Machine::sharedMemCommunicator(Machine::HOST_SCOPE); },
         "Attempt to access sharedMemCommunicator in serial", "isParallel()"},
        {[] { Machine::hasSparseCommunicator(Machine::NUMA_SCOPE); },
         "Attempt to access interNodeCommunicator in serial", "isParallel()"},
        {[] { Machine::getHost(); }, "Host is not enabled", "_host"},
        {[] { Machine::getSingleton().getStandardStreamManager(); }, "StandardStreamManager is NULL",
         "_standardStreamManager"},
    };
    for (const Row& row : rows) {
        try {
            row.access();
            ADD_FAILURE() << row.message;
        } catch (const InternalError& error) {
            EXPECT_STREQ(error.what(), row.message);
            EXPECT_EQ(error.getProperties().getString("Condition"), row.condition);
            EXPECT_EQ(error.getProperties().getString("File"), "base/src/machine/Machine.cpp");
        }
    }
}

TEST_F(MachineTest, StatesHaveTheirWords) {
    const std::vector<std::pair<int, const char*>> rows = {{-1, "Unknown"},           {0, "Awaiting command"},
                                                           {1, "Gathering response"}, {2, "Handling error"},
                                                           {3, "Processing"},         {17, "Unknown"}};
    for (const auto& [state, words] : rows)
        EXPECT_EQ(Machine::getSingleton().getStateString(static_cast<Machine::NodeState>(state)), words);
}

TEST_F(MachineTest, TheErrorHandlerOfAnUnthreadedJobSaysThatErrorsAreFatal) {
    testing::internal::CaptureStdout();
    MachineTestAccess::startParallelErrorHandler();
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    MachineTestAccess::startParallelErrorHandler();
    CommandLine::Consumed consumed;
    MachineTestAccess::parseCommonArgvs({"-nothreads"}, consumed);
    MachineTestAccess::startParallelErrorHandler();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "All internal errors will be treated as fatal\n");
    EXPECT_EQ(Machine::getSingleton().getState(), Machine::AWAITING_COMMAND);
}

TEST_F(MachineTest, ExitObserversAreToldThroughTheirOwnInterface) {
    struct Counter : Machine::OnExitObserver {
        void update(Properties&) override { ++count; }
        int count = 0;
    } counter;
    auto& observable = Machine::getSingleton().getOnExitObservable();
    observable.attach(counter);
    observable.notify();
    observable.detach(counter);
    observable.notify();
    EXPECT_EQ(counter.count, 1);
}

TEST_F(MachineTest, SessionFilesAreMadeFoundOrRefused) {
    std::ofstream(narrow(L"full")) << "state";
    std::ofstream(narrow(L"empty"));
    const std::wstring cwd = Platform::filesystem().getCurrentDirectory();
    const std::string missing = " (specify -new to create the file)\nServer working directory: '" +
                                StringHelper::toString(cwd) + "'\n";
    struct Row {
        std::wstring name;
        bool createNew;
        std::string key; ///< empty: accepted
        std::string message;
    };
    const std::vector<Row> rows = {
        {path(L"full"), false, "", ""},
        {path(L"empty"), false, "", ""},
        {path(L"empty"), true, "", ""},
        {path(L"made"), true, "", ""},
        {path(L"full"), true, "File",
         "Unable to create a new file " + narrow(L"full") + ".  The file already exists."},
        {path(L"none"), false, "Path", "Cannot open file: " + narrow(L"none") + missing},
        {path(L"no/dir"), true, "Path", "Cannot create file: " + narrow(L"no/dir") + missing},
        {_directory, false, "Path",
         "Cannot open file: " + StringHelper::toString(_directory) + ".  File is a directory.\n"},
        {_directory, true, "Path",
         "Cannot create file: " + StringHelper::toString(_directory) + ".  File is a directory.\n"},
    };
    for (const Row& row : rows) {
        MachineTestAccess::startAfresh();
        const std::string name = StringHelper::toString(row.name);
        testing::internal::CaptureStdout();
        try {
            MachineTestAccess::settleSessionFile(row.name, row.createNew);
            EXPECT_EQ(row.key, "") << name;
        } catch (const NonRecoverableError& error) {
            EXPECT_EQ(error.what(), row.message) << name;
            EXPECT_EQ(error.getProperties().getString(row.key), name);
            EXPECT_EQ(error.getProperties().getString(Error::ERROR_TAG), Error::DEFAULT_ERROR_TYPE);
        }
        const std::string output = testing::internal::GetCapturedStdout();
        EXPECT_EQ(output, row.key.empty() ? "" : "\nError: " + row.message + "\n");
        EXPECT_EQ(int(Machine::getSingleton().getExitStatus()), row.key.empty() ? 0 : 4) << name;
        EXPECT_EQ(contentOf(path(L"full")), "state");
    }
    EXPECT_EQ(Platform::filesystem().getSize(path(L"made")), 0);
}

TEST_F(MachineTest, TheProcessFileHasALineForTheSerialProcess) {
    const std::string line =
        Platform::io().getHostName() + ":" + std::to_string(Platform::process().getPid()) + "\n";
    MachineTestAccess::writeProcessFile();
    std::ofstream(narrow(L"procs"))
        << "something older that is longer than the line which takes its place\n\n\n";
    MachineTestAccess::setProcessFileName(narrow(L"procs"));
    MachineTestAccess::writeProcessFile();
    EXPECT_EQ(contentOf(path(L"procs")), line);

    MachineTestAccess::setProcessFileName(narrow(L"no/procs"));
    testing::internal::CaptureStdout();
    MachineTestAccess::writeProcessFile();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Warning : could not open process file : " + narrow(L"no/procs") +
                  "\nNo such file or directory (error 2)\n");
}

TEST_F(MachineTest, EachEndHasItsExitValue) {
    Machine& machine = Machine::getSingleton();
    machine.updateExitStatus(ExitStatus(ExitStatus::INVALID_SERVER_ARGUMENT));
    machine.updateExitStatus(ExitStatus(ExitStatus::INVALID_SERVER_ARGUMENT));
    EXPECT_EQ(int(machine.getExitStatus()), 2);
    EXPECT_EXIT(machine.abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR)),
                testing::ExitedWithCode(34), "");
    EXPECT_EXIT(Machine::abortFromAnywhere(), testing::ExitedWithCode(3), "");
    MachineTestAccess::startAfresh();
    Machine::endFailedStart(ExitStatus(ExitStatus::SERVER_ERROR)); // returns: there is no job
    EXPECT_EXIT(MachineTestAccess::runRole({narrow(L"none")}), testing::ExitedWithCode(36),
                "^\nExit error: \\{.*\"Message\":\"Cannot open file: .*\n");
    EXPECT_EXIT(MachineTestAccess::runRole({"-load"}), testing::ExitedWithCode(32),
                "^\nExit error: .*Simulation file could not be loaded: ");
    EXPECT_EXIT(MachineTestAccess::runRole({"-proxy", "h", "-encoded-proxycmd", "YQ==", "-noconnect"}),
                testing::ExitedWithCode(32), "^\nExit error: .*proxy");
}
