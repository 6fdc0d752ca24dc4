#include "machine/CommandController.h"

#include "kernel/profile/RankList.h"
#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/GlobalFloatingPointExceptionStatus.h"
#include "machine/Machine.h"
#include "machine/checks/CollectiveCheck.h"
#include "machine/hosts/HostClocks.h"
#include "machine/hybrid/HostMeeting.h"
#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/OperationRecord.h"
#include "machine/reports/CommandBill.h"
#include "machine/reports/CommandMeter.h"
#include "machine/start/StopLimit.h"

#include "kernel/BillBook.h"
#include "kernel/Command.h"
#include "kernel/EventTracker.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/Server.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iostream>
#include <numeric>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr MessageOperation AWAIT_COMMAND{"CommandController::awaitCommand", CommunicatorStatistics::GLOBAL,
                                         true, Collective::SLEEPING_SYNCHRONISE};

/// The name of the command that gave `response`: the command may have put something else in its place.
std::string commandIn(const Properties& response) {
    constexpr const char* UNKNOWN = "Unknown Command";
    try {
        return response.getOr(CommandController::COMMAND_KEY, UNKNOWN);
    } catch (const InputError&) {
        return UNKNOWN;
    }
}

/// The text of an error. Of one that can't be written, for example since it is nested too deep, the message
/// alone: the other ranks wait for it.
std::string writeError(const Properties& error) {
    try {
        return error.toString();
    } catch (const Error&) {
        Properties rest;
        Error::complete(rest, Error::getMessage(error), Error::SOLVER_KIND);
        return rest.toString();
    }
}

/// A rank tells this to the others at the end of a command.
/// The length of its message, whether it failed, whether rank 0 wants the clocks measured, its share.
using EndRecord = std::array<std::uint64_t, 6>;
constexpr std::size_t CLOCKS = 2;
constexpr std::size_t SHARE = 3;

/// A space before the text of a command: all ranks measure the clocks of the hosts before they run it.
constexpr char MEASURE_CLOCKS = ' ';

/// This rank's error as the others compare it.
std::string messageOf(const Properties* error) {
    constexpr std::size_t MAX_COMPARED = 4096; // of each message: the winner's is sent whole
    return error ? Error::getMessage(*error).substr(0, MAX_COMPARED) : std::string();
}

/// Collective: the records of all ranks.
std::vector<EndRecord> gatherRecords(const Properties* mine, std::size_t length) {
    EndRecord record{length, mine ? 1u : 0u, HostClocks::isDue() ? 1u : 0u};
    std::ranges::copy(CollectiveCheck::getShare(), record.begin() + SHARE);
    std::vector<EndRecord> records;
    Machine::commandCommunicator().allGather(record, records);
    return records;
}

/// The error of the lowest rank that has one with a message, on every rank; nothing when there is none.
/// Collective when there is one: an all-gather of the messages, and a broadcast.
/// @param mine  this rank's error, null when it has none
std::optional<Properties> gatherError(const Properties* mine, const std::string& message,
                                      const std::vector<EndRecord>& records) {
    Communicator& communicator = Machine::commandCommunicator();
    std::vector<unsigned> ranks;
    std::vector<unsigned> lengths;
    for (const EndRecord& record : records) {
        if (record[0] != 0)
            ranks.push_back(static_cast<unsigned>(lengths.size()));
        lengths.push_back(static_cast<unsigned>(record[0]));
    }
    if (ranks.empty())
        return std::nullopt;
    std::string messages(std::accumulate(lengths.begin(), lengths.end(), std::size_t{0}), '\0');
    communicator.allGatherVector(message.data(), message.size(), messages.data(), lengths.data(), nullptr);
    std::set<std::string_view> different;
    std::string_view rest = messages;
    for (const unsigned rank : ranks) {
        different.insert(rest.substr(0, lengths[rank]));
        rest.remove_prefix(lengths[rank]);
    }
    const unsigned winner = ranks.front();
    std::string text;
    if (mine != nullptr && communicator.myRank() == winner)
        text = writeError(*mine);
    communicator.broadcast(text, winner);
    Properties error(text);
    for (const char* key : {CommandController::RANK_KEY, CommandController::MESSAGES_KEY})
        error.remove(key); // of the ranks the job alone can tell
    if (winner != 0)
        error.set(CommandController::RANK_KEY, winner);
    error.set(CommandController::RANKS_KEY, RankList::describe(ranks));
    if (different.size() > 1)
        error.set(CommandController::MESSAGES_KEY, different.size());
    return error;
}

