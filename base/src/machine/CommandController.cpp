#include "machine/CommandController.h"

#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/GlobalFloatingPointExceptionStatus.h"
#include "machine/Machine.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/EventTracker.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/Server.h"

#include <iostream>
#include <string_view>
#include <utility>
#include <vector>

namespace {

bool isSerialOrMaster() {
    return Machine::isSerial() || Machine::isMaster();
}

/// Replaces the error that may stand in `response` by that of another rank.
void takeError(const Properties& error, Properties& response) {
    for (const char* tag : {Error::ERROR_TAG, Error::MESSAGE_TAG, Error::SEVERITY_TAG})
        response.remove(tag);
    response.set(Error::ERROR_TAG, error.getString(Error::ERROR_TAG));
    response.set(Error::MESSAGE_TAG, error.getString(Error::MESSAGE_TAG));
    if (error.hasName(Error::SEVERITY_TAG))
        response.set(Error::SEVERITY_TAG, error.getInt(Error::SEVERITY_TAG));
}

void assertMayExecuteCommands() {
    ORVEX_ASSERT_AS(isSerialOrMaster(), "Machine::isSerial() || Machine::isMaster()",
                    "Only Serial or Controller process can execute Commands outside of listen/execute loop");
}

/// The one way to end a worker's loop.
class ExitCommandLoop : public NoResultCommand {
public:
    static constexpr const char* NAME = "ExitCommandLoop";

    ExitCommandLoop()
        : NoResultCommand({"Sends the workers out of their command loop; the master's own business"}) {}
    std::string getName() const override { return NAME; }
    using NoResultCommand::execute;
    void execute(const Properties&) override {}
};

[[maybe_unused]] const bool exitCommandLoopIsRegistered = [] {
    Controller::getSingleton().registerCommand(new ExitCommandLoop);
    return true;
}();

} // namespace

CommandController* CommandController::_singleton = nullptr;

class CommandController::ScatterCommandObserver : public Observer {
public:
    explicit ScatterCommandObserver(CommandController* controller) : _controller(controller) {}
    void update(Properties& command) override {
        ORVEX_ASSERT(Machine::isMaster(),
                     "Only the master can observe the Scatter/Gather Command Observable");
        _controller->scatterCommand(command);
        Machine::getSingleton().setState(Machine::PROCESSING);
    }

private:
    CommandController* _controller;
};

class CommandController::GatherResponseObserver : public Observer {
public:
    explicit GatherResponseObserver(CommandController* controller) : _controller(controller) {}
    void update(Properties& response) override {
        ORVEX_ASSERT(Machine::isMaster(),
                     "Only the master can observe the Scatter/Gather Command Observable");
        Machine::getSingleton().setState(Machine::GATHERING_RESPONSE);
        _controller->gatherResponse(response);
        Machine::getSingleton().setState(Machine::AWAITING_COMMAND);
    }

private:
    CommandController* _controller;
};

class CommandController::PostExecuteFloatingPointErrorObserver : public Observer {
public:
    explicit PostExecuteFloatingPointErrorObserver(CommandController* controller) : _controller(controller) {}
    void update(Properties& response) override {
        ORVEX_ASSERT(Machine::isSerial(),
                     "Only serial should update the PostExecuteFloatingPointErrorObservable");
        _controller->postExecuteFloatingPointErrorCheck(response);
    }

private:
    CommandController* _controller;
};

class CommandController::CommandLoop {
public:
    explicit CommandLoop(CommandController* controller) : _controller(controller) {}
    virtual ~CommandLoop() = default;
    CommandLoop(const CommandLoop&) = delete;
    CommandLoop& operator=(const CommandLoop&) = delete;

protected:
    CommandController* _controller;
};

/// Ends the workers' loop when the master leaves its own, by return or by exception.
class CommandController::SerialMasterCommandLoop : public CommandLoop {
public:
    using CommandLoop::CommandLoop;
    ~SerialMasterCommandLoop() override {
        try {
            _controller->releaseWorkers();
        } catch (const std::exception& error) {
            // The workers stand in their loop for good, and a destructor has nobody to tell.
            std::cerr << "\nCan't release the workers: " << error.what() << std::endl;
            Machine::getSingleton().abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR));
        }
    }
};

class CommandController::SerialMasterQueuedCommandLoop : public SerialMasterCommandLoop {
public:
    explicit SerialMasterQueuedCommandLoop(CommandController* controller)
        : SerialMasterCommandLoop((assertRole(), controller)) {}

private:
    static void assertRole() {
        ORVEX_ASSERT_AS(isSerialOrMaster(), "Machine::isSerial() || Machine::isMaster()",
                        "Only Serial or Controller can enter SerialMasterCommandLoop");
    }
};

class CommandController::SlaveCommandLoop : public CommandLoop {
public:
    using CommandLoop::CommandLoop;

    void run() {
        ORVEX_ASSERT_AS(!isSerialOrMaster(), "!(Machine::isSerial() || Machine::isMaster())",
                        "Only Worker can enter WorkerCommandLoop");
        while (!_exit)
            serveOne();
    }

private:
    void serveOne() {
        Machine& machine = Machine::getSingleton();
        Properties command;
        Properties response;
        machine.setState(Machine::AWAITING_COMMAND);
        try {
            _controller->scatterCommand(command);
        } catch (const Error&) {
            return; // nothing has come that could be run; the next one may
        }
        _exit = Command::getCommandName(command) == ExitCommandLoop::NAME;
        machine.setState(Machine::PROCESSING);
        // A failure stands in the response, where the gathering finds it.
        static_cast<void>(Controller::getSingleton().executeCommand(command, response));
        machine.setState(Machine::GATHERING_RESPONSE);
        _controller->gatherResponse(response);
        machine.setState(Machine::AWAITING_COMMAND);
    }

