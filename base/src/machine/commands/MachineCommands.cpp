#include "machine/commands/MachineCommands.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"
#include "machine/MemoryLoggerManager.h"
#include "machine/MpiCore.h"
#include "machine/StandardStreamManager.h"
#include "machine/SynchronizedDynamicLoader.h"
#include "machine/TimeLoggerManager.h"
#include "machine/commands/FloatingPointCommands.h"
#include "machine/commands/HybridCommands.h"
#include "machine/commands/MpiStatisticsCommands.h"
#include "machine/commands/ProfileCommands.h"
#include "machine/commands/SegmentationCommands.h"
#include "machine/commands/SystemMonitorCommands.h"
#include "machine/commands/TestCommands.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/EventLoggerManager.h"
#include "kernel/EventTracker.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"
#include "platform/System.h"

#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr const char* ENABLE_KEY = "enableFlag";
/// The largest value of getIOVerbosityLevel().
constexpr unsigned MAXIMUM_IO_VERBOSITY = std::numeric_limits<int>::max();

EventLoggerManager& eventLoggerManager() {
    return EventTracker::getSingleton().getEventLoggerManager();
}

class EnableEventLogging : public Command {
public:
    EnableEventLogging()
        : Command({"Switches the event logging on or off.", {{ENABLE_KEY, "bool", "on or off"}}, {}}) {}
    std::string getName() const override { return "EnableEventLogging"; }
    void execute(const Properties& args, Properties&) override {
        EventLoggerManager& manager = eventLoggerManager();
        if (args.getBool(ENABLE_KEY))
            manager.switchOn();
        else
            manager.switchOff();
    }
};

class ReportLogging : public Command {
public:
    ReportLogging() : Command({"Writes the report of the event logging.", {}, {}}) {}
    std::string getName() const override { return "ReportLogging"; }
    void execute(const Properties&, Properties&) override { eventLoggerManager().report(); }
};

/// Puts `manager` in the place of the one that is installed.
template <class Manager>
void installEventLoggerManager(std::unique_ptr<Manager> manager, const char* line) {
    std::cout << line << std::endl;
    manager->EventLoggerManager::operator=(eventLoggerManager());
    EventTracker::getSingleton().setEventLoggerManager(manager.release());
}

class ChangeEventLoggerManager : public Command {
public:
    ChangeEventLoggerManager()
        : Command({"Chooses what the event logging measures.",
                   {{"type", "text", "\"timer\", \"memory\", or \"null\": the number of events only"},
                    {THRESHOLD_KEY, "real",
                     "timer: the part of the sampled time that an event must exceed to be reported, 0.01; "
                     "memory: the MB, 1.0",
                     false}},
                   {}}) {}
    std::string getName() const override { return "ChangeEventLoggerManager"; }
    void execute(const Properties& args, Properties&) override {
        const std::string type = args.getString("type");
        if (type == "timer")
            install<TimeLoggerManager>(args, "Installing Time Logging");
        else if (type == "memory")
            install<MemoryLoggerManager>(args, "Installing Memory Logging");
        else if (type == "null")
            installEventLoggerManager(std::make_unique<EventLoggerManager>(), "Installing NUll Logging");
        else
            std::cout << "Cannot find event logger of type : " << type << std::endl;
    }

private:
    /// Nothing happens when the manager is one already.
    template <class Manager>
    static void install(const Properties& args, const char* line) {
        const double threshold =
            args.hasName(THRESHOLD_KEY) ? args.getReal(THRESHOLD_KEY) : Manager::DEFAULT_THRESHOLD;
        if (dynamic_cast<Manager*>(&eventLoggerManager()) == nullptr)
            installEventLoggerManager(std::make_unique<Manager>(threshold), line);
    }

    static constexpr const char* THRESHOLD_KEY = "threshold";
};

class GetProcessFileName : public QueryCommand {
public:
    GetProcessFileName()
        : QueryCommand({"Tells the file that lists the processes of the job.",
                        {},
                        {{"filename", "text", "its path, empty when the job writes none"}}}) {}
    std::string getName() const override { return "GetProcessFileName"; }
    void execute(const Properties&, Properties& response) override {
        response.set("filename", Machine::getSingleton().getProcessFileName());
    }
};

class SetDevErrorChecking : public NoResultCommand {
public:
    using NoResultCommand::execute;
    SetDevErrorChecking()
        : NoResultCommand({"Switches the collective checks of a development version on or off.",
                           {{ENABLE_KEY, "bool", "on or off"}},
                           {}}) {}
    std::string getName() const override { return "SetDevErrorChecking"; }
    void execute(const Properties& args) override {
        Machine::getSingleton().setDevErrorChecking(args.getBool(ENABLE_KEY));
    }
};

