// The serial or master process as a server: Machine::startServerHost, and what all roles show to the outside.

#include "machine/Machine.h"

#include "machine/CommandController.h"
#include "machine/Communicator.h"
#include "machine/MachineHost.h"
#include "machine/MpiCore.h"
#include "machine/StandardStreamManager.h"
#include "machine/files/ParallelConsoleBuf.h"
#include "machine/files/StateFileUtilities.h"
#include "machine/ground/MachineOptions.h"
#include "machine/start/ServerHostOptions.h"
#include "machine/start/StartTimeline.h"
#include "machine/start/StopLimit.h"
#include "machine/start/StopSignals.h"

#include "kernel/AnalyticsEvent.h"
#include "kernel/AnalyticsManager.h"
#include "kernel/Controller.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/Server.h"
#include "kernel/SiteSettings.h"
#include "kernel/UsageAgent.h"
#include "kernel/server/SessionLocator.h"
#include "platform/Chip.h"
#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/System.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

void Machine::startServerHost(int argc, char** argv, ConsumedOptions& consumed) {
    ServerHostOptions options;
    try {
        options = ServerHostOptions::parse(argc, argv, consumed, isParallel(), _options.designManager);
    } catch (const ServerHostOptions::Refusal& refusal) {
        std::cerr << refusal.what() << std::endl;
        if (refusal.getKind() == ServerHostOptions::Refusal::INVALID_NUMBER)
            leave(ExitStatus(ExitStatus::SERVER_ERROR));
        updateExitStatus(ExitStatus(ExitStatus::INVALID_SERVER_ARGUMENT));
        leave(_exitStatus);
    }
    _options.processFileName = options.processFileName;
    _options.attachDebugger = options.attachDebugger;
    _options.passToDesign = options.passToDesign;

    std::wstring& name = options.sessionName;
    auto& files = Platform::filesystem();
    if (!name.empty() && !files.exists(name) && files.exists(StateFileUtilities::appendExtension(name)))
        name = StateFileUtilities::appendExtension(name);
    writeProcessFile();
    Controller::getSingleton().getSignalRaisedObservable().attach(_signalRaisedObserver);
    if (!name.empty())
        settleSessionFile(name, options.createNew);
    SessionLocator::getSingleton().setAbortCallback(&Machine::abortFromAnywhere);
    SessionLocator::getSingleton().setNumberProcesses(_ground.size);
    if (options.load)
        CommandController::getSingleton().masterExecuteRestoreState(name);
    serve(options);
}

void Machine::settleSessionFile(const std::wstring& name, bool createNew) {
    auto& files = Platform::filesystem();
    if (createNew && !files.isDirectory(name)) {
        if (files.exists(name) && files.getSize(name) != 0)
            refuseSessionFile("File", name, StateFileUtilities::getStateFileAlreadyExistsErrorMessage(name));
        // Leaves an empty file; whether that could be made shows below.
        static_cast<void>(files.createFile(name));
    }
    if (!files.exists(name) || files.isDirectory(name))
        refuseSessionFile("Path", name,
                          StateFileUtilities::getStateFileNotFoundErrorMessage(name, createNew));
}

void Machine::refuseSessionFile(const char* key, const std::wstring& name, const std::string& message) {
    Properties properties;
    properties.set(key, name);
    std::cout << "\nError: " << message << std::endl;
    updateExitStatus(ExitStatus(ExitStatus::FILE_ERROR));
    raise(NonRecoverableError(message, properties));
}

void Machine::serve(const ServerHostOptions& options) {
    Server& server = Server::getSingleton();
    server.setConnectionMode(!options.connect      ? Server::NO_CONNECTION
                             : options.collaborate ? Server::COLLABORATIVE
                                                   : Server::SINGLE_CONNECTION);
    server.enableOutputToClients(options.outputToClients);
    server.enableSessionLocator(options.sessionLocator && _options.threaded);
    server.setAbortCallback(&Machine::abortFromAnywhere);
    server.setClientAddress(options.clientAddress);
    if (options.portRange != ServerHostOptions::NO_PORT_RANGE)
        server.setPortRange(options.portRange);

    StopSignals::setServing(true);
    if (_options.threaded) {
        if (!options.proxyHost.empty())
            raise(NonRecoverableError("This version can't start a proxy server on " + options.proxyHost));
        server.startInThread(options.sessionName, options.port);
        StartTimeline::end();
        CommandController::getSingleton().processCommands();
    } else {
        if (!options.proxyHost.empty())
            raise(NonRecoverableError("Proxy servers are not supported in non-threaded mode"));
        server.setServiceEndedCallback([] {
            StopLimit::enter("the release of the workers");
            CommandController::getSingleton().releaseWorkers();
        });
        StartTimeline::end();
        server.start(options.sessionName, options.port);
    }
    StopSignals::setServing(false);
    StopLimit::enter("the last answers to the clients");
    server.join();
}

