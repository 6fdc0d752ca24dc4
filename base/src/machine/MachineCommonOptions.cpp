// The options that every role reads: Machine::parseCommonArgvs.

#include "machine/Machine.h"

#include "machine/CommandLine.h"
#include "machine/MpiCore.h"
#include "machine/ParameterInitialValues.h"
#include "machine/RemoteShellFactory.h"
#include "machine/SynchronizedDynamicLoader.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"
#include "kernel/SignalHandler.h"
#include "platform/Base64Encoder.h"
#include "platform/FileSystem.h"
#include "platform/RendererConfig.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <iostream>
#include <stdexcept>

namespace {

std::wstring wideDecoded(const std::string& text) {
    return StringHelper::decode(StringHelper::fromBytes(text));
}

void sayOnce(const char* text) {
    if (Machine::isSerial() || Machine::isMaster())
        std::cout << text << std::endl;
}

} // namespace

/// One walk over the line. What options do to each other, they do in the order of the line.
class Machine::CommonOptions {
public:
    CommonOptions(Machine& machine, CommandLine line) : _machine(machine), _line(line) {}

    void parse() {
        while (_line.next())
            if (const Row* row = findRow())
                take(*row);
        settleTemporaryDirectory();
        settleJobManager();
    }

private:
    struct Row {
        const char* word;
        unsigned words;
        void (CommonOptions::*apply)();
        const char* missingValue = nullptr; ///< null: "Missing <word> arg"
    };
    static const Row ROWS[];

    const Row* findRow() const;
    void take(const Row& row);
    std::string value() const { return _line.value(); }

    void settleTemporaryDirectory();
    void settleJobManager();

    void ignore() {}
    void deleteOnExit() { _machine._deleteOnExit = true; }
    void disableUsage() { _machine._usageDisabled = true; }
    void disableFpeRegisterChecking();
    void enableFpeSignals();
    void disableThreads() { _threaded = false; }
    void loadModule() { SynchronizedDynamicLoader::getSingleton().load(value()); }
    void setMpiVersion();
    void setMpiDistribution();
    void addParameter();
    void enableParallelIo() { _machine.setParallelIo(true); }
    void setRemoteShell();
    void setTemporaryDirectory() { _machine.setTemporaryDirectory(wideDecoded(value())); }
    void setIoDebug() { setIOVerbosityLevel(CommandLine::toInt(value())); }
    void setCpuBinding();
    void setContentionTest();
    void disableDevErrors() { _machine._devErrorChecking = false; }
    void disableThreadBinding() { _threadBindingAttributes |= THREAD_BINDING_OFF; }
    void enableThreadBindingReport() { _threadBindingAttributes |= THREAD_BINDING_VERBOSE; }
    void enablePidPrinting() { _printpids = true; }
    void setJobManagerUrl() { _jobManagerUrl = StringHelper::toWString(value()); }
    void setTaskId() { _taskId = CommandLine::toInt(value()); }
    void setRenderThreads() {
        RendererConfig::getSingleton().setNumRenderThreads(CommandLine::toInt(value()));
    }
    void setGraphics();

    Machine& _machine;
    CommandLine _line;
    std::wstring _jobManagerUrl;
    int _taskId = 0;
};

const Machine::CommonOptions::Row Machine::CommonOptions::ROWS[] = {
    {"-deleteOnExit", 1, &CommonOptions::deleteOnExit},
    {"-xnousage", 1, &CommonOptions::disableUsage},
    {"-xdisable-fpe-register-checking", 1, &CommonOptions::disableFpeRegisterChecking},
    {"-fpe", 1, &CommonOptions::enableFpeSignals},
    {"-mpi", 2, &CommonOptions::ignore}, // the driver runs already
    {"-mpidriver", 2, &CommonOptions::ignore, "Missing -mpi arg"},
    {"-time", 1, &CommonOptions::ignore},
    {"-nothreads", 1, &CommonOptions::disableThreads},
    {"-module", 2, &CommonOptions::loadModule},
    {"-xmpiversion", 2, &CommonOptions::setMpiVersion},
    {"-xmpidriver", 2, &CommonOptions::setMpiDistribution},
    {"-encoded-param", 3, &CommonOptions::addParameter, "Missing -encoded-param arg arg"},
    {"-pio", 1, &CommonOptions::enableParallelIo},
    {"-rsh", 2, &CommonOptions::setRemoteShell},
    {"-tmpdir", 2, &CommonOptions::setTemporaryDirectory},
    {"-iodebug", 2, &CommonOptions::setIoDebug},
    {"-cpubind", 2, &CommonOptions::setCpuBinding},
    {"-cpubindverbose", 1, &CommonOptions::ignore}, // main() looks for these two in the record
    {"-cpubindextendedverbosity", 1, &CommonOptions::ignore},
    {"-cpubindcontentiontest", 2, &CommonOptions::setContentionTest},
    {"-xnodeverrors", 1, &CommonOptions::disableDevErrors},
    {"-xthreadbindoff", 1, &CommonOptions::disableThreadBinding},
    {"-xthreadbindverbose", 1, &CommonOptions::enableThreadBindingReport},
    {"-printpids", 1, &CommonOptions::enablePidPrinting},
    {"-jobmanagerurl", 2, &CommonOptions::setJobManagerUrl},
    {"-taskid", 2, &CommonOptions::setTaskId},
    {"-rrthreads", 2, &CommonOptions::setRenderThreads},
    {"-rgraphics", 2, &CommonOptions::setGraphics},
};