class EnableProcessLogFile : public NoResultCommand {
public:
    using NoResultCommand::execute;
    EnableProcessLogFile()
        : NoResultCommand(
              {"Has each rank of a job keep what it prints in a file partition<rank>.log, or not.",
               {{ENABLE_KEY, "bool", "on or off"}},
               {}}) {}
    std::string getName() const override { return "EnableProcessLogFile"; }
    void execute(const Properties& args) override {
        Machine::getSingleton().enableSlaveCoutLogFile(args.getBool(ENABLE_KEY));
    }
};

class EnableSlaveCout : public NoResultCommand {
public:
    using NoResultCommand::execute;
    EnableSlaveCout()
        : NoResultCommand({"Lets what the workers print reach the console, or silences them.",
                           {{"enableflag", "bool", "on or off"}},
                           {}}) {}
    std::string getName() const override { return "EnableSlaveCout"; }
    void execute(const Properties& args) override {
        Machine::getSingleton().enableSlaveCout(args.getBool("enableflag"));
    }
};

class EnableMpiDriverTracing : public NoResultCommand {
public:
    using NoResultCommand::execute;
    EnableMpiDriverTracing()
        : NoResultCommand({"Has the MPI driver write a line for each call, or not.",
                           {{ENABLE_KEY, "bool", "on or off"}},
                           {}}) {}
    std::string getName() const override { return "EnableMpiDriverTracing"; }
    void execute(const Properties& args) override {
        const bool enable = args.getBool(ENABLE_KEY);
        if (Machine::isParallel())
            MpiCore::handleError(enable ? OXM_MPI_Enable_trace() : OXM_MPI_Disable_trace());
    }
};

class EnableCommunicationTimer : public NoResultCommand {
public:
    using NoResultCommand::execute;
    EnableCommunicationTimer()
        : NoResultCommand({"Switches the timer of the global communicator on or off.",
                           {{ENABLE_KEY, "bool", "on or off"}},
                           {}}) {}
    std::string getName() const override { return "EnableCommunicationTimer"; }
    void execute(const Properties& args) override {
        Machine::getSingleton().enableCommunicationTimer(args.getBool(ENABLE_KEY));
    }
};

class GetCommunicationTimes : public Command {
public:
    GetCommunicationTimes()
        : Command({"Tells the time that each rank has spent in communication while the timer was on.",
                   {},
                   {{"CommunicationTimes", "vector of real", "[s], one for each rank"}}}) {}
    std::string getName() const override { return "GetCommunicationTimes"; }
    void execute(const Properties&, Properties& response) override {
        std::vector<double> times;
        Machine::getSingleton().getCommunicationTimes(times);
        response.set("CommunicationTimes", times);
    }
};

class GetTimes : public Command {
public:
    GetTimes()
        : Command({"Tells the times of the run.",
                   {},
                   {{"CpuTimes", "vector of real", "processor time [s], one for each rank"},
                    {"WallTimes", "vector of real", "time since the start [s], one for each rank"},
                    {"StartTime", "text", "when the run began"},
                    {"CurrentTime", "text", "now"}}}) {}
    std::string getName() const override { return "GetTimes"; }
    void execute(const Properties&, Properties& response) override {
        const Machine& machine = Machine::getSingleton();
        std::vector<double> cpuTimes;
        std::vector<double> wallTimes;
        machine.getCpuTimes(cpuTimes);
        machine.getElapsedTimes(wallTimes);
        response.set("CpuTimes", cpuTimes);
        response.set("WallTimes", wallTimes);
        response.set("StartTime", machine.getStartTime());
        response.set("CurrentTime", machine.getTime());
    }
};

class GetHosts : public Command {
public:
    GetHosts()
        : Command({"Lists the host of each rank.",
                   {},
                   {{"Number Processes", "unsigned", "number of ranks"},
                    {"Rank[<n>]", "text", "host of rank n, for each rank"}}}) {}
    std::string getName() const override { return "GetHosts"; }
    void execute(const Properties&, Properties& response) override {
        std::vector<std::string> hosts;
        Machine::getSingleton().getHostsOnMaster(hosts);
        if (!Machine::isSerialOrMaster())
            return;
        response.set("Number Processes", hosts.size());
        for (std::size_t rank = 0; rank < hosts.size(); ++rank)
            response.set("Rank[" + std::to_string(rank) + "]", hosts[rank]);
    }
};

