// The three passes over the command line: what every option does, and what options do to each other. The
// refusals are tested from outside, with the exit values.

#include "machine/ground/CommandLine.h"
#include "machine/Machine.h"
#include "machine/ParameterInitialValues.h"
#include "machine/RemoteShellFactory.h"
#include "machine/start/ServerHostOptions.h"

#include "kernel/FpeAgnosticMode.h"
#include "kernel/OrvexVersion.h"
#include "kernel/SignalHandler.h"
#include "platform/Base64Encoder.h"
#include "platform/FileSystem.h"
#include "platform/RendererConfig.h"
#include "platform/StringHelper.h"

#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>

namespace {

using Words = std::vector<std::string>;
using Consumed = CommandLine::Consumed;

std::string base64(const std::wstring& text) {
    return Base64Encoder::encode(text);
}

/// The words between single spaces.
Words split(const std::string& line) {
    Words words;
    std::istringstream stream(line);
    for (std::string word; std::getline(stream, word, ' ');)
        words.push_back(word);
    return words;
}

std::string describe(const Words& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

class CommandLineTest : public testing::Test {
protected:
    void SetUp() override { MachineTestAccess::startAfresh(); }
    void TearDown() override { MachineTestAccess::startAfresh(); }
};

} // namespace

TEST_F(CommandLineTest, WalkSkipsEmptyWordsAndRemembersWhatWasConsumed) {
    const char* words[] = {"program", "", "-a", "1", nullptr, "-b", "-a"};
    Consumed consumed;
    CommandLine line(7, words, consumed);
    ASSERT_TRUE(line.next());
    EXPECT_EQ(line.word(), "-a");
    EXPECT_TRUE(line.hasValues(4));
    EXPECT_FALSE(line.hasValues(5));
    EXPECT_EQ(line.value(), "1");
    EXPECT_EQ(line.value(2), "");
    line.consume({"-a", "VALUE", ""});
    ASSERT_TRUE(line.next());
    EXPECT_EQ(line.word(), "-b");
    EXPECT_FALSE(line.skipConsumed());
    ASSERT_TRUE(line.next());
    EXPECT_FALSE(line.hasValues(1));
    EXPECT_TRUE(line.skipConsumed());
    EXPECT_FALSE(line.next());
    EXPECT_EQ(consumed, (Consumed{{"-a", 2}}));
}

TEST_F(CommandLineTest, NumbersAreReadAsFarAsTheyGoAndStayInRange) {
    EXPECT_EQ(CommandLine::toInt("17x"), 17);
    EXPECT_EQ(CommandLine::toInt("x"), 0);
    EXPECT_EQ(CommandLine::toInt("-3"), -3);
    EXPECT_EQ(CommandLine::toInt("99999999999999999999"), 2147483647);
}

// Pass 1
// ------------------------------------------------------------------------------------------------------

TEST_F(CommandLineTest, EachDriverNameHasItsModule) {
    const std::vector<std::pair<const char*, const char*>> rows = {
        {"platform", "OrvexPlatformMpi"}, {"intel", "OrvexIntelMpi"},    {"ms", "OrvexMsMpi"},
        {"msmpi", "OrvexMsMpi"},          {"openmpi3", "OrvexOpenMpi3"}, {"openmpi4", "OrvexOpenMpi4"},
        {"mpich2", "OrvexMpich2Ch3"},     {"hpe", "OrvexHpeMpi"},        {"crayxt7", "OrvexCrayMpt7"}};
    for (const auto& [driver, module] : rows)
        EXPECT_STREQ(MachineTestAccess::driverModuleName(driver), module);
}

TEST_F(CommandLineTest, AWordForASerialProcessDecidesBeforeAnyDriverIsLookedFor) {
    struct Row {
        Words words;
        Consumed consumed;
        bool proxyServer;
        bool daemon;
    };
    const std::vector<Row> rows = {
        {{"-s", "-mpi", "foo"}, {{"-s", 1}}, false, false},
        {{"-mpi", "-s"}, {{"-s", 1}}, false, false},
        {{"-proxyserver", "-s"}, {{"-proxyserver", 1}, {"-s", 1}}, true, false},
        {{"-proxydaemon"}, {{"-proxydaemon", 1}}, false, true},
    };
    for (const Row& row : rows) {
        MachineTestAccess::startAfresh();
        Consumed consumed;
        MachineTestAccess::startCommunicators(row.words, consumed);
        EXPECT_EQ(consumed, row.consumed) << describe(row.words);
        EXPECT_TRUE(Machine::isSerial());
        EXPECT_EQ(Machine::isProxyServer(), row.proxyServer);
        EXPECT_EQ(Machine::isProxySessionDaemon(), row.daemon);
        EXPECT_EQ(OrvexVersion::_machineConfig, "Serial");
        EXPECT_EQ(Machine::getHost().getNumberProcesses(), 1u);
    }
}

// Pass 2
// ------------------------------------------------------------------------------------------------------

TEST_F(CommandLineTest, EachCommonOptionHasItsEffectAndIsConsumed) {
    struct Row {
        Words words;
        std::function<bool()> before;
        std::function<bool()> after;
    };
    const auto no = [](auto&& question) { return [question] { return !question(); }; };
    const auto row = [&no](Words words, auto question) {
        return Row{std::move(words), no(question), question};
    };
    Machine& (*machine)() = &Machine::getSingleton;
    const std::vector<Row> rows = {
        row({"-deleteOnExit"}, &MachineTestAccess::deletesOnExit),
        row({"-xnousage"}, &MachineTestAccess::isUsageDisabled),
        row({"-nothreads"}, [] { return !MachineTestAccess::isThreaded(); }),
        row({"-encoded-param", base64(L"name"), base64(L"b\u00fc")},
            [] {
                const auto& values = ParameterInitialValues::getSingleton().getParameterValues();
                return values == std::map<std::string, std::string>{{"name", "b\u00fc"}};
            }),
        row({"-rsh", "plink"},
            [] { return RemoteShellFactory::getSingleton().getDefaultCommand() == L"plink"; }),
        row({"-iodebug", "3"}, [] { return Machine::getIOVerbosityLevel() == 3; }),
        row({"-cpubind", "latency"},
            [] { return MachineTestAccess::getCpuBindingPolicy() == LATENCY_BINDING; }),
        row({"-cpubind", "leastload"},
            [] { return MachineTestAccess::getCpuBindingPolicy() == LEAST_LOAD_BINDING; }),
        row({"-cpubind", "disable"}, [] { return !MachineTestAccess::usesInternalBinding(); }),
        row({"-cpubindcontentiontest", "disable"},
            [] { return !Machine::isCpuBindingContentionTestEnabled(); }),
        row({"-xnodeverrors"}, [] { return !MachineTestAccess::getDevErrorChecking(); }),
        row({"-xthreadbindoff"}, [] { return !Machine::bindThreads(); }),
        row({"-xthreadbindverbose"}, &Machine::enableThreadBindingVerbosity),
        row({"-printpids"}, &Machine::getPrintpids),
        row({"-rrthreads", "5"}, [] { return RendererConfig::getSingleton().getNumRenderThreads() == 5; }),
        row({"-rgraphics", "none"},
            [] { return RendererConfig::getSingleton().getGraphics() == RendererConfig::NO_GRAPHICS; }),
        row({"-jobmanagerurl", "http://x", "-taskid", "5"},
            [machine] { return machine().getJobManagerURL() == L"http://x" && machine().getTaskId() == 5; }),
    };
    for (const Row& each : rows) {
        MachineTestAccess::startAfresh();
        EXPECT_TRUE(each.before()) << describe(each.words);
        Consumed consumed;
        MachineTestAccess::parseCommonArgvs(each.words, consumed);
        EXPECT_TRUE(each.after()) << describe(each.words);
        ASSERT_TRUE(consumed.contains(each.words.front())) << describe(each.words);
        if (consumed.size() == 1) {
            EXPECT_EQ(consumed.begin()->second, each.words.size());
        }
    }
}

TEST_F(CommandLineTest, OptionsWithoutEffectHereAreConsumedAndForeignWordsAreLeft) {
    Consumed consumed;
    MachineTestAccess::parseCommonArgvs(
        split("-mpi a -time -what word  -mpidriver b -cpubindverbose -cpubindextendedverbosity -xmpidriver c "
              "-xmpiversion d -cpubind bandwidth -cpubindcontentiontest enable -pio -taskid 0 "
              "-encoded-param YQ== MQ== -encoded-param YQ== Mg=="),
        consumed);
    EXPECT_EQ(consumed, (Consumed{{"-mpi", 2},
                                  {"-time", 1},
                                  {"-mpidriver", 2},
                                  {"-cpubindverbose", 1},
                                  {"-cpubindextendedverbosity", 1},
                                  {"-xmpidriver", 2},
                                  {"-xmpiversion", 2},
                                  {"-cpubind", 2},
                                  {"-cpubindcontentiontest", 2},
                                  {"-pio", 1},
                                  {"-taskid", 2},
                                  {"-encoded-param", 3}}));
    EXPECT_EQ(MachineTestAccess::getCpuBindingPolicy(), BANDWIDTH_BINDING);
    EXPECT_TRUE(MachineTestAccess::usesInternalBinding());
    EXPECT_FALSE(Machine::getSingleton().isParallelIo());
    EXPECT_EQ(Machine::getSingleton().getTaskId(), -1);
    EXPECT_EQ(ParameterInitialValues::getSingleton().getParameterValues().at("a"), "2");
    EXPECT_EQ(Machine::getExecutableName(), "OrvexMachineTests");
    EXPECT_TRUE(Platform::filesystem().isDirectory(Machine::getExecutablePath()));
}

TEST_F(CommandLineTest, ParallelInputAndOutputNeedsAJob) {
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    Consumed consumed;
    MachineTestAccess::parseCommonArgvs({"-pio"}, consumed);
    EXPECT_TRUE(Machine::getSingleton().isParallelIo());
}

TEST_F(CommandLineTest, TemporaryDirectoryFallsBackWhenItCantBeHad) {
    auto& files = Platform::filesystem();
    const std::wstring standard = files.getDefaultTemporaryDirectory();
    const std::wstring root = files.makeTemporaryDirectory(standard, L"orvex-machine-test");
    const std::wstring file = files.join(root, L"file");
    std::ofstream(StringHelper::toString(file)) << "x";
    const std::vector<std::pair<std::wstring, std::wstring>> rows = {
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
    }
    EXPECT_TRUE(files.isDirectory(files.join(root, L"new")));
    EXPECT_TRUE(files.deleteTree(root));
}

TEST_F(CommandLineTest, FloatingPointOptionsSeeWhatStoodBeforeThem) {
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
        bool agnostic;
        bool signals;
        std::string developmentText;
        std::string releaseText;
    };
    const std::string fpe = "-fpe";
    const std::string disable = "-xdisable-fpe-register-checking";
    const std::vector<Row> rows = {
        {{fpe}, false, false, true, enabling, enabling},
        {{disable}, false, true, false, warning, ""},
        {{fpe, disable}, false, true, false, enabling + warning + disabling, enabling},
        {{disable, fpe}, false, true, false, warning + noEffect, enabling},
        {{disable, disable}, false, true, false, warning, ""},
        {{fpe, disable}, true, true, false, enabling, enabling},
        {{disable, fpe}, true, true, false, "", enabling},
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
        const bool hasFpe = consumed.contains(fpe);
        EXPECT_EQ(text, development ? row.developmentText : row.releaseText) << describe(row.words);
        EXPECT_EQ(FpeAgnosticMode::isActive(), development && row.agnostic) << describe(row.words);
        EXPECT_EQ(SignalHandler::_catchFpeSignals, development ? row.signals : hasFpe) << describe(row.words);
    }
}