/// An error on all ranks when they called different collective operations. A rank that failed has left out
/// some, so that its error alone counts. Collective when they did.
std::optional<Properties> compareCollectives(const Properties& response,
                                             const std::vector<EndRecord>& records) {
    if (std::ranges::any_of(records, [](const EndRecord& record) { return record[1] != 0; }))
        return std::nullopt;
    std::vector<CollectiveCheck::Share> shares(records.size());
    for (std::size_t rank = 0; rank < records.size(); ++rank)
        std::copy(records[rank].begin() + SHARE, records[rank].end(), shares[rank].begin());
    if (CollectiveCheck::agree(shares))
        return std::nullopt;
    const std::string command = commandIn(response);
    Properties properties;
    properties.set(Error::KIND_TAG, Error::INTERNAL_KIND);
    properties.set(CommandController::COMMAND_KEY, command);
    const std::string text = CollectiveCheck::explain(Machine::commandCommunicator(), command, shares);
    return RecoverableError(text, Error::RECOVERABLE_SEVERITY, properties).toResponse();
}

/// The records of this process tell from here on that no command runs.
struct EndOfCommand {
    EndOfCommand() = default;
    bool isMeasured = false; ///< its cost has been taken
    ~EndOfCommand() {
        if (!isMeasured)
            CommandMeter::getSingleton().end(true);
        CollectiveHistory::endCommand();
        OperationRecord::endCommand();
    }
    EndOfCommand(const EndOfCommand&) = delete;
    EndOfCommand& operator=(const EndOfCommand&) = delete;
};

/// Puts the bill into the outcome and into the book. Serial or master.
void writeBill(const std::string& command, const std::vector<CommandBill::Cost>& costs, double began,
               Controller::Outcome& outcome) {
    Properties bill = CommandBill::describe(costs);
    bill.set("command", command);
    const auto running = Controller::getSingleton().getRunningCommand();
    if (running && !running->client.empty())
        bill.set("client", running->client);
    bill.set("began", began);
    bill.set("failed", outcome.hasFailed());
    BillBook::getSingleton().add(bill);
    outcome.bill = std::move(bill);
}

void assertMayExecuteCommands() {
    ORVEX_ASSERT_AS(Machine::isSerialOrMaster(), "Machine::isSerial() || Machine::isMaster()",
                    "Only Serial or Controller process can execute Commands outside of listen/execute loop");
}

/// The one way to end a worker's loop.
class ExitCommandLoop : public NoResultCommand {
public:
    static constexpr const char* NAME = "ExitCommandLoop";

    ExitCommandLoop() : NoResultCommand({"Sends the workers out of their command loop."}, Access::SYSTEM) {}
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
    void update(Properties&) override {
        ORVEX_ASSERT(Machine::isMaster(),
                     "Only the master can observe the Scatter/Gather Command Observable");
        Machine::getSingleton().setState(Machine::GATHERING_RESPONSE);
        _controller->gatherResponse(Controller::getSingleton().getToldOutcome());
        Machine::getSingleton().setState(Machine::AWAITING_COMMAND);
    }

private:
    CommandController* _controller;
};

/// In a serial process, whose commands take no way to other ranks.
class CommandController::SerialBeginObserver : public Observer {
public:
    void update(Properties& command) override {
        const std::string name = Command::getCommandName(command);
        OperationRecord::beginCommand(name);
        CommandMeter::getSingleton().begin(name);
    }
};