const Machine::CommonOptions::Row* Machine::CommonOptions::findRow() const {
    for (const Row& row : ROWS)
        if (_line.word() == row.word)
            return &row;
    return nullptr;
}

void Machine::CommonOptions::take(const Row& row) {
    if (!_line.hasValues(row.words - 1))
        throw std::invalid_argument(row.missingValue ? row.missingValue : "Missing " + _line.word() + " arg");
    (this->*row.apply)();
    _line.consume(row.words);
}

void Machine::CommonOptions::disableFpeRegisterChecking() {
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

void Machine::CommonOptions::enableFpeSignals() {
    if (FpeAgnosticMode::isActive()) {
        sayOnce("NOTE: The '-fpe' flag has no effect when '-xdisable-fpe-register-checking' is enabled.");
        return;
    }
    std::cout << "Enabling asynchronous floating point exceptions." << std::endl;
    SignalHandler::setCatchFpeSignals(true);
}

void Machine::CommonOptions::setMpiVersion() {
    if (isParallel())
        MpiCore::setMpiVersionName(value());
}

void Machine::CommonOptions::setMpiDistribution() {
    if (isParallel())
        MpiCore::setDistribName(value());
}

void Machine::CommonOptions::addParameter() {
    const auto decoded = [this](unsigned offset) {
        return StringHelper::toString(Base64Encoder::decode(_line.value(offset)));
    };
    ParameterInitialValues::getSingleton().addParameterArg(decoded(1), decoded(2));
}

void Machine::CommonOptions::setRemoteShell() {
    RemoteShellFactory::getSingleton().setDefaultRemoteProcessLauncher(wideDecoded(value()));
}

void Machine::CommonOptions::setCpuBinding() {
    if (value() == "bandwidth")
        _cpuBindingPolicy = BANDWIDTH_BINDING;
    else if (value() == "latency")
        _cpuBindingPolicy = LATENCY_BINDING;
    else if (value() == "leastload")
        _cpuBindingPolicy = LEAST_LOAD_BINDING;
    else if (value() == "disable")
        _useInternalBinding = false;
    else
        throw std::invalid_argument(
            "-cpubind argument must be latency/leastload/disable (don't specify anything "
            "for bandwidth)");
}

void Machine::CommonOptions::setContentionTest() {
    if (value() != "enable" && value() != "disable")
        throw std::invalid_argument("-cpubindcontentiontest argument must either be enabled/disable");
    _cpuBindingContentionTest = value() == "enable";
}

void Machine::CommonOptions::setGraphics() {
    const std::string error = RendererConfig::getSingleton().setGraphics(StringHelper::toWString(value()));
    ORVEX_ASSERT(error.empty(), "RendererConfig error: " + error);
}

void Machine::CommonOptions::settleTemporaryDirectory() {
    if (_machine._temporaryDirectory.empty())
        _machine.setTemporaryDirectory(Platform::filesystem().getDefaultTemporaryDirectory());
}

void Machine::CommonOptions::settleJobManager() {
    const bool hasUrl = !_jobManagerUrl.empty();
    const bool hasTask = _taskId != 0;
    if (hasUrl != hasTask)
        throw std::invalid_argument("The options -jobmanagerurl and -taskid must both be specified");
    if (hasUrl) {
        _machine._jobManagerUrl = _jobManagerUrl;
        _machine._taskId = _taskId;
    }
}

void Machine::parseCommonArgvs(int argc, char** argv, ConsumedOptions& consumed) {
    const std::wstring path = Platform::system().getExecutablePath();
    const std::size_t separator = path.rfind(L'/');
    _executablePath = separator == std::wstring::npos ? std::wstring() : path.substr(0, separator);
    _executableName =
        StringHelper::toString(path.substr(separator == std::wstring::npos ? 0 : separator + 1));
    CommonOptions(*this, CommandLine(argc, argv, consumed)).parse();
}

void Machine::setTemporaryDirectory(const std::wstring& directory) {
    auto& files = Platform::filesystem();
    _temporaryDirectory.clear();
    if (files.isDirectory(directory) || (!files.exists(directory) && files.makeDirectories(directory)))
        _temporaryDirectory = directory;
    if (_temporaryDirectory.empty())
        _temporaryDirectory = files.getDefaultTemporaryDirectory();
    if (_temporaryDirectory.empty())
        _temporaryDirectory = files.getCurrentDirectory();
}
