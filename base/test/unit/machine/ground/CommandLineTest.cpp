// The three passes over the command line: the effect of each option, and the effect of options on each other.
// The refusals are tested from outside, with the exit values.

#include "machine/ground/CommandLine.h"
#include "machine/CpuBinder.h"
#include "machine/Machine.h"
#include "machine/ParameterInitialValues.h"
#include "machine/RemoteShellFactory.h"
#include "machine/start/ServerHostOptions.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/OrvexVersion.h"
#include "kernel/SignalHandler.h"
#include "platform/FileSystem.h"
#include "platform/RendererConfig.h"
#include "platform/StringHelper.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string_view>
#include <tuple>

namespace {

using Words = std::vector<std::string>;
using Consumed = CommandLine::Consumed;

/// The words between single spaces.
Words split(const std::string& line) {
    Words words;
    std::istringstream stream(line);
    for (std::string word; std::getline(stream, word, ' ');)
        words.push_back(word);
    return words;
}

class CommandLinePass : public testing::Test {
protected:
    void SetUp() override { MachineTestAccess::startAfresh(); }
    void TearDown() override { MachineTestAccess::startAfresh(); }
};

/// The rows "line => effect" of a file of base/test/data/options.
std::vector<std::pair<std::string, std::string>> readRows(const std::string& name) {
    constexpr std::string_view ARROW = " =>";
    std::vector<std::pair<std::string, std::string>> rows;
    std::ifstream data(ORVEX_TEST_DATA "/options/" + name + ".txt");
    for (std::string line; std::getline(data, line);)
        if (const std::size_t at = line.find(ARROW); line.front() != '#')
            rows.emplace_back(line.substr(0, at), line.substr(at + ARROW.size()));
    EXPECT_GT(rows.size(), 20u);
    return rows;
}

/// Values that differ from their default as " name=value", and flags that are on as " name".
std::string tell(const std::vector<std::tuple<const char*, std::string, std::string>>& values,
                 const std::vector<std::pair<const char*, bool>>& flags) {
    std::string text;
    for (const auto& [name, value, standard] : values)
        text += value == standard ? std::string() : std::string(" ") + name + "=" + value;
    for (const auto& [name, isOn] : flags)
        text += isOn ? std::string(" ") + name : "";
    return text;
}

/// The effect of a line in the pass for all roles, and the record of what it used.
std::string parseCommon(const std::string& line) {
    Consumed consumed;
    MachineTestAccess::parseCommonArgvs(split(line), consumed);
    const MachineOptions& options = Machine::getOptions();
    const RendererConfig& renderer = RendererConfig::getSingleton();
    std::string text = tell(
        {{"job", StringHelper::toString(options.jobManagerUrl), ""},
         {"task", std::to_string(options.taskId), "-1"},
         {"binding", std::to_string(options.bindingPolicy), std::to_string(BANDWIDTH_BINDING)},
         {"bindingVerbosity", std::to_string(options.bindingVerbosity), "0"},
         {"io", std::to_string(Machine::getIOVerbosityLevel()), "0"},
         {"shell", StringHelper::toString(RemoteShellFactory::getSingleton().getDefaultCommand()), "ssh"}},
        {{"unthreaded", !options.threaded},
         {"deleted", options.deleteOnExit},
         {"unused", options.usageDisabled},
         {"unbound", !options.internalBinding},
         {"contended", !Machine::isCpuBindingContentionTestEnabled()},
         {"unboundThreads", !Machine::bindThreads()},
         {"threads", Machine::enableThreadBindingVerbosity()},
         {"parallel", Machine::getSingleton().isParallelIo()},
         {"pids", Machine::getPrintpids()},
         {"unchecked", !MachineTestAccess::getDevErrorChecking()},
         {"blind", renderer.getGraphics() == RendererConfig::NO_GRAPHICS},
         {"rendering", renderer.getNumRenderThreads() == 5}});
    for (const auto& [name, value] : ParameterInitialValues::getSingleton().getParameterValues())
        text += ' ' + name + "->" + value;
    for (const auto& [word, count] : consumed)
        text += " | " + word + ' ' + std::to_string(count);
    return text;
}

} // namespace

