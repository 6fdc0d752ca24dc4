// The road of a command in a serial process, and the roles that CommandController refuses.

#include "machine/CommandController.h"
#include "machine/CommandAutoLock.h"
#include "machine/Machine.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "platform/FloatingPointErrorRecord.h"
#include "platform/Mutex.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace {

class CommandControllerTest : public testing::Test {
protected:
    void SetUp() override { MachineTestAccess::startAfresh(); }
    void TearDown() override {
        MachineTestAccess::playRole(Machine::SERIAL_MODE, 1, 0);
        CommandController::getSingleton().reset();
    }
};

/// Leaves a floating-point fault behind, and fails on top of it when told to.
class FaultingCommand : public Command {
public:
    FaultingCommand()
        : Command({"Leaves a fault behind", {{"fail", "bool", "with an error on top", false}}}) {}
    void execute(const Properties& args, Properties& response) override {
        FloatingPointErrorRecord::set("a fault");
        if (args.hasName("fail"))
            throw InputError("its own error");
        response.set("done", true);
    }
    std::string getName() const override { return "TestFaulting"; }
};

/// Registered once, as a command is for the life of the process.
void registerFaultingCommand() {
    if (!Controller::getSingleton().findCommand("TestFaulting"))
        Controller::getSingleton().registerCommand(new FaultingCommand);
}

bool lockIsFree() {
    bool taken = false;
    std::thread([&taken] {
        if ((taken = Controller::getSingleton().getLock().tryLock()))
            Controller::getSingleton().getLock().unlock();
    }).join();
    return taken;
}

} // namespace

TEST_F(CommandControllerTest, AFloatingPointFaultFailsTheCommandOnceAndNamesIt) {
    registerFaultingCommand();
    CommandController& controller = CommandController::getSingleton();
    const auto run = [&controller](bool fail) {
        Properties command;
        command.set(Command::COMMAND_TAG, "TestFaulting");
        if (fail)
            command.set("fail", true);
        Properties response;
        controller.masterExecuteCommand(command, response);
        return response;
    };
    const Properties faulted = run(false);
    EXPECT_EQ(Error::getMessage(faulted),
              "A floating point error has occurred. The following error has been logged:\n  a fault\n"
              "Please check your usage and inputs.");
    EXPECT_TRUE(faulted.hasName(CommandController::COMMAND_KEY));
    EXPECT_FALSE(faulted.hasName(CommandController::RANK_KEY));
    EXPECT_EQ(Error::getMessage(run(true)), "its own error");
    // The record is gone with the error that told it.
    Properties next;
    Properties answer;
    next.set(Command::COMMAND_TAG, "ExitCommandLoop");
    EXPECT_TRUE(controller.masterExecuteCommand(next, answer)) << answer.toString();
}

TEST_F(CommandControllerTest, WorkersMayNotExecuteCommandsThemselves) {
    CommandController& controller = CommandController::getSingleton();
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    Properties response;
    const std::function<void()> calls[] = {[&] { controller.masterExecuteCommand(Properties(), response); },
                                           [&] { controller.masterExecuteRestoreState(L"a.sim"); },
                                           [&] { controller.releaseWorkers(); }};
    for (const auto& call : calls)
        expectAssertion(
            call, "Only Serial or Controller process can execute Commands outside of listen/execute loop",
            "Machine::isSerial() || Machine::isMaster()", "CommandController.cpp");
}

TEST_F(CommandControllerTest, TheAutoLockHoldsTheControllerButNotOnAWorker) {
    EXPECT_TRUE(lockIsFree());
    {
        const CommandAutoLock lock;
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_TRUE(lockIsFree());
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    const CommandAutoLock lock;
    EXPECT_TRUE(lockIsFree());
}