class PerformPerformanceTest : public Command {
public:
    PerformPerformanceTest()
        : Command(
              {"Measures the speed of messages between all pairs of ranks, in a parallel job.",
               {},
               {{"Number of Processes", "unsigned", "number of ranks"},
                {"Speeds", "vector of real",
                 "[KiB/s] from rank s to rank d at index s * ranks + d; only in a parallel job", false}}}) {}
    std::string getName() const override { return "PerformPerformanceTest"; }
    void execute(const Properties&, Properties& response) override {
        constexpr unsigned MESSAGE_BYTES = 1048576;
        constexpr unsigned ROUNDS = 5;
        response.set("Number of Processes", Machine::nProcesses());
        if (Machine::isSerial())
            return;
        std::vector<double> speeds;
        Machine::globalCommunicator().performanceTest(speeds, MESSAGE_BYTES, ROUNDS);
        response.set("Speeds", speeds);
    }
};

class LoadParallelSandBox : public Command {
public:
    LoadParallelSandBox() : Command({"Loads the module OrvexParallelSandbox with its commands.", {}, {}}) {}
    std::string getName() const override { return "LoadParallelSandBox"; }
    void execute(const Properties&, Properties&) override {
        SynchronizedDynamicLoader::getSingleton().load("OrvexParallelSandbox");
    }
};

class GetMpiVersion : public QueryCommand {
public:
    GetMpiVersion()
        : QueryCommand({"Tells the MPI library of a parallel job; all texts are empty in a serial process.",
                        {},
                        {{"Vendor", "text", "name of the library"},
                         {"Version", "text", "its version"},
                         {"MpiVersion", "text", "both"}}}) {}
    std::string getName() const override { return "GetMpiVersion"; }
    void execute(const Properties&, Properties& response) override {
        const std::string vendor = Machine::isParallel() ? MpiCore::getDistribName() : std::string();
        const std::string version = Machine::isParallel() ? MpiCore::getMpiVersionName() : std::string();
        response.set("Vendor", vendor);
        response.set("Version", version);
        response.set("MpiVersion", version.empty() ? vendor : vendor + ' ' + version);
    }
};

class GetNumberOfWorkers : public QueryCommand {
public:
    GetNumberOfWorkers()
        : QueryCommand({"Tells the number of ranks, the master included; 1 in a serial process.",
                        {},
                        {{"NumberOfWorkers", "unsigned", "number of ranks"}}}) {}
    std::string getName() const override { return "GetNumberOfWorkers"; }
    void execute(const Properties&, Properties& response) override {
        response.set("NumberOfWorkers", Machine::nProcesses());
    }
};

class GetInterconnectName : public QueryCommand {
public:
    GetInterconnectName()
        : QueryCommand({"Tells the name of the interconnect; no MPI library tells one, so it is empty.",
                        {},
                        {{"Interconnect", "text", "empty"}}}) {}
    std::string getName() const override { return "GetInterconnectName"; }
    void execute(const Properties&, Properties& response) override { response.set("Interconnect", ""); }
};

class GetUserName : public QueryCommand {
public:
    GetUserName()
        : QueryCommand({"Tells the user on whose behalf the server runs.",
                        {},
                        {{"username", "text", "name of the user"}}}) {}
    std::string getName() const override { return "GetUserName"; }
    void execute(const Properties&, Properties& response) override {
        response.set("username", Platform::system().getUserName());
    }
};

class PrintProcessSummary : public Command {
public:
    PrintProcessSummary()
        : Command({"Prints host and process identifier of each rank of a parallel job.", {}, {}}) {}
    std::string getName() const override { return "PrintProcessSummary"; }
    void execute(const Properties&, Properties&) override {
        Machine::getHost().printCompleteProcessSummary();
    }
};

class EnableIODebug : public Command {
public:
    EnableIODebug()
        : Command({"Sets how much the file operations tell of their work.",
                   {{"ioVerbosityLevel", "unsigned", "0: nothing; the higher, the more"}},
                   {}}) {}
    std::string getName() const override { return "EnableIODebug"; }
    void execute(const Properties& args, Properties&) override {
        const unsigned level = args.getUnsignedInt("ioVerbosityLevel");
        if (level > MAXIMUM_IO_VERBOSITY)
            raise(InputError("\"ioVerbosityLevel\" must be at most " + std::to_string(MAXIMUM_IO_VERBOSITY) +
                             ", but it is " + std::to_string(level)));
        std::cout << "Setting the i/o debug level to : " << level << std::endl;
        Machine::setIOVerbosityLevel(static_cast<int>(level));
    }
};

class GetDoublePrecision : public QueryCommand {
public:
    GetDoublePrecision()
        : QueryCommand({"Tells whether the server computes in double precision.",
                        {},
                        {{"doubleprecision", "bool", "whether it does"}}}) {}
    std::string getName() const override { return "GetDoublePrecision"; }
    void execute(const Properties&, Properties& response) override { response.set("doubleprecision", true); }
};