TEST_F(CommandLinePass, LooksForTheModuleOfTheDriver) {
    const std::pair<const char*, const char*> rows[] = {
        {"platform", "OrvexPlatformMpi"}, {"intel", "OrvexIntelMpi"},    {"ms", "OrvexMsMpi"},
        {"msmpi", "OrvexMsMpi"},          {"openmpi3", "OrvexOpenMpi3"}, {"crayxt7", "OrvexCrayMpt7"}};
    for (const auto& [driver, module] : rows) {
        Consumed consumed;
        const std::string message = messageOf<InternalError>([&, name = driver] {
            MachineTestAccess::startCommunicators({"-mpi", name}, consumed);
        });
        EXPECT_NE(message.find("MPI wrapper: Couldn't load the module " + std::string(module) + ":"),
                  std::string::npos)
            << message;
    }
}

TEST_F(CommandLinePass, DecidesForASerialProcessBeforeAnyDriverIsLookedFor) {
    const std::tuple<const char*, Consumed, bool, bool> rows[] = {
        {"-s -mpi foo", {{"-s", 1}}, false, false},
        {"-mpi -s", {{"-s", 1}}, false, false},
        {"-proxyserver -s", {{"-proxyserver", 1}, {"-s", 1}}, true, false},
        {"-proxydaemon", {{"-proxydaemon", 1}}, false, true},
    };
    for (const auto& [line, expected, proxyServer, daemon] : rows) {
        MachineTestAccess::startAfresh();
        Consumed consumed;
        MachineTestAccess::startCommunicators(split(line), consumed);
        EXPECT_EQ(consumed, expected) << line;
        EXPECT_EQ(Machine::isProxyServer(), proxyServer);
        EXPECT_EQ(Machine::isProxySessionDaemon(), daemon);
        EXPECT_EQ(OrvexVersion::_machineConfig, "Serial");
    }
}

TEST_F(CommandLinePass, GivesEachCommonOptionItsEffectAndNoOther) {
    for (const auto& [line, effect] : readRows("common")) {
        MachineTestAccess::startAfresh();
        EXPECT_EQ(parseCommon(line), effect) << line;
    }
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    EXPECT_NE(parseCommon("-pio").find(" parallel"), std::string::npos);
    EXPECT_EQ(Machine::getExecutableName(), "OrvexMachineTests");
    EXPECT_TRUE(Platform::filesystem().isDirectory(Machine::getExecutablePath()));
}

TEST_F(CommandLinePass, FallsBackFromATemporaryDirectoryThatCannotBeMade) {
    auto& files = Platform::filesystem();
    const std::wstring standard = files.getDefaultTemporaryDirectory();
    const std::wstring root = files.makeTemporaryDirectory(standard, L"orvex-machine-test");
    const std::wstring file = files.join(root, L"file");
    std::ofstream(StringHelper::toString(file)) << "x";
    const std::pair<std::wstring, std::wstring> rows[] = {
        {root, root},
        {files.join(root, L"new"), files.join(root, L"new")},
        {file, standard},
        {L"", standard}};
    for (const auto& [given, taken] : rows) {
        MachineTestAccess::startAfresh();
        Consumed consumed;
        MachineTestAccess::parseCommonArgvs({"-tmpdir", StringHelper::encode(StringHelper::toString(given))},
                                            consumed);
        EXPECT_EQ(Machine::getSingleton().getTemporaryDirectory(), taken);
        EXPECT_TRUE(files.isDirectory(taken));
    }
    EXPECT_TRUE(files.deleteTree(root));
}