void Machine::writeProcessFile() const {
    std::vector<std::string> hosts;
    std::vector<unsigned> pids;
    const auto pid = static_cast<unsigned>(Platform::process().getPid());
    if (isParallel()) {
        globalCommunicator().broadcast(_options.threaded, Communicator::masterRank());
        globalCommunicator().gather(pid, pids, Communicator::masterRank());
    } else {
        pids.push_back(pid);
    }
    getHostsOnMaster(hosts);
    if (!isSerialOrMaster() || _options.processFileName.empty())
        return;

    std::ofstream file;
    if (Platform::filesystem().canBeWritten(Platform::filesystem().fromSystem(_options.processFileName)))
        file.open(_options.processFileName, std::ios::trunc);
    if (!file.is_open()) {
        const int error = errno;
        std::cout << "Warning : could not open process file : " << _options.processFileName << '\n'
                  << std::strerror(error) << " (error " << error << ")" << std::endl;
        return;
    }
    for (std::size_t i = 1; i <= hosts.size(); ++i) {
        const std::size_t rank = i % hosts.size(); // the master comes last
        file << hosts[rank] << ':' << pids[rank] << '\n';
    }
    if (!_options.attachDebugger)
        return;
    std::string command = "dattach " + _ground.executableName + ' ';
    for (const unsigned each : pids)
        command += std::to_string(each) + ' ';
    std::cout << "Copy and paste into totalview command window : \n" << command << std::endl;
}

void Machine::getHostsOnMaster(std::vector<std::string>& hosts) const {
    if (isSerial())
        hosts.assign(1, Platform::io().getHostName());
    else
        globalCommunicator().gather(globalCommunicator().myName(), hosts, Communicator::masterRank());
}

void Machine::getSystemInformationOnMaster(Properties& result) const {
    Properties mine;
    getHost().getSystemInformation(mine);
    std::vector<Properties> hosts{mine};
    if (isParallel()) {
        hosts.clear();
        std::vector<std::string> texts;
        globalCommunicator().gather(mine.toString(), texts, Communicator::masterRank());
        for (const std::string& text : texts)
            if (text != Properties().toString()) // only the first process of a host has something to tell
                hosts.emplace_back(text);
    }
    result.set("Number of Nodes", nProcesses());
    result.set("Number of Hosts", getHost().getNumberHosts());
    result.set("hosts", hosts);
    result.set("UserName", Platform::system().getUserName());
    result.set("DoublePrecision", true);
}

void Machine::startConsole() {
    if (isParallel()) {
        getHost().printProcessSummary();
        std::string directory = Platform::filesystem().toSystem(Platform::filesystem().getCurrentDirectory());
        globalCommunicator().broadcast(directory, Communicator::masterRank());
        _parallelConsoleBuf = std::make_unique<ParallelConsoleBuf>(std::cout, directory, false, false, 255);
    } else {
        std::cout << "Serial process " << Platform::process().getPid() << std::endl;
    }
    _standardStreamManager = std::make_unique<StandardStreamManager>(_options.temporaryDirectory, false);
    if (!isSerialOrMaster()) {
        _standardStreamManager->redirectToNullDevice();
        return;
    }
    std::cout << '\n'
              << OrvexVersion::getVersionedProductName() << " (" << OrvexVersion::_buildArch << '/'
              << OrvexVersion::_buildEnv << ")\n"
              << std::endl;
}

void Machine::startUsageManager() {
    const bool active = !_options.usageDisabled && isSerialOrMaster();
    const int consent = SiteSettings::getSingleton().getInt("UsageImprovementProgram", 0);
    _usageManager.reset(UsageAgent::createAnalyticsManager(
        _options.designManager ? "ORVEXSIM.DESIGNMANAGER" : "ORVEXSIM.SERVER", OrvexVersion::_releaseNumber,
        active, consent, OrvexVersion::isDevelopmentVersion()));

    Analytics::Event event("COMMAND_LINE_PARAMETERS");
    event.addAttribute("Machine Configuration", OrvexVersion::_machineConfig);
    event.addAttribute("Chip", Platform::chip().getDescription());
    if (!_options.designManager) {
        event.addAttribute(
            "MPI", isParallel() ? MpiCore::getDistribName() + ' ' + MpiCore::getMpiVersionName() : "");
        event.addAttribute("np", _ground.size);
        event.addAttribute("mode", _options.designStudy ? "Design Study" : "");
    }
    logUsageEvent(event);
}