TEST_F(CommandLineTest, TheFirstDesignFlagDecides) {
    struct Row {
        Words words;
        bool manager;
        bool study;
    };
    const std::vector<Row> rows = {{{}, false, false},
                                   {{"-dmproject", "-encoded-dmrunfile", "x"}, true, false},
                                   {{"a", "-encoded-dmrunfile", "x", "-dmproject"}, false, true}};
    for (const Row& row : rows) {
        MachineTestAccess::scanForDesignFlags(row.words);
        EXPECT_EQ(Machine::getSingleton().isDesignManager(), row.manager) << describe(row.words);
        EXPECT_EQ(Machine::getSingleton().isDesignStudy(), row.study) << describe(row.words);
    }
}

// Pass 3
// ------------------------------------------------------------------------------------------------------

namespace {

/// What earlier passes leave.
const Consumed EARLIER = {{"-mpi", 2}, {"-encoded-param", 3}, {"-printpids", 1}};

const std::set<std::string> DEFAULTS = {"port=47827", "range=-1"};

/// What differs from the defaults.
std::string parseServerHost(const Words& words, bool parallel) {
    std::vector<const char*> argv = {"orvexsim"};
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    Consumed consumed = EARLIER;
    const ServerHostOptions options =
        ServerHostOptions::parse(static_cast<int>(argv.size()), argv.data(), consumed, parallel, false);
    const std::pair<const char*, std::string> values[] = {
        {"session", StringHelper::toString(options.sessionName)},
        {"design", StringHelper::toString(options.passToDesign)},
        {"client", options.clientAddress},
        {"proxy", options.proxyHost},
        {"command", options.proxyCommand},
        {"file", options.processFileName},
        {"port", std::to_string(options.port)},
        {"range", std::to_string(options.portRange)}};
    const std::pair<const char*, bool> flags[] = {{"collaborate", options.collaborate},
                                                  {"load", options.load},
                                                  {"new", options.createNew},
                                                  {"proxyDebug", options.proxyDebug},
                                                  {"debugger", options.attachDebugger},
                                                  {"unconnected", !options.connect},
                                                  {"ownOutput", !options.outputToClients},
                                                  {"unlisted", !options.sessionLocator}};
    std::string text;
    for (const auto& [name, value] : values)
        if (const std::string word = name + ("=" + value); !value.empty() && !DEFAULTS.contains(word))
            text += word + ' ';
    for (const auto& [name, isOn] : flags)
        text += isOn ? name + std::string(" ") : "";
    return text;
}

} // namespace