class GetSystemInformation : public Command {
public:
    GetSystemInformation()
        : Command({"Tells the processes, hardware and software of each host of the job.",
                   {},
                   {{"Number of Nodes", "unsigned", "ranks of the job"},
                    {"Number of Hosts", "unsigned", "hosts of the job"},
                    {"hosts", "vector of properties", "for each host its processes, hardware and software"},
                    {"UserName", "text", "on whose behalf the server runs"},
                    {"DoublePrecision", "bool", "whether the server computes in double precision"}}}) {}
    std::string getName() const override { return "GetSystemInformation"; }
    void execute(const Properties&, Properties& response) override {
        Machine::getSingleton().getSystemInformationOnMaster(response);
    }
};

/// The common part of the commands that change or tell bindings.
class AffinityCommand : public Command {
protected:
    using Command::Command;

    static const CpuTopology& topology() { return Machine::getHost().getCpuTopology(); }

    void warn() const {
        std::cout << "Warning: " << getName() << " is intended for testing purposes only.\n"
                  << "Using it may well result in performance degradation" << std::endl;
    }

    /// The binding as it is now, one flag for each logical processing unit.
    static void tell(const char* failure, Properties& response) {
        const AffinityMask mask = Affinity::getProcessAffinity(topology());
        ORVEX_GLOBAL_CHECK(!mask.empty(), GlobalCondition::ON_ALL, InputError(failure));
        std::vector<bool> flags(topology().getNumberLpus(), false);
        for (const unsigned lpu : topology().getLpusFromMask(mask))
            flags[lpu] = true;
        response.set(MASK_KEY, flags);
    }

    static constexpr const char* MASK_KEY = "mask";
};

class GetAffinity : public Command {
public:
    GetAffinity()
        : Command({"Tells on which processors each process may run.",
                   {},
                   {{"hosts", "vector of properties",
                     "for each host its \"hostname\" and its \"masks\": \"rank\" and \"mask\", a flag for "
                     "each logical processing unit"}}}) {}
    std::string getName() const override { return "GetAffinity"; }
    void execute(const Properties&, Properties& response) override {
        Machine::getHost().gatherAffinityPropertiesToMaster(response);
    }
};

} // namespace

/// Binds the processes; a friend of the setters.
class MachineCommands {
public:
    class SetAffinity : public AffinityCommand {
    public:
        SetAffinity()
            : AffinityCommand({"Binds every process of the job to the same processors. For tests.",
                               {{MASK_KEY, "vector of bool",
                                 "a flag for each logical processing unit; those left out are off"}},
                               {{MASK_KEY, "vector of bool", "the binding that was reached"}}}) {}
        std::string getName() const override { return "SetAffinity"; }
        void execute(const Properties& args, Properties& response) override {
            warn();
            std::vector<bool> flags;
            args.get(MASK_KEY, flags);
            ORVEX_GLOBAL_CHECK(flags.size() <= topology().getNumberLpus(), GlobalCondition::ON_ALL,
                               InputError("\"mask\" may hold at most " +
                                          std::to_string(topology().getNumberLpus()) +
                                          " flags, one for each logical processing unit, but it holds " +
                                          std::to_string(flags.size())));
            std::vector<unsigned> lpus;
            for (unsigned lpu = 0; lpu < flags.size(); ++lpu)
                if (flags[lpu])
                    lpus.push_back(lpu);
            const AffinityMask mask = topology().getLpuMask(lpus);
            ORVEX_GLOBAL_CHECK(
                Affinity::setProcessAffinity(topology(), mask), GlobalCondition::ON_ALL,
                InputError("Failed to set CPU affinity with mask " + topology().printAffinityMask(mask, 60)));
            tell("Failed to get new CPU affinity mask", response);
        }
    };

    class ClearAffinity : public AffinityCommand {
    public:
        ClearAffinity()
            : AffinityCommand({"Lets every process of the job run on all processors that it may use.",
                               {},
                               {{MASK_KEY, "vector of bool", "the binding that was reached"}}}) {}
        std::string getName() const override { return "ClearAffinity"; }
        void execute(const Properties&, Properties& response) override {
            ORVEX_GLOBAL_CHECK(Affinity::clearProcessAffinity(topology()), GlobalCondition::ON_ALL,
                               InputError("Failed to clear CPU affinity"));
            tell("Failed to get CPU affinity", response);
        }
    };
};

