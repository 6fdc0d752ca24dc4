// The start of the message layer, which tells a process its role: Machine::startCommunicators and its steps.

#include "machine/Machine.h"

#include "machine/Communicator.h"
#include "machine/MachineHost.h"
#include "machine/MpiCore.h"
#include "machine/ground/CommandLine.h"
#include "machine/ground/MachineOptions.h"
#include "machine/hybrid/HostMeeting.h"
#include "machine/messages/CollectiveHistory.h"
#include "machine/start/LastWords.h"
#include "machine/start/StartTimeline.h"

#include "kernel/IsolatedFpuContext.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "kernel/server/SessionLocator.h"
#include "mpiwrapper/OxmMpi.h"
#include "platform/DynamicLibrary.h"
#include "platform/LauncherWatch.h"
#include "platform/Process.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <numeric>
#include <stdexcept>
#include <string_view>

namespace {

std::string initializeError() {
    const char* const text = OXM_MPI_Get_initialize_error();
    return text ? text : "";
}

/// The word of `argv` at `index`, empty for a null one.
std::string_view wordAt(const char* const* argv, int index) {
    return argv[index] ? argv[index] : "";
}

enum class StartKind { SERIAL, PROXY_SERVER, PROXY_DAEMON, DRIVER, PRELOAD };

struct StartRow {
    CommandLineOption option;
    StartKind kind;
};

/// The options that decide what the process is.
constexpr StartRow START_ROWS[] = {
    {{"-s", "", "a serial process"}, StartKind::SERIAL},
    {{"-mpi", "NAME", "a job, with the driver openmpi4 or mpich2; started with that library's launcher"},
     StartKind::DRIVER},
    {{"-mpidriver", "NAME", "the same"}, StartKind::DRIVER},
    {{"-xinternalmsmpidll", "PATH", ""}, StartKind::PRELOAD},
    // Read, so that they are refused in words.
    {{"-proxyserver", "", ""}, StartKind::PROXY_SERVER},
    {{"-proxydaemon", "", ""}, StartKind::PROXY_DAEMON},
};

const StartRow* findStartRow(std::string_view word) {
    const auto* const found = std::find_if(std::begin(START_ROWS), std::end(START_ROWS),
                                           [word](const StartRow& row) { return row.option.word == word; });
    return found == std::end(START_ROWS) ? nullptr : found;
}

const char* driverModuleName(const std::string& driver) {
    struct Row {
        const char* driver;
        const char* module;
    };
    static constexpr Row ROWS[] = {
        {"platform", "OrvexPlatformMpi"}, {"intel", "OrvexIntelMpi"},    {"ms", "OrvexMsMpi"},
        {"msmpi", "OrvexMsMpi"},          {"openmpi3", "OrvexOpenMpi3"}, {"openmpi4", "OrvexOpenMpi4"},
        {"mpich2", "OrvexMpich2Ch3"},     {"hpe", "OrvexHpeMpi"},        {"crayxt7", "OrvexCrayMpt7"},
    };
    for (const Row& row : ROWS)
        if (driver == row.driver)
            return row.module;
    throw std::invalid_argument("Unknown MPI driver: " + driver);
}

std::string findDriverModule(int argc, const char* const* argv, CommandLine::Consumed& consumed) {
    std::string module;
    for (int i = 0; i < argc; ++i) {
        const StartRow* const row = findStartRow(wordAt(argv, i));
        if (!row || row->kind != StartKind::DRIVER)
            continue;
        if (i + 1 == argc)
            throw std::invalid_argument("Missing -mpidriver arg");
        module = driverModuleName(std::string(wordAt(argv, i + 1)));
        consumed[std::string(row->option.word)] = 2;
    }
    if (module.empty())
        throw std::invalid_argument("The flag -mpidriver or -mpi must be specified");
    return module;
}

void preloadMpi(const char* module, int argc, const char* const* const* argv,
                CommandLine::Consumed& consumed) {
    if (std::string_view(module) != "OrvexMsMpi")
        return;
    const char* msMpiDll = nullptr;
    bool found = false;
    for (int i = 0; i < argc; ++i) {
        const StartRow* const row = findStartRow(wordAt(*argv, i));
        if (!row || row->kind != StartKind::PRELOAD)
            continue;
        if (i + 1 == argc)
            throw std::invalid_argument("Missing -xinternalmsmpidll arg");
        consumed[std::string(row->option.word)] = 2;
        found = true;
        msMpiDll = wordAt(*argv, i + 1).empty() ? nullptr : (*argv)[i + 1];
    }
    if (!found)
        return;
    if (Platform::dynamiclibrary().isLoaded("msmpi.dll"))
        std::cerr << "Warning: A version of msmpi.dll is already loaded. The simulation might abort."
                  << std::endl;
    ORVEX_ASSERT(msMpiDll != nullptr, "msmpi.dll path empty");
    const auto loaded = Platform::dynamiclibrary().load(msMpiDll);
    if (!loaded.handle)
        std::cerr << "Warning: Could not load internal msmpi.dll, simulation might abort (msmpi.dll: "
                  << msMpiDll << ", error: " << loaded.error << ")." << std::endl;
}

/// A communicator of the same ranks in the same order. Collective.
std::unique_ptr<Communicator> duplicate(const Communicator& communicator) {
    std::vector<unsigned> ranks(communicator.size());
    std::iota(ranks.begin(), ranks.end(), 0u);
    return communicator.createCommunicator(ranks);
}

} // namespace

std::vector<CommandLineOption> Machine::listStartOptions() {
    std::vector<CommandLineOption> options;
    for (const StartRow& row : START_ROWS)
        options.push_back(row.option);
    return options;
}

