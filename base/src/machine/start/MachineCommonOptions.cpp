// The options that every role reads: Machine::parseCommonArgvs.

#include "machine/Machine.h"

#include "machine/CpuBinder.h"
#include "machine/MpiCore.h"
#include "machine/ParameterInitialValues.h"
#include "machine/RemoteShellFactory.h"
#include "machine/SynchronizedDynamicLoader.h"
#include "machine/ground/CommandLine.h"
#include "machine/ground/MachineOptions.h"
#include "machine/start/StopLimit.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"
#include "kernel/SignalHandler.h"
#include "platform/FileSystem.h"
#include "platform/RendererConfig.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace {

std::wstring wideDecoded(const std::string& text) {
    return StringHelper::decode(StringHelper::fromBytes(text));
}

void sayOnce(const char* text) {
    if (Machine::isSerialOrMaster())
        std::cout << text << std::endl;
}

/// One walk over the line, which fills `options`. An option that changes another one does so in the order of
/// the line.
class CommonOptions {
public:
    CommonOptions(MachineOptions& options, CommandLine line) : _options(options), _line(std::move(line)) {}

    void parse() {
        while (_line.next())
            if (const Row* row = findRow())
                take(*row);
        settleTemporaryDirectory();
        settleJobManager();
    }

    static std::vector<CommandLineOption> list();

private:
    struct Row {
        CommandLineOption option;
        void (CommonOptions::*apply)();
        const char* missingValue = nullptr; ///< null: "Missing <word> arg"
    };
    static const Row ROWS[];

    const Row* findRow() const;
    void take(const Row& row);
    std::string value() const { return _line.value(); }
    int seconds() const;

    void settleTemporaryDirectory();
    void settleJobManager();

    void ignore() {}
    void deleteOnExit() { _options.deleteOnExit = true; }
    void disableUsage() { _options.usageDisabled = true; }
    void disableFpeRegisterChecking();
    void enableFpeSignals();
    void disableThreads() { _options.threaded = false; }
    void loadModule() { SynchronizedDynamicLoader::getSingleton().load(value()); }
    void setMpiVersion();
    void setMpiDistribution();
    void addParameter();
    void enableParallelIo() { _options.parallelIo = Machine::isParallel(); }
    void setRemoteShell();
    void takeTemporaryDirectory() { setTemporaryDirectory(wideDecoded(value())); }
    void setTemporaryDirectory(const std::wstring& directory);
    void setIoDebug() { _options.ioVerbosity = CommandLine::toInt(value()); }
    void setCpuBinding();
    void reportBinding() { _options.bindingVerbosity = std::max(_options.bindingVerbosity, 1u); }
    void reportContention() { _options.bindingVerbosity = 2; }
    void setContentionTest();
    void disableDevErrors() { Machine::setDevErrorChecking(false); }
    void disableThreadBinding() { _options.threadBinding = false; }
    void enableThreadBindingReport() { _options.threadBindingVerbose = true; }
    void enablePidPrinting() { _options.printPids = true; }
    void setJobManagerUrl() { _jobManagerUrl = StringHelper::toWString(value()); }
    void setStopLimit();
    void setStuck();
    void setStuckTime();
    void setTaskId() { _taskId = CommandLine::toInt(value()); }
    void setRenderThreads() {
        RendererConfig::getSingleton().setNumRenderThreads(CommandLine::toInt(value()));
    }
    void setGraphics();

    MachineOptions& _options;
    CommandLine _line;
    std::wstring _jobManagerUrl;
    int _taskId = 0;
};