class CommandController::SerialEndObserver : public Observer {
public:
    void update(Properties&) override {
        Controller::Outcome& outcome = Controller::getSingleton().getToldOutcome();
        CommandMeter& meter = CommandMeter::getSingleton();
        const std::string command = meter.getCommand();
        const double began = meter.getBeginning();
        writeBill(command, {meter.end(outcome.hasFailed())}, began, outcome);
        OperationRecord::endCommand();
    }
};

class CommandController::PostExecuteFloatingPointErrorObserver : public Observer {
public:
    explicit PostExecuteFloatingPointErrorObserver(CommandController* controller) : _controller(controller) {}
    void update(Properties&) override {
        ORVEX_ASSERT(Machine::isSerial(),
                     "Only serial should update the PostExecuteFloatingPointErrorObservable");
        _controller->postExecuteFloatingPointErrorCheck(Controller::getSingleton().getToldOutcome());
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
            // The workers would stay in their loop, and a destructor has nobody to tell.
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
        ORVEX_ASSERT_AS(Machine::isSerialOrMaster(), "Machine::isSerial() || Machine::isMaster()",
                        "Only Serial or Controller can enter SerialMasterCommandLoop");
    }
};

class CommandController::SlaveCommandLoop : public CommandLoop {
public:
    using CommandLoop::CommandLoop;

    void run() {
        ORVEX_ASSERT_AS(!Machine::isSerialOrMaster(), "!(Machine::isSerial() || Machine::isMaster())",
                        "Only Worker can enter WorkerCommandLoop");
        while (!_exit)
            serveOne();
    }

private:
    void serveOne() {
        Machine& machine = Machine::getSingleton();
        Properties command;
        machine.setState(Machine::AWAITING_COMMAND);
        try {
            _controller->scatterCommand(command);
        } catch (const Error&) {
            return; // nothing has come that could be run; the next one may
        }
        _exit = Command::getCommandName(command) == ExitCommandLoop::NAME;
        machine.setState(Machine::PROCESSING);
        Controller::Outcome outcome = Controller::getSingleton().executeScattered(command);
        machine.setState(Machine::GATHERING_RESPONSE);
        _controller->gatherResponse(outcome);
        machine.setState(Machine::AWAITING_COMMAND);
    }

    bool _exit = false;
};

/// For ranks at a known point of a computation: no sleeping synchronisation while this lives.
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
      _serialBeginObserver(std::make_unique<SerialBeginObserver>()),
      _serialEndObserver(std::make_unique<SerialEndObserver>()),
      _postExecuteObserver(std::make_unique<PostExecuteFloatingPointErrorObserver>(this)) {
    Controller& controller = Controller::getSingleton();
    if (Machine::isMaster()) {
        controller.getMasterScatterCommandObservable().attach(*_scatterCommandObserver);
        controller.getMasterGatherResponseObservable().attach(*_gatherResponseObserver);
    } else if (Machine::isSerial()) {
        controller.getMasterScatterCommandObservable().attach(*_serialBeginObserver);
        controller.getMasterGatherResponseObservable().attach(*_serialEndObserver);
        controller.getPostExecuteFloatingPointErrorObservable().attach(*_postExecuteObserver);
    }
}

CommandController::~CommandController() {
    Controller& controller = Controller::getSingleton();
    controller.getMasterScatterCommandObservable().detach(*_scatterCommandObserver);
    controller.getMasterGatherResponseObservable().detach(*_gatherResponseObserver);
    controller.getMasterScatterCommandObservable().detach(*_serialBeginObserver);
    controller.getMasterGatherResponseObservable().detach(*_serialEndObserver);
    controller.getPostExecuteFloatingPointErrorObservable().detach(*_postExecuteObserver);
}