    bool _exit = false;
};

/// The ranks stand at a known point: the sleeping synchronisation isn't wanted while this lives.
class CommandController::SpinWaitScope {
public:
    explicit SpinWaitScope(CommandController& controller)
        : _controller(controller), _before(controller.getSpinWait()) {
        _controller.setSpinWait(true);
    }
    ~SpinWaitScope() { _controller.setSpinWait(_before); }
    SpinWaitScope(const SpinWaitScope&) = delete;
    SpinWaitScope& operator=(const SpinWaitScope&) = delete;

private:
    CommandController& _controller;
    bool _before;
};

CommandController& CommandController::getSingleton() {
    if (!_singleton)
        _singleton = new CommandController;
    return *_singleton;
}

void CommandController::reset() {
    delete std::exchange(_singleton, nullptr);
}

CommandController::CommandController()
    : _scatterCommandObserver(std::make_unique<ScatterCommandObserver>(this)),
      _gatherResponseObserver(std::make_unique<GatherResponseObserver>(this)),
      _postExecuteObserver(std::make_unique<PostExecuteFloatingPointErrorObserver>(this)) {
    Controller& controller = Controller::getSingleton();
    if (Machine::isMaster()) {
        controller.getMasterScatterCommandObservable().attach(*_scatterCommandObserver);
        controller.getMasterGatherResponseObservable().attach(*_gatherResponseObserver);
    } else if (Machine::isSerial()) {
        controller.getPostExecuteFloatingPointErrorObservable().attach(*_postExecuteObserver);
    }
}

CommandController::~CommandController() {
    Controller& controller = Controller::getSingleton();
    controller.getMasterScatterCommandObservable().detach(*_scatterCommandObserver);
    controller.getMasterGatherResponseObservable().detach(*_gatherResponseObserver);
    controller.getPostExecuteFloatingPointErrorObservable().detach(*_postExecuteObserver);
}

void CommandController::processCommands() {
    if (!isSerialOrMaster()) {
        SlaveCommandLoop(this).run();
        return;
    }
    const SerialMasterCommandLoop loop(this);
    Controller::getSingleton().processCommands();
}

void CommandController::processQueuedCommands() {
    const bool hasCommands = isSerialOrMaster() && Controller::getSingleton().hasQueuedCommands();
    if (!GlobalCondition(hasCommands, GlobalCondition::ON_MASTER))
        return;
    GlobalFloatingPointExceptionStatus::AssertNoException(AssertNoFpeAccessKey());
    const SpinWaitScope spinning(*this);
    if (!isSerialOrMaster()) {
        SlaveCommandLoop(this).run();
        return;
    }
    {
        const SerialMasterQueuedCommandLoop loop(this);
        Controller::getSingleton().processQueuedCommands();
    }
    Server::getSingleton().flushNotifies();
}

bool CommandController::masterExecuteCommand(const Properties& command, Properties& response) {
    assertMayExecuteCommands();
    return Controller::getSingleton().executeCommand(command, response);
}

void CommandController::masterExecuteRestoreState(const std::wstring& filename) {
    Properties command;
    Properties response;
    command.set(Command::COMMAND_TAG, "RestoreState");
    command.set("filename", filename);
    if (!masterExecuteCommand(command, response))
        raise(NonRecoverableError("Simulation file could not be loaded: " + Error::getMessage(response)));
}

void CommandController::releaseWorkers() {
    assertMayExecuteCommands();
    if (!Machine::isMaster())
        return;
    Properties command;
    command.set(Command::COMMAND_TAG, ExitCommandLoop::NAME);
    // Nobody waits for the answer.
    static_cast<void>(Controller::getSingleton().execute(command));
}

void CommandController::scatterCommand(Properties& command) const {
    const EventTracker::Track track("CommandController", "scatterCommand");
    Communicator& ranks = Machine::globalCommunicator();
    std::string text = command.toString();
    if (!_spinWait)
        ranks.noSpinSynchronise(1.0);
    ranks.broadcast(text, Communicator::masterRank());
    command = Properties(text);
}

bool CommandController::gatherResponse(Properties& response) const {
    const EventTracker::Track track("CommandController", "gatherResponse");
    postExecuteFloatingPointErrorCheck(response);
    parseErrorProperties(response);
    return true;
}

void CommandController::postExecuteFloatingPointErrorCheck(Properties& response) const {
    try {
        GlobalFloatingPointExceptionStatus::AssertNoException(AssertNoFpeAccessKey());
    } catch (const Error& error) {
        if (Error::isErrorIn(response))
            return;
        const std::string name =
            response.hasName(COMMAND_KEY) ? response.getString(COMMAND_KEY) : "Unknown Command";
        response = error.getProperties();
        response.set(COMMAND_KEY, name);
    }
}

void CommandController::parseErrorProperties(Properties& response) const {
    const std::string mine = Error::isErrorIn(response) ? response.toString() : std::string();
    std::string texts;
    std::vector<unsigned> lengths;
    Machine::globalCommunicator().allGatherVector(mine, texts, lengths);

    std::string_view rest = texts;
    for (unsigned rank = 0; rank < lengths.size() && !rest.empty(); ++rank) {
        const std::string_view text = rest.substr(0, lengths[rank]);
        rest.remove_prefix(lengths[rank]);
        if (text.empty())
            continue;
        const Properties error(text);
        if (Error::getMessage(error).empty())
            continue;
        takeError(error, response);
        if (rank != 0)
            response.set(RANK_KEY, rank);
        return;
    }
}
