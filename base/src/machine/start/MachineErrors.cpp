// A non-recoverable error of this rank: the other ranks hear of it before it goes on its way.

#include "machine/Machine.h"

#include "machine/Communicator.h"
#include "machine/StandardStreamManager.h"
#include "machine/failures/LiveView.h"
#include "machine/failures/ParallelErrorHandler.h"
#include "machine/failures/RollCall.h"
#include "machine/failures/StuckWatch.h"
#include "machine/failures/TraceService.h"
#include "machine/ground/MachineOptions.h"
#include "machine/hosts/HostClocks.h"
#include "machine/messages/OperationRecord.h"
#include "machine/reports/CommandMeter.h"
#include "machine/start/LastWords.h"

#include "kernel/Error.h"
#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "kernel/Server.h"
#include "platform/Log.h"
#include "platform/StackSampler.h"
#include "platform/StackTracer.h"
#include "platform/StringHelper.h"
#include "platform/Thread.h"
#include "platform/Time.h"

#include <atomic>
#include <iostream>
#include <sstream>
#include <utility>

namespace {

constexpr const char* LIVE_METHOD = "server.live";
constexpr const char* TRACE_METHOD = "server.trace";
constexpr double OUTPUT_TIME = 5.0; ///< [s] for launchers to pass the last output on

/// One error at a time is handled; the start of the handler counts as one.
std::atomic<bool> isHandling{false};

/// Notes the state that clients and tools see, from any thread.
void showState(Machine::NodeState state) {
    if (Thread::isMain())
        Machine::setState(state);
}

/// For the roll call: the main thread stands here by this error.
void noteFailure(const std::string& message) {
    if (Thread::isMain())
        OperationRecord::setFailure(message);
}

class Handling {
public:
    Handling() { showState(Machine::HANDLING_ERROR); }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() {
        showState(Machine::AWAITING_COMMAND);
        isHandling = false;
    }
};

void addStackTrace(Properties& error) {
    if (!error.hasName(Error::STACK_TRACE_TAG))
        error.set(Error::STACK_TRACE_TAG, StringHelper::join(Platform::error().getStackTrace(), "\n"));
}

/// A line for the address of a segmentation fault.
std::string describeAddress(const Properties& error) {
    try {
        const std::string address = error.getOr("Address", "");
        return address.empty() ? address : "  Address " + address + "\n";
    } catch (const InputError&) {
        return {}; // an error of another kind, with a value of its own
    }
}

std::string describe(const Error& error) {
    std::string text = std::string("Error: ") + error.what() + "\n";
    text += describeAddress(error.getProperties());
    std::istringstream trace(error.getProperties().getOr(Error::STACK_TRACE_TAG, ""));
    for (std::string line; std::getline(trace, line);)
        text += "  " + line + "\n";
    return text;
}

} // namespace

void Machine::startParallelErrorHandler() {
    Server::getSingleton().setBillCallback([] { return CommandMeter::getSingleton().describeSoFar(); });
    if (isSerial()) {
        if (_options.threaded)
            startRollCall();
        return;
    }
    isHandling = true;
    const Handling starting;
    setRaiseHook([](Error& error) { getSingleton().handleParallelError(&error); });
    if (!_options.threaded) {
        std::cout << "All internal errors will be treated as fatal" << std::endl;
        return;
    }
    _parallelErrorHandler = std::make_unique<ParallelErrorHandler>();
    startRollCall();
    _parallelErrorHandler->setOverdueCallback(
        [] { getSingleton().abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR)); });
    _parallelErrorHandler->setLostCallback([this] { endLostRank(); });
    _parallelErrorHandler->setTickCallback([call = _rollCall.get()] {
        call->tick();
        TraceService::tick();
    });
    if (isMaster())
        prepareStuckWatch();
    if (!_parallelErrorHandler->start()) {
        dropParallelErrorHandler();
        if (isMaster())
            std::cout
                << "Parallel error handler failed to start. All internal errors will be treated as fatal."
                << std::endl;
    } else if (isMaster()) {
        _stuckWatch->start();
    }
    HostClocks::measure(commandCommunicator());
}