void CommandController::processCommands() {
    if (!Machine::isSerialOrMaster()) {
        SlaveCommandLoop(this).run();
        return;
    }
    const SerialMasterCommandLoop loop(this);
    Controller::getSingleton().processCommands();
    StopLimit::enter("the release of the workers");
}

void CommandController::processQueuedCommands() {
    const bool hasCommands = Machine::isSerialOrMaster() && Controller::getSingleton().hasQueuedCommands();
    if (!GlobalCondition(hasCommands, GlobalCondition::ON_MASTER))
        return;
    GlobalFloatingPointExceptionStatus::AssertNoException(AssertNoFpeAccessKey());
    const SpinWaitScope spinning(*this);
    if (!Machine::isSerialOrMaster()) {
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
    Communicator& ranks = Machine::commandCommunicator();
    std::string text = command.toString();
    if (HostClocks::isDue())
        text.insert(text.begin(), MEASURE_CLOCKS);
    if (!_spinWait)
        HostMeeting::meet(ranks, AWAIT_COMMAND, 1.0);
    ranks.broadcast(text, Communicator::masterRank());
    command = Properties(text);
    const std::string name = Command::getCommandName(command);
    if (text.front() == MEASURE_CLOCKS)
        HostClocks::measure(ranks);
    OperationRecord::beginCommand(name);
    CollectiveHistory::beginCommand();
    CommandMeter::getSingleton().begin(name);
}

void CommandController::gatherResponse(Controller::Outcome& outcome) const {
    const EventTracker::Track track("CommandController", "gatherResponse");
    CommandBill::Cost cost;
    const std::string command = CommandMeter::getSingleton().getCommand();
    const double began = CommandMeter::getSingleton().getBeginning();
    {
        EndOfCommand end;
        const Properties* const mine = outcome.hasFailed() ? &outcome.response : nullptr;
        const std::string message = messageOf(mine);
        OperationRecord::setFailure(message);
        const std::vector<EndRecord> records = gatherRecords(mine, message.size());
        // Here all ranks have come to the end, and who came first has waited.
        cost = CommandMeter::getSingleton().end(
            std::ranges::any_of(records, [](const EndRecord& record) { return record[1] != 0; }));
        end.isMeasured = true;
        if (records.front()[CLOCKS] != 0)
            HostClocks::measure(Machine::commandCommunicator());
        std::optional<Properties> error = gatherError(mine, message, records);
        if (!error)
            error = compareCollectives(outcome.response, records);
        if (error)
            outcome = {Controller::Outcome::FAILED, std::move(*error)};
    }
    postExecuteFloatingPointErrorCheck(outcome);
    const std::vector<CommandBill::Cost> costs = CommandBill::gather(Machine::commandCommunicator(), cost);
    if (Machine::isMaster() && command != ExitCommandLoop::NAME)
        writeBill(command, costs, began, outcome);
}

/// A fault counts when no rank's command has failed by then.
void CommandController::postExecuteFloatingPointErrorCheck(Controller::Outcome& outcome) const {
    try {
        GlobalFloatingPointExceptionStatus::AssertNoException(AssertNoFpeAccessKey());
    } catch (const Error& error) {
        if (outcome.hasFailed())
            return;
        Properties response = error.toResponse();
        response.set(COMMAND_KEY, commandIn(outcome.response));
        outcome = {Controller::Outcome::FAILED, std::move(response)};
    }
}

void CommandController::parseErrorProperties(Properties& response) const {
    const Properties* const mine = Error::isErrorIn(response) ? &response : nullptr;
    const std::string message = messageOf(mine);
    const std::optional<Properties> error = gatherError(mine, message, gatherRecords(mine, message.size()));
    if (!error)
        return;
    for (const char* key :
         {Error::ERROR_TAG, Error::MESSAGE_TAG, Error::SEVERITY_TAG, RANK_KEY, MESSAGES_KEY})
        response.remove(key);
    response.merge(*error);
}
