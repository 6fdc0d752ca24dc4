// The process before, beside and without a job: roles, accessors, session and process files, the ways to the
// end.

#include "machine/Machine.h"
#include "machine/Communicator.h"
#include "machine/MachineHost.h"
#include "machine/files/StateFileUtilities.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/StringHelper.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <fstream>
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
    Machine& machine = Machine::getSingleton();
    EXPECT_TRUE(Machine::isSerial() && !Machine::isMaster() && !Machine::isParallel());
    EXPECT_EQ(Machine::nProcesses(), 1u);
    EXPECT_EQ(machine.getState(), Machine::AWAITING_COMMAND);
    machine.setParallelIo(true);
    EXPECT_FALSE(machine.isParallelIo());
    EXPECT_EQ(machine.getTotalCommunicationTime(), 0.0);
    EXPECT_FALSE(machine.communicationTimerEnabled());
    std::vector<std::string> hosts = {"old"};
    machine.getHostsOnMaster(hosts);
    EXPECT_EQ(hosts, std::vector<std::string>{Platform::io().getHostName()});
}

TEST_F(MachineTest, WhatDoesNotExistYetIsAnInternalError) {
    const auto expect = [](void (*access)(), const char* message, const char* condition,
                           const char* file = "MachineGround.cpp") {
        expectAssertion(access, message, condition, file);
    };
    expect([] { Machine::globalCommunicator(); }, "Attempt to access GlobalCommunicator in serial",
           "isParallel()");
    expect([] { Machine::sharedMemCommunicator(Machine::HOST_SCOPE); },
           "Attempt to access sharedMemCommunicator in serial", "isParallel()");
    expect([] { Machine::hasSparseCommunicator(Machine::NUMA_SCOPE); },
           "Attempt to access interNodeCommunicator in serial", "isParallel()");
    expect([] { Machine::getHost(); }, "Host is not enabled", "_host");
    expect([] { Machine::getSingleton().getStandardStreamManager(); }, "StandardStreamManager is NULL",
           "_standardStreamManager", "Machine.cpp");
}

TEST_F(MachineTest, StatesHaveTheirWords) {
    const std::vector<std::pair<int, const char*>> rows = {{-1, "Unknown"},           {0, "Awaiting command"},
                                                           {1, "Gathering response"}, {2, "Handling error"},
                                                           {3, "Processing"},         {17, "Unknown"}};
    for (const auto& [state, words] : rows)
        EXPECT_EQ(Machine::getSingleton().getStateString(static_cast<Machine::NodeState>(state)), words);
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
    EXPECT_EQ(StateFileUtilities::getStateFileNotFoundErrorMessage(path(L"full"), false),
              "Cannot open file: " + narrow(L"full"));
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
    Machine::endFailedStart(ExitStatus(ExitStatus::SERVER_ERROR),
                            "a failed start"); // returns: there is no job
    EXPECT_EXIT(MachineTestAccess::runRole({"-proxy", "h", "-encoded-proxycmd", "YQ==", "-noconnect"}),
                testing::ExitedWithCode(32), "^\nExit error: .*proxy");
}