namespace {

class ReportAffinity : public Command {
public:
    ReportAffinity()
        : Command({"Prints the hardware of the hosts and the binding of each process.",
                   {{"numa", "bool", "the NUMA nodes as well; false without the key", false},
                    {"core", "bool", "the physical cores as well, where they have several processing units",
                     false},
                    {"text", "bool", "a summary in words as well", false},
                    {"gather", "bool", "bring the texts of the hosts together at once", false}},
                   {}}) {}
    std::string getName() const override { return "ReportAffinity"; }
    void execute(const Properties& args, Properties&) override {
        const auto get = [&](const char* key) { return args.getOr(key, false); };
        Machine::getHost().printProcessAffinitySummary(get("numa"), get("core"), get("text"), get("gather"));
    }
};

class RedirectStandardStreams : public QueryCommand {
public:
    RedirectStandardStreams()
        : QueryCommand({"Moves the standard streams of each rank for good into text files, for a server that "
                        "outlives its console.",
                        {},
                        {{"stdout", "text", "path of the file for the standard output"},
                         {"stderr", "text", "path of the file for the standard error stream"}}}) {}
    std::string getName() const override { return "RedirectStandardStreams"; }
    void execute(const Properties&, Properties& response) override {
        const auto [out, error] =
            Machine::getSingleton().getStandardStreamManager().redirectOriginalStreamsToFile();
        response.set("stdout", out);
        response.set("stderr", error);
    }
};

class SetMaximumMessageBufferSize : public Command {
public:
    SetMaximumMessageBufferSize()
        : Command({"Sets the size above which messages of the global communicator are cut up.",
                   {{"size", "long", "[bytes], positive"}},
                   {}}) {}
    std::string getName() const override { return "SetMaximumMessageBufferSize"; }
    void execute(const Properties& args, Properties&) override {
        const long long size = args.getLong("size");
        if (Machine::isSerial()) {
            std::cout << "Warning: cannot set message buffer size in serial!" << std::endl;
            return;
        }
        const auto smallest = static_cast<long long>(Machine::globalCommunicator().getSmallestBufferSize());
        const std::uint64_t largest = OXM_MPI_Get_max_buffer_size();
        if (size < smallest || static_cast<std::uint64_t>(size) > largest)
            raise(InputError("The size of a message buffer must be " + std::to_string(smallest) + " to " +
                             std::to_string(largest) + " bytes, but \"size\" is " + std::to_string(size)));
        std::cout << "setting maximum buffer size : " << size << std::endl;
        Machine::globalCommunicator().setMaxBufferSize(static_cast<std::size_t>(size));
    }
};

} // namespace

void registerMachineCommands() {
    Controller& controller = Controller::getSingleton();
    controller.registerCommand(new EnableEventLogging);
    controller.registerCommand(new ReportLogging);
    controller.registerCommand(new ChangeEventLoggerManager);
    controller.registerCommand(new GetProcessFileName);
    controller.registerCommand(new SetDevErrorChecking);
    controller.registerCommand(new EnableProcessLogFile);
    controller.registerCommand(new EnableSlaveCout);
    controller.registerCommand(new EnableMpiDriverTracing);
    registerEnableMpiStatistics(controller);
    controller.registerCommand(new EnableCommunicationTimer);
    controller.registerCommand(new GetCommunicationTimes);
    controller.registerCommand(new GetTimes);
    registerReportMpiStatistics(controller);
    controller.registerCommand(new GetSystemInformation);
    controller.registerCommand(new GetHosts);
    controller.registerCommand(new PerformPerformanceTest);
    registerMpiStressTest(controller);
    controller.registerCommand(new LoadParallelSandBox);
    controller.registerCommand(new GetMpiVersion);
    controller.registerCommand(new GetNumberOfWorkers);
    controller.registerCommand(new GetInterconnectName);
    controller.registerCommand(new GetUserName);
    controller.registerCommand(new PrintProcessSummary);
    controller.registerCommand(new EnableIODebug);
    registerSystemMonitorCommands(controller);
    controller.registerCommand(new GetDoublePrecision);
    controller.registerCommand(new GetAffinity);
    controller.registerCommand(new MachineCommands::SetAffinity);
    controller.registerCommand(new MachineCommands::ClearAffinity);
    controller.registerCommand(new ReportAffinity);
    controller.registerCommand(new RedirectStandardStreams);
    registerTestCommands(controller);
    registerHybridPi(controller);
    registerFloatingPointFaults(controller);
    registerSegmentationCommands(controller);
    controller.registerCommand(new SetMaximumMessageBufferSize);
    registerHybridIdlingTest(controller);
    registerFloatingPointTests(controller);
    registerProfileCommands(controller);
}
