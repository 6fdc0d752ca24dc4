// The life of the process: Machine::main, its steps in their order, and the ways to its end.

#include "machine/Machine.h"

#include "machine/CommandController.h"
#include "machine/Communicator.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/StandardStreamManager.h"
#include "machine/SynchronizedDynamicLoader.h"
#include "machine/Timer.h"
#include "machine/commands/MachineCommands.h"
#include "machine/failures/ParallelErrorHandler.h"
#include "machine/files/ParallelConsoleBuf.h"
#include "machine/ground/MachineOptions.h"
#include "machine/reports/RankProfile.h"
#include "machine/start/LastWords.h"
#include "machine/start/StartTimeline.h"
#include "machine/start/StopLimit.h"
#include "machine/start/StopSignals.h"

#include "kernel/AnalyticsManager.h"
#include "kernel/Controller.h"
#include "kernel/CoreObject.h"
#include "kernel/Error.h"
#include "kernel/EventLoggerManager.h"
#include "kernel/EventTracker.h"
#include "kernel/Serializable.h"
#include "kernel/SignalHandler.h"
#include "kernel/SingletonCleaner.h"
#include "kernel/server/SessionLocator.h"
#include "platform/Chip.h"
#include "platform/FpuHandling.h"
#include "platform/Time.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string_view>

namespace {

/// The reason for the call of std::terminate, in words.
std::string describeUncaught() {
    try {
        if (const std::exception_ptr uncaught = std::current_exception())
            std::rethrow_exception(uncaught);
    } catch (const std::exception& error) {
        const char* const text = error.what(); // somebody's own class may give none
        return std::string("Terminating: ") + (text ? text : "an error without a text");
    } catch (...) {
        return "Terminating: an error of unknown type";
    }
    return "Terminating: std::terminate was called without an error";
}

std::string joinWords(int argc, const char* const* argv) {
    std::string line;
    for (int i = 0; i < argc; ++i)
        (line += i == 0 ? "" : " ") += argv[i] ? argv[i] : "";
    return line;
}

void terminateHandler() {
    const std::string reason = describeUncaught();
    LastWords::endForkedChild(reason);
    LastWords::say(reason);
    Machine::abortFromAnywhere();
    std::_Exit(int(Machine::getSingleton().getExitStatus())); // a terminate handler must not return
}

} // namespace

void Machine::main(int argc, char** argv) {
    std::ios::sync_with_stdio(true);
    LastWords::prepare();
    if (answerQuestion(argc, argv))
        return;
    FpuHandling::resetEnvironment(FpuEnvironmentAccessKey());
    auto consumed = std::make_unique<ConsumedOptions>();
    _options.commandLine = joinWords(argc, argv);
    startCommunicators(argc, &argv, *consumed);
    StartTimeline::enter("options");
    parseCommonArgvs(argc, argv, *consumed);
    if (_options.proxyServer || _options.proxySessionDaemon)
        throw std::invalid_argument(
            "This version can't run as a proxy: -proxyserver and -proxydaemon are unknown");
    StartTimeline::enter("signals");
    installTerminateHandler();
    SignalHandler::setAbortCallback(&Machine::abortFromAnywhere);
    SignalHandler::install();
    LastWords::install();
    StopSignals::install();
    StartTimeline::enter("binding");
    bindProcesses();
    resolveCpuContention();
    StartTimeline::enter("shared memory");
    startSharedMemory();
    RankProfile::start();
    if (isParallel())
        warnOfMixedVectorization();
    StartTimeline::enter("modules");
    SynchronizedDynamicLoader::getSingleton().nonStateLoad("OrvexScene");
    StartTimeline::enter("error channel");
    startParallelErrorHandler();
    StartTimeline::enter("console");
    startTimer();
    scanForDesignFlags(argc, argv);
    startUsageManager();
    startConsole();
    StartTimeline::enter("commands");
    registerMachineCommands();
    // Its observers bring each command to all ranks. They exist before the server takes the first one.
    static_cast<void>(CommandController::getSingleton());

    StartTimeline::enter("role");
    runRole(argc, argv, *consumed);
    LastWords::endWork();

    stopLogger();
    consumed.reset();
    endSystemMonitor();
    StopLimit::enter("the observers of the exit");
    _onExitObservable.notify();
    stopUsageManager();
    if (_options.deleteOnExit)
        deleteOnExit();
    stopTimer();
    stopParallelErrorHandler();
    RankProfile::stop();
    StopLimit::enter("the end of the message layer");
    stopCommunicators();
    StopLimit::enter("the exit functions");
    stopConsole();
    StopSignals::uninstall();
}