void Machine::startCommunicators(int& argc, char*** argv, ConsumedOptions& consumed) {
    // Now: message layers bind a process at their start.
    const std::vector<unsigned> processors = Platform::process().getProcessors();
    bool serial = false;
    for (int i = 0; i < argc; ++i) {
        const StartRow* const row = findStartRow(wordAt(*argv, i));
        if (!row || row->kind == StartKind::DRIVER || row->kind == StartKind::PRELOAD)
            continue;
        serial = true;
        consumed[std::string(row->option.word)] = 1;
        _options.proxyServer = _options.proxyServer || row->kind == StartKind::PROXY_SERVER;
        _options.proxySessionDaemon = _options.proxySessionDaemon || row->kind == StartKind::PROXY_DAEMON;
    }
    if (serial) {
        _ground.mode = SERIAL_MODE;
    } else {
        const std::string module = findDriverModule(argc, *argv, consumed);
        preloadMpi(module.c_str(), argc, argv, consumed);
        startMessageLayer(module, argc, argv);
    }
    StartTimeline::enter("hosts and hardware");
    startHost(processors);
    OrvexVersion::_machineConfig = isParallel() ? "Np=" + std::to_string(_ground.size) : "Serial";
}

void Machine::startMessageLayer(const std::string& module, int& argc, char*** argv) {
    StartTimeline::enter("driver of MPI");
    const auto driver = Platform::dynamiclibrary().load(module);
    ORVEX_ASSERT_AS(
        OXM_MPI_Initialize(driver.handle) == OXM_MPI_SUCCESS, "OXM_MPI_Initialize(handle) == OXM_MPI_SUCCESS",
        "Failed to initialize MPI wrapper: " + (driver.handle ? initializeError() : driver.error));
    ORVEX_ASSERT_AS(OXM_MPIO_Initialize(driver.handle) == OXM_MPI_SUCCESS,
                    "OXM_MPIO_Initialize(handle) == OXM_MPI_SUCCESS", "Failed to initialize MPIO wrapper");
    startLauncherWatch();
    StartTimeline::enter("MPI");
    int started = OXM_MPI_SUCCESS;
    {
        // The library computes at its start, for example on the hardware: that is no fault of a simulation.
        const IsolatedFpuContext isolated(false);
        started = OXM_MPI_Init(&argc, argv);
    }
    if (started != OXM_MPI_SUCCESS) {
        std::string reason = initializeError();
        std::replace(reason.begin(), reason.end(), '\n', ' ');
        if (!reason.empty())
            std::cerr << reason + '\n'; // in one piece: all ranks say it
        raise(NonRecoverableError("MPI failed to initialize"));
    }
    StartTimeline::enter("communicators");
    _globalComm.reset(new Communicator);
    _commandComm = duplicate(*_globalComm);
    CollectiveHistory::of(*_commandComm).setNumber(CollectiveHistory::NO_NUMBER); // not the user's operations
    CollectiveHistory::of(*_commandComm).setName(CollectiveHistory::COMMAND);
    Task::setAgreement([](unsigned value) {
        globalCommunicator().allReduce(value, Communicator::MIN);
        return value;
    });
    _ground.global = _globalComm.get();
    _ground.command = _commandComm.get();
    _ground.size = _globalComm->size();
    _ground.rank = _globalComm->myRank();
    _ground.mode = _ground.rank == Communicator::masterRank() ? MASTER_MODE : WORKER_MODE;
}

void Machine::startLauncherWatch() {
    constexpr double GRACE = 1.0; // [s]
    _launcherWatch = std::make_unique<LauncherWatch>(
        [](const std::string& reason) {
            LastWords::say(reason);
            SessionLocator::cleanup();
        },
        GRACE, int(ExitStatus(ExitStatus::SERVER_ERROR)));
    // Without a launcher or parent to lose there is nothing to watch.
    static_cast<void>(_launcherWatch->start());
}

void Machine::startHost(const std::vector<unsigned>& processors) {
    ORVEX_ASSERT_AS(!_ground.host, "!_host", "Host already enabled");
    _host = std::make_unique<MachineHost>();
    _ground.host = _host.get();
    _host->keepToBatchJob(processors);
    testOverSubscription();
}

void Machine::stopHost() {
    _ground.host = nullptr;
    _host.reset();
}

void Machine::stopCommunicators() {
    stopHost();
    if (!isParallel())
        return;
    _hostMeeting.reset();
    _ground.shmem.fill(nullptr);
    _ground.sparse.fill(nullptr);
    for (std::size_t scope = 0; scope < NUMBER_SHMEM_SCOPES; ++scope) {
        _shmemComm[scope].reset();
        _sparseComm[scope].reset();
    }
    Task::setAgreement({});
    _ground.command = nullptr;
    _commandComm.reset();
    _ground.global = nullptr;
    _globalComm.reset();
    MpiCore::finalize();
    _launcherWatch.reset();
}

Communicator* Machine::releaseCommunicators() {
    Communicator* const global = _ground.global;
    _ground.global = nullptr;
    _ground.command = nullptr;
    _ground.shmem.fill(nullptr);
    _ground.sparse.fill(nullptr);
    if (_singleton == nullptr)
        return global;
    static_cast<void>(_singleton->_hostMeeting.release());
    static_cast<void>(_singleton->_globalComm.release());
    static_cast<void>(_singleton->_commandComm.release());
    for (std::size_t scope = 0; scope < NUMBER_SHMEM_SCOPES; ++scope) {
        static_cast<void>(_singleton->_shmemComm[scope].release());
        static_cast<void>(_singleton->_sparseComm[scope].release());
    }
    return global;
}