const CommonOptions::Row CommonOptions::ROWS[] = {
    {{"-module", "NAME", "loads a module on all ranks or on none: a path, or a name beside the program"},
     &CommonOptions::loadModule},
    {{"-nothreads", "", "no server thread: clients are served between commands"},
     &CommonOptions::disableThreads},
    {{"-cpubind", "WORD", "where processes run: bandwidth (the default), latency, leastload, disable"},
     &CommonOptions::setCpuBinding},
    {{"-cpubindverbose", "", "tells how it got out of the way of other servers, and where each rank runs"},
     &CommonOptions::reportBinding},
    {{"-cpubindextendedverbosity", "", "the same, and what it found on each host"},
     &CommonOptions::reportContention},
    {{"-cpubindcontentiontest", "WORD", "enable or disable: whether it looks for other servers"},
     &CommonOptions::setContentionTest},
    {{"-xthreadbindoff", "", "threads aren't bound"}, &CommonOptions::disableThreadBinding},
    {{"-xthreadbindverbose", "", "tells how threads are bound"}, &CommonOptions::enableThreadBindingReport},
    {{"-printpids", "", "tells the process identifier of each rank at the start"},
     &CommonOptions::enablePidPrinting},
    {{"-tmpdir", "PATH", "folder for temporary files"}, &CommonOptions::takeTemporaryDirectory},
    {{"-pio", "", "files are read and written by all ranks together"}, &CommonOptions::enableParallelIo},
    {{"-iodebug", "N", "how much is told about input and output"}, &CommonOptions::setIoDebug},
    {{"-fpe", "", "floating-point faults raise at once"}, &CommonOptions::enableFpeSignals},
    {{"-xdisable-fpe-register-checking", "", "a development version doesn't look for floating-point faults"},
     &CommonOptions::disableFpeRegisterChecking},
    {{"-xnodeverrors", "", "a development version leaves its checks across ranks out"},
     &CommonOptions::disableDevErrors},
    {{"-encoded-param", "NAME VALUE", "the initial value of a parameter, both in Base64"},
     &CommonOptions::addParameter,
     "Missing -encoded-param arg arg"},
    {{"-rsh", "COMMAND", "the program that starts processes on other hosts"}, &CommonOptions::setRemoteShell},
    {{"-jobmanagerurl", "URL", "with -taskid: the job manager that this job belongs to"},
     &CommonOptions::setJobManagerUrl},
    {{"-taskid", "N", "with -jobmanagerurl: the job's number there"}, &CommonOptions::setTaskId},
    {{"-rrthreads", "N", "number of threads of the renderer"}, &CommonOptions::setRenderThreads},
    {{"-rgraphics", "WORD", "the graphics of the renderer"}, &CommonOptions::setGraphics},
    {{"-xmpiversion", "TEXT", "the version of the MPI library, for reports"}, &CommonOptions::setMpiVersion},
    {{"-xmpidriver", "TEXT", "the name of the MPI library, for reports"}, &CommonOptions::setMpiDistribution},
    {{"-xnousage", "", "keeps no record of usage (it is local, and sent nowhere)"},
     &CommonOptions::disableUsage},
    {{"-deleteOnExit", "", "frees everything at the end, for tools that look for leaks"},
     &CommonOptions::deleteOnExit},
    {{"-stoplimit", "N", "seconds after which an end in order is cut short; 60 unless given, 0 for never"},
     &CommonOptions::setStopLimit},
    {{"-stuck", "WORD", "when a rank fails and the others wait for it: end (the default) or wait"},
     &CommonOptions::setStuck},
    {{"-stuckafter", "N", "seconds that the others may stand still until then; 20 unless given"},
     &CommonOptions::setStuckTime},
    {{"-time", "", ""}, &CommonOptions::ignore},
    {{"-mpi", "NAME", ""}, &CommonOptions::ignore}, // the driver runs already
    {{"-mpidriver", "NAME", ""}, &CommonOptions::ignore, "Missing -mpi arg"},
};

std::vector<CommandLineOption> CommonOptions::list() {
    std::vector<CommandLineOption> options;
    for (const Row& row : ROWS)
        options.push_back(row.option);
    return options;
}

const CommonOptions::Row* CommonOptions::findRow() const {
    for (const Row& row : ROWS)
        if (_line.isAt(row.option))
            return &row;
    return nullptr;
}

void CommonOptions::take(const Row& row) {
    if (!_line.hasValues(row.option))
        throw std::invalid_argument(row.missingValue ? row.missingValue : "Missing " + _line.word() + " arg");
    (this->*row.apply)();
    _line.consume(row.option);
}

void CommonOptions::disableFpeRegisterChecking() {
    if (!OrvexVersion::isDevelopmentVersion() || FpeAgnosticMode::isActive())
        return;
    sayOnce("****************************************\n"
            "WARNING: FPE register checking disabled.\n"
            "****************************************");
    if (SignalHandler::_catchFpeSignals) {
        sayOnce("NOTE: The '-xdisable-fpe-register-checking' flag is incompatible with '-fpe'.\n"
                "      Disabling asynchronous floating point exceptions.");
        SignalHandler::setCatchFpeSignals(false);
    }
    FpeAgnosticMode::activate();
}