void Machine::warnOfMixedVectorization() const {
    std::vector<int> levels;
    globalCommunicator().gather(Platform::chip().getVectorizationLevel(), levels, Communicator::masterRank());
    if (!isMaster() ||
        std::adjacent_find(levels.begin(), levels.end(), std::not_equal_to<>()) == levels.end())
        return;
    std::cout << "Warning: The set of hardware resources has mixed vectorization capabilities.\n"
                 "This can lead to numerical issues (see \"Avoid Using Mixed-Vector Hardware in a Single\n"
                 "Parallel Job\" in the User's Guide). The command line flag \"-xbuildopt standard\"\n"
                 "can be passed to force the lowest vectorization level on all hosts. Use of this option\n"
                 "may impact performance. It does not affect vectorization of third-party libraries, so "
                 "further issues might arise."
              << std::endl;
}

void Machine::startTimer() {
    _timer = std::make_unique<Timer>();
    _timer->start();
    _startTime = Platform::time().getAscTime();
}

void Machine::scanForDesignFlags(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i] ? argv[i] : "";
        _options.designManager = word == "-dmproject";
        _options.designStudy = word == "-encoded-dmrunfile";
        if (_options.designManager || _options.designStudy)
            return; // the first one decides
    }
}

void Machine::runRole(int argc, char** argv, ConsumedOptions& consumed) {
    try {
        LastWords::beginWork();
        if (isSerialOrMaster()) {
            startServerHost(argc, argv, consumed);
        } else {
            writeProcessFile();
            Controller::getSingleton().getSignalRaisedObservable().attach(_signalRaisedObserver);
            StartTimeline::end();
            CommandController::getSingleton().processCommands();
            StopLimit::enter("the end of the work");
        }
    } catch (Error& error) {
        abortRole("\nExit error: " + error.getProperties().toString(), error.what());
    } catch (std::exception& error) {
        abortRole(std::string("\nExit error: ") + error.what(), error.what());
    } catch (...) {
        constexpr const char* TEXT = "Aborting due to nonrecoverable error.";
        abortRole(std::string("\n") + TEXT, TEXT);
    }
}

void Machine::abortRole(const std::string& text, const std::string& reason) {
    // A worker is silent, but not about why it takes the job down.
    if (_standardStreamManager)
        _standardStreamManager->restore();
    std::cerr << text + '\n';
    LastWords::say(reason);
    abort(ExitStatus(ExitStatus::NON_RECOVERABLE_SERVER_ERROR));
}

void Machine::stopLogger() {
    EventTracker::getSingleton().getEventLoggerManager().report();
    MpiStatisticsManager::reportAtEnd();
    EventTracker::reset();
}

void Machine::stopUsageManager() {
    _usageManager.reset();
}

void Machine::deleteOnExit() {
    if (_defaultRootObject)
        CoreObject::destroy(_defaultRootObject);
    _defaultRootObject = nullptr;
    std::string().swap(_ground.executableName);
    SingletonCleaner::reset();
}

void Machine::stopTimer() {
    _timer->stop();
}

void Machine::stopConsole() {
    std::cout.flush();
    _standardStreamManager.reset();
    _parallelConsoleBuf.reset();
}

void Machine::updateExitStatus(const ExitStatus& status) {
    _exitStatus += status;
}

void Machine::installTerminateHandler() {
    std::set_terminate(&terminateHandler);
}

void Machine::uninstallTerminateHandler() {
    std::set_terminate(nullptr);
}

void Machine::abort(const ExitStatus& status) {
    LastWords::endForkedChild("the abort of the job was asked for");
    uninstallTerminateHandler();
    _exitStatus += status;
    LastWords::sayIfUntimely("the abort of the job was asked for");
    StopLimit::enterAbort();
    LastWords::disarm(); // what follows may end in exit()
    SessionLocator::cleanup();
    if (isParallel())
        abortRanks(_exitStatus);
    else
        std::exit(int(_exitStatus));
}

void Machine::abortRanks(const ExitStatus& status) {
    // A launcher that hears of the end drops what it hasn't yet read from this process; and as a rule the
    // other ranks fail alike, each with its line to write.
    constexpr double GRACE = 0.3; // [s]
    Platform::time().sleep(GRACE);
    if (Communicator* const ranks = releaseCommunicators())
        ranks->abort(status);
}

void Machine::abortFromAnywhere() {
    getSingleton().abort(ExitStatus(ExitStatus::SERVER_ERROR));
}

void Machine::endFailedStart(const ExitStatus& status, const std::string& line) {
    constexpr double PATIENCE = 3.0; // [s] more than the master takes to end the job
    if (isParallel() && !isMaster())
        Platform::time().sleep(PATIENCE);
    std::cerr << line + '\n'; // in one piece: other ranks may say theirs
    if (isParallel())
        getSingleton().abort(status);
}

void Machine::leave(const ExitStatus& status) {
    LastWords::disarm();
    std::cout.flush();
    if (isParallel())
        // After a mere exit the other ranks would wait for this one until the launcher notices, and some
        // launchers then forget the value.
        abortRanks(status);
    std::exit(int(status));
}