TEST_F(CommandLineTest, EachServerOptionHasItsEffectAndNoOther) {
    struct Row {
        Words words;
        const char* effect;
        bool parallel = false;
    };
    const Row rows[] = {
        {{"", "-mpi", "-port", "-encoded-param", "a", "b", "-printpids"}, ""},
        {{"-xclientaddr", "-x"}, "client=-x "},
        {{"-collab"}, "collaborate "},
        {{"-noconnect"}, "unconnected "},
        {{"-cout"}, "ownOutput "},
        {{"-load"}, "load "},
        {{"-loc"}, "unlisted "},
        {{"-new"}, "new "},
        {{"-encoded-passtodesign", base64(L"\u00fc")}, "design=\u00fc "},
        {{"-procfile", "p"}, "file=p "},
        {{"-proxy", "h", "-encoded-proxycmd", base64(L"c d"), "-proxydebug"},
         "proxy=h command=c d proxyDebug "},
        {{"-port", "5"}, "port=5 "},
        {{"-port", "7x"}, "port=7 "},
        {{"-portrange", "9"}, "range=9 "},
        {{"-s"}, ""},
        {{"-session", "-a b"}, "session=-a b "},
        {{"-encoded-session", base64(L"\u00e4")}, "session=\u00e4 "},
        {{"-totalview"}, "debugger ", true},
        {{"-dmproject", "-encoded-dmrunfile", "x", "-dmpost"}, ""},
        {{"b.sim", "c.sim"}, "session=b.sim "},
        {{"-session", "a.sim", "b.sim"}, "session=a.sim "},
        {{"b.sim", "-session", "a.sim"}, "session=a.sim "},
        {{StringHelper::encode(std::string("a b"))}, "session=a b "},
    };
    for (const Row& row : rows)
        EXPECT_EQ(parseServerHost(row.words, row.parallel), row.effect) << describe(row.words);
}