/// The last step on a serial process; in a job the channel has still to start.
void Machine::startRollCall() {
    if (!Platform::StackSampler::install())
        OS::Log::instance("Default").warning("Machine", "No signal is free: nobody can ask for stacks");
    _rollCall = std::make_unique<RollCall>(_parallelErrorHandler.get());
    _liveView = std::make_unique<LiveView>(_parallelErrorHandler.get());
    _traceService = std::make_unique<TraceService>(_parallelErrorHandler.get());
    if (!isSerialOrMaster())
        return;
    Server::getSingleton().setRollCall(
        [call = _rollCall.get()](const Properties& request) { return call->answer(request); });
    Server::getSingleton().setSlowMethod(
        LIVE_METHOD, [view = _liveView.get()](const Properties& request) { return view->answer(request); });
    Server::getSingleton().setSlowMethod(
        TRACE_METHOD,
        [service = _traceService.get()](const Properties& request) { return service->answer(request); });
}

void Machine::prepareStuckWatch() {
    StuckWatch::Settings settings;
    settings.patience = _options.stuckTime;
    settings.waits = _options.waitWhenStuck;
    settings.tell = [](const std::string& text) {
        OS::Log::instance("Default").warning("StuckWatch", "@0@", text);
        Server::getSingleton().tellClients(text);
    };
    settings.end = [this](const std::string& text) { endStuckJob(text); };
    _stuckWatch = std::make_unique<StuckWatch>(*_rollCall, std::move(settings));
    _parallelErrorHandler->setFailureCallback([watch = _stuckWatch.get()] { watch->noteFailure(); });
}

/// The launcher can't be reached either, as a rule.
void Machine::endLostRank() {
    if (_standardStreamManager)
        _standardStreamManager->restore();
    LastWords::say("the host of rank 0 can't be reached any more");
    abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR));
}

/// The ranks don't come together any more: the job ends with the error of the rank that failed.
void Machine::endStuckJob(const std::string& text) {
    std::cerr << "\nError: " + text + "\n" << std::flush;
    Properties reason;
    reason.set(Error::MESSAGE_TAG, text);
    reason.set("ServerState", "exiting");
    Server::getSingleton().notifyAbort(reason);
    abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR));
}

void Machine::stopParallelErrorHandler() {
    setRaiseHook(nullptr);
    dropParallelErrorHandler();
}

void Machine::dropParallelErrorHandler() {
    if (_rollCall && isSerialOrMaster()) {
        Server::getSingleton().setRollCall({});
        Server::getSingleton().setSlowMethod(LIVE_METHOD, {});
        Server::getSingleton().setSlowMethod(TRACE_METHOD, {});
    }
    if (_parallelErrorHandler)
        _parallelErrorHandler->stop();
    if (_stuckWatch) {
        _stuckWatch->stop();
        _stuckWatch->join(); // it asks over the channel
    }
    _parallelErrorHandler.reset(); // its thread calls the others to its end
    _stuckWatch.reset();
    _rollCall.reset();
    _liveView.reset();
    _traceService.reset();
    Platform::StackSampler::uninstall();
}

ParallelErrorHandler& Machine::getParallelErrorHandler() {
    ORVEX_ASSERT_AS(_parallelErrorHandler, "_parallelErrorHandler", "ParallelErrorHandler is NULL");
    return *_parallelErrorHandler;
}

void Machine::handleParallelError(Error* error) {
    LastWords::endForkedChild(error->what());
    if (error->isCollective())
        return;
    if (isMaster() && !Thread::isMain())
        return;
    if (MessagingGate::has(MessagingGate::LOCAL_COMMAND))
        return; // a command of this rank alone: nobody waits for it
    if (isMaster() && OperationRecord::read().command.empty())
        return; // outside a command, for example while it starts: main() tells the reason and ends the job
    if (!NonRecoverableError::isNonRecoverableErrorIn(error->getProperties()))
        return;
    addStackTrace(error->getProperties());
    noteFailure(error->what());
    if (!isHandling.exchange(true)) {
        const Handling handling;
        if (_parallelErrorHandler && _parallelErrorHandler->report(*error)) {
            noteFailure({}); // a command that catches it goes on
            return;
        }
    }
    endByError(*error);
}

void Machine::endByError(const Error& error) {
    // A worker is silent, but not about why it takes the job down.
    if (_standardStreamManager)
        _standardStreamManager->restore();
    std::cerr << describe(error) << std::flush;
    if (isMaster())
        LastWords::sayIfUntimely(error.what());
    Platform::time().sleep(OUTPUT_TIME);
    LastWords::sayIfUntimely(error.what()); // the master ends the job soon after it hears these words
    abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR));
    while (true) // the launcher ends this process
        Platform::time().sleep(OUTPUT_TIME);
}