void CommonOptions::enableFpeSignals() {
    if (FpeAgnosticMode::isActive()) {
        sayOnce("NOTE: The '-fpe' flag has no effect when '-xdisable-fpe-register-checking' is enabled.");
        return;
    }
    std::cout << "Enabling asynchronous floating point exceptions." << std::endl;
    SignalHandler::setCatchFpeSignals(true);
}

void CommonOptions::setMpiVersion() {
    if (Machine::isParallel())
        MpiCore::setMpiVersionName(value());
}

void CommonOptions::setMpiDistribution() {
    if (Machine::isParallel())
        MpiCore::setDistribName(value());
}

void CommonOptions::addParameter() {
    ParameterInitialValues::getSingleton().addParameterArg(StringHelper::toString(_line.decodedValue(1)),
                                                           StringHelper::toString(_line.decodedValue(2)));
}

void CommonOptions::setRemoteShell() {
    RemoteShellFactory::getSingleton().setDefaultRemoteProcessLauncher(wideDecoded(value()));
}

void CommonOptions::setCpuBinding() {
    if (value() == "bandwidth")
        _options.bindingPolicy = BANDWIDTH_BINDING;
    else if (value() == "latency")
        _options.bindingPolicy = LATENCY_BINDING;
    else if (value() == "leastload")
        _options.bindingPolicy = LEAST_LOAD_BINDING;
    else if (value() == "disable")
        _options.internalBinding = false;
    else
        throw std::invalid_argument(
            "-cpubind argument must be latency/leastload/disable (don't specify anything "
            "for bandwidth)");
}

void CommonOptions::setContentionTest() {
    if (value() != "enable" && value() != "disable")
        throw std::invalid_argument("-cpubindcontentiontest argument must either be enabled/disable");
    _options.bindingContentionTest = value() == "enable";
}

void CommonOptions::setStopLimit() {
    StopLimit::set(seconds());
}

void CommonOptions::setStuck() {
    if (value() != "end" && value() != "wait")
        throw std::invalid_argument("-stuck argument must be end or wait");
    _options.waitWhenStuck = value() == "wait";
}

void CommonOptions::setStuckTime() {
    _options.stuckTime = std::max(seconds(), 1);
}

int CommonOptions::seconds() const {
    const std::string text = value();
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        throw std::invalid_argument(_line.word() + " needs a number of seconds");
    return CommandLine::toInt(text);
}

void CommonOptions::setGraphics() {
    const std::string error = RendererConfig::getSingleton().setGraphics(StringHelper::toWString(value()));
    ORVEX_ASSERT(error.empty(), "RendererConfig error: " + error);
}

void CommonOptions::settleTemporaryDirectory() {
    if (_options.temporaryDirectory.empty())
        setTemporaryDirectory(Platform::filesystem().getDefaultTemporaryDirectory());
}

void CommonOptions::settleJobManager() {
    const bool hasUrl = !_jobManagerUrl.empty();
    const bool hasTask = _taskId != 0;
    if (hasUrl != hasTask)
        throw std::invalid_argument("The options -jobmanagerurl and -taskid must both be specified");
    if (hasUrl) {
        _options.jobManagerUrl = _jobManagerUrl;
        _options.taskId = _taskId;
    }
}

void CommonOptions::setTemporaryDirectory(const std::wstring& directory) {
    auto& files = Platform::filesystem();
    std::wstring& chosen = _options.temporaryDirectory;
    chosen.clear();
    if (files.isDirectory(directory) || (!files.exists(directory) && files.makeDirectories(directory)))
        chosen = directory;
    if (chosen.empty())
        chosen = files.getDefaultTemporaryDirectory();
    if (chosen.empty())
        chosen = files.getCurrentDirectory();
}

} // namespace

std::vector<CommandLineOption> Machine::listCommonOptions() {
    return CommonOptions::list();
}

void Machine::parseCommonArgvs(int argc, char** argv, ConsumedOptions& consumed) {
    const std::wstring path = Platform::system().getExecutablePath();
    const std::size_t separator = path.rfind(L'/');
    _ground.executableDirectory =
        separator == std::wstring::npos ? std::wstring() : path.substr(0, separator);
    _ground.executableName =
        StringHelper::toString(path.substr(separator == std::wstring::npos ? 0 : separator + 1));
    CommonOptions(_options, CommandLine(argc, argv, consumed)).parse();
}
