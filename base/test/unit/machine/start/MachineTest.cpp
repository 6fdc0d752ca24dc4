// The process before, beside and without a job: roles, accessors, and the ways to the end.

#include "machine/Machine.h"
#include "machine/CommandAutoLock.h"
#include "machine/CommandController.h"
#include "machine/Communicator.h"

#include "kernel/Controller.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Mutex.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace {

class MachineProcess : public testing::Test {
protected:
    void SetUp() override { MachineTestAccess::startAfresh(); }
    void TearDown() override {
        MachineTestAccess::startAfresh();
        CommandController::getSingleton().reset();
    }
};

bool lockIsFree() {
    bool taken = false;
    std::thread([&taken] {
        if ((taken = Controller::getSingleton().getLock().tryLock()))
            Controller::getSingleton().getLock().unlock();
    }).join();
    return taken;
}

} // namespace

TEST_F(MachineProcess, RaisesForWhatItDoesNotHave) {
    struct Row {
        std::function<void()> access;
        const char* message;
        const char* condition;
        const char* file = "MachineGround.cpp";
        bool worker = false;
    };
    const char* const outside =
        "Only Serial or Controller process can execute Commands outside of listen/execute loop";
    const char* const roles = "Machine::isSerial() || Machine::isMaster()";
    const char* const controllerFile = "CommandController.cpp";
    CommandController& controller = CommandController::getSingleton();
    Properties response;
    const Row rows[] = {
        {[] { Machine::globalCommunicator(); }, "Attempt to access GlobalCommunicator in serial",
         "isParallel()"},
        {[] { Machine::sharedMemCommunicator(Machine::HOST_SCOPE); },
         "Attempt to access sharedMemCommunicator in serial", "isParallel()"},
        {[] { Machine::hasSparseCommunicator(Machine::NUMA_SCOPE); },
         "Attempt to access interNodeCommunicator in serial", "isParallel()"},
        {[] { Machine::getHost(); }, "Host is not enabled", "_host"},
        {[] { Machine::getSingleton().getStandardStreamManager(); }, "StandardStreamManager is NULL",
         "_standardStreamManager", "Machine.cpp"},
        {[&] { controller.masterExecuteCommand(Properties(), response); }, outside, roles, controllerFile,
         true},
        {[&] { controller.masterExecuteRestoreState(L"a.sim"); }, outside, roles, controllerFile, true},
        {[&] { controller.releaseWorkers(); }, outside, roles, controllerFile, true},
    };
    for (const Row& row : rows) {
        MachineTestAccess::playRole(row.worker ? Machine::WORKER_MODE : Machine::SERIAL_MODE,
                                    row.worker ? 2 : 1, row.worker ? 1 : 0);
        expectAssertion(row.access, row.message, row.condition, row.file);
    }
}

TEST_F(MachineProcess, LocksTheControllerButNotOnAWorker) {
    {
        const CommandAutoLock lock;
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_TRUE(lockIsFree());
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    const CommandAutoLock lock;
    EXPECT_TRUE(lockIsFree());
}

TEST_F(MachineProcess, EndsWithItsExitValue) {
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
    EXPECT_EXIT(MachineTestAccess::runRole({"-nonsense"}), testing::ExitedWithCode(2),
                "^\nUnrecognized argument '-nonsense'\n");
}