TEST_F(CommandLinePass, TakesFloatingPointOptionsInTheOrderOfTheLine) {
    const std::string enabling = "Enabling asynchronous floating point exceptions.\n";
    const std::string warning = "****************************************\n"
                                "WARNING: FPE register checking disabled.\n"
                                "****************************************\n";
    const std::string disabling =
        "NOTE: The '-xdisable-fpe-register-checking' flag is incompatible with '-fpe'.\n"
        "      Disabling asynchronous floating point exceptions.\n";
    const std::string noEffect =
        "NOTE: The '-fpe' flag has no effect when '-xdisable-fpe-register-checking' is "
        "enabled.\n";
    struct Row {
        Words words;
        bool worker;
        std::string developmentText;
    };
    const std::string fpe = "-fpe";
    const std::string disable = "-xdisable-fpe-register-checking";
    const Row rows[] = {
        {{fpe}, false, enabling},
        {{disable, disable}, false, warning},
        {{fpe, disable}, false, enabling + warning + disabling},
        {{disable, fpe}, false, warning + noEffect},
        {{fpe, disable}, true, enabling},
        {{disable, fpe}, true, ""},
    };
    const bool development = OrvexVersion::isDevelopmentVersion();
    for (const Row& row : rows) {
        MachineTestAccess::startAfresh();
        if (row.worker)
            MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
        Consumed consumed;
        testing::internal::CaptureStdout();
        MachineTestAccess::parseCommonArgvs(row.words, consumed);
        const std::string text = testing::internal::GetCapturedStdout();
        const bool agnostic = development && consumed.contains(disable);
        EXPECT_EQ(text, development ? row.developmentText : consumed.contains(fpe) ? enabling : "");
        EXPECT_EQ(FpeAgnosticMode::isActive(), agnostic) << text;
        EXPECT_EQ(SignalHandler::_catchFpeSignals, consumed.contains(fpe) && !agnostic) << text;
    }
}

TEST_F(CommandLinePass, LetsTheFirstDesignFlagDecide) {
    const std::tuple<const char*, bool, bool> rows[] = {{"a", false, false},
                                                        {"-dmproject -encoded-dmrunfile x", true, false},
                                                        {"a -encoded-dmrunfile x -dmproject", false, true}};
    for (const auto& [line, manager, study] : rows) {
        MachineTestAccess::scanForDesignFlags(split(line));
        EXPECT_EQ(Machine::getSingleton().isDesignManager(), manager) << line;
        EXPECT_EQ(Machine::getSingleton().isDesignStudy(), study) << line;
    }
}

TEST_F(CommandLinePass, GivesEachServerOptionItsEffectAndNoOther) {
    const auto parse = [](const std::string& line) {
        const bool parallel = line.front() == '*';
        const Words words = split(line.substr(parallel ? 1 : 0));
        std::vector<const char*> argv = {"orvexsim"};
        for (const std::string& word : words)
            argv.push_back(word.c_str());
        // The record of the passes before.
        Consumed consumed = {{"-mpi", 2}, {"-encoded-param", 3}, {"-printpids", 1}};
        const ServerHostOptions options =
            ServerHostOptions::parse(static_cast<int>(argv.size()), argv.data(), consumed, parallel, false);
        return tell({{"session", StringHelper::toString(options.sessionName), ""},
                     {"design", StringHelper::toString(options.passToDesign), ""},
                     {"client", options.clientAddress, ""},
                     {"proxy", options.proxyHost, ""},
                     {"command", options.proxyCommand, ""},
                     {"file", options.processFileName, ""},
                     {"port", std::to_string(options.port), "47827"},
                     {"range", std::to_string(options.portRange), "-1"}},
                    {{"collaborate", options.collaborate},
                     {"load", options.load},
                     {"new", options.createNew},
                     {"proxyDebug", options.proxyDebug},
                     {"debugger", options.attachDebugger},
                     {"unconnected", !options.connect},
                     {"ownOutput", !options.outputToClients},
                     {"unlisted", !options.sessionLocator}});
    };
    for (const auto& [line, effect] : readRows("server"))
        EXPECT_EQ(parse(line), effect) << line;
}
